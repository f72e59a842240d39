"""What the tests share: the programs in BUILD_DIR."""

import faulthandler
import os
import subprocess
import tempfile
from pathlib import Path

BUILD = Path(os.environ["BUILD_DIR"])
AGENT = BUILD / "CardReaderAgent.app/Contents/MacOS/card-reader-agent"


class VirtualReader:
    """Plugged in until `end`. `env` is the environment of the agent that is to find it."""

    def __init__(self):
        faulthandler.dump_traceback_later(20, exit=True)  # a test that hangs fails
        self.folder = tempfile.TemporaryDirectory(prefix="card-reader-")
        self.env = {**os.environ, "VIRTUAL_READER_SOCKET": self.folder.name + "/socket"}
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE}
        self.process = subprocess.Popen([BUILD / "virtual-reader"], env=self.env, **pipes)
        self.tell()

    def tell(self, *verbs):
        """Has the verbs carried out and returns what is printed, up to the number of beeps."""
        self.process.stdin.write("\n".join([*verbs, "beeps\n"]).encode())
        self.process.stdin.flush()
        told = ""
        while line := self.process.stdout.readline().decode():
            told += line
            if line.startswith("beeps"):
                return told
        raise EOFError("the virtual reader has ended")

    def end(self):
        faulthandler.cancel_dump_traceback_later()
        self.process.communicate(timeout=10)
        self.folder.cleanup()
        if self.process.returncode:
            raise AssertionError("a verb was wrong, or what it expected did not come")
