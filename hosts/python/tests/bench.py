"""What the tests share: a virtual reader to tell verbs, and where things are."""

import os
import subprocess
import tempfile
import time

BUILD = os.environ["BUILD_DIR"]
BUNDLE = f"{BUILD}/CardReaderAgent.app"
AGENT = os.environ.get("AGENT", f"{BUNDLE}/Contents/MacOS/card-reader-agent")


class VirtualReader:
    def __init__(self):
        self.env = {**os.environ, "VIRTUAL_READER_SOCKET": tempfile.mkdtemp() + "/socket"}
        self.process = subprocess.Popen(
            [f"{BUILD}/virtual-reader"],
            env=self.env,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        self.tell()

    def tell(self, *verbs):
        """Has the verbs carried out and returns what is printed, up to the number of beeps."""
        self.process.stdin.write("\n".join([*verbs, "beeps\n"]).encode())
        self.process.stdin.flush()
        told = ""
        while "beeps " not in told and (line := self.process.stdout.readline()):
            told += line.decode()
        return told

    def close(self):
        """Returns the exit status: 0 if no verb was wrong and all expected calls came."""
        self.process.communicate(timeout=10)
        return self.process.returncode


def output(*command):
    return subprocess.run(map(str, command), stdout=subprocess.PIPE, text=True).stdout.strip()


def child_of(pid):
    return int(output("pgrep", "-P", pid))


def runs(pid):
    """Whether the process has not ended; one that nobody waited for has."""
    return output("ps", "-o", "stat=", "-p", pid)[:1] not in ("", "Z")


def ends(pid, seconds=5):
    deadline = time.monotonic() + seconds
    while runs(pid) and time.monotonic() < deadline:
        time.sleep(0.01)
    return not runs(pid)
