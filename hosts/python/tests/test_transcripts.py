"""The transcripts of the protocol page, held against the agent and the virtual reader in BUILD_DIR."""

import re
import subprocess
import threading
import unittest
from pathlib import Path

from virtual_reader import AGENT, VirtualReader

PAGE = Path(__file__).resolve().parents[3] / "docs/protocol.md"
TRANSCRIPTS = re.findall(r"^```transcript\n(.*?)^```$", PAGE.read_text(encoding="utf-8"), re.S | re.M)


class TranscriptTest(unittest.TestCase):
    def test_transcripts_of_the_protocol_page(self):
        self.assertGreater(len(TRANSCRIPTS), 5)
        for number, text in enumerate(TRANSCRIPTS, 1):
            with self.subTest(transcript=number):
                self.run_transcript(text.splitlines())

    def run_transcript(self, lines):
        reader = VirtualReader()
        self.addCleanup(reader.end)
        while lines[0].startswith("! "):
            reader.tell(lines.pop(0)[2:])
        with subprocess.Popen([AGENT], stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=reader.env) as agent:
            limit = threading.Timer(20, agent.kill)
            limit.start()
            self.addCleanup(limit.cancel)
            before_first = 0  # the number before that of the run's first reader
            for line in lines:
                marker, line = line[:1], line[2:]
                if marker == "!":
                    reader.tell(line)
                elif marker == ">":
                    line = re.sub(r"\bDev(\d+)", lambda name: f"Dev{before_first + int(name[1])}", line)
                    agent.stdin.write(f"{line}\n".encode())
                    agent.stdin.flush()
                else:
                    told = agent.stdout.readline().decode().rstrip("\n")
                    if not before_first and (name := re.match(r"Reader: Dev(\d+)", told)):
                        before_first = int(name[1]) - 1
                    told = re.sub(r"\bDev(\d{13,})", lambda name: f"Dev{int(name[1]) - before_first}", told)
                    self.assertEqual((marker, line), ("<", told))
            self.assertEqual((agent.communicate(timeout=15)[0], agent.returncode), (b"", 0))


if __name__ == "__main__":
    unittest.main()
