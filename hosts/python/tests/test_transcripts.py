"""The transcripts of the protocol page, against the agent and the virtual reader in BUILD_DIR."""

import re
import subprocess
import unittest
from pathlib import Path

from virtual_reader import AGENT, VirtualReader

PAGE = (Path(__file__).resolve().parents[3] / "docs/protocol.md").read_text(encoding="utf-8")
TRANSCRIPTS = re.findall(r"^```transcript\n(.*?)^```$", PAGE, re.DOTALL | re.MULTILINE)


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
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE}
        with subprocess.Popen([AGENT], env=reader.env, **pipes) as agent:
            base = 0  # the number before that of the run's first reader
            for line in lines:
                marker, line = line[:1], line[2:]
                if marker == "!":
                    reader.tell(line)
                elif marker == ">":
                    line = re.sub(r"\bDev(\d+)", lambda name: f"Dev{base + int(name[1])}", line)
                    agent.stdin.write(f"{line}\n".encode())
                    agent.stdin.flush()
                else:
                    told = agent.stdout.readline().decode().rstrip("\n")
                    if not base and (name := re.match(r"Reader: Dev(\d+)", told)):
                        base = int(name[1]) - 1
                    told = re.sub(r"\bDev(\d{13,})", lambda name: f"Dev{int(name[1]) - base}", told)
                    self.assertEqual((marker, line), ("<", told))
            self.assertEqual((agent.communicate()[0], agent.returncode), (b"", 0))
