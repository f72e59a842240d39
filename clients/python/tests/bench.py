"""What the tests share: where the programs are, and what becomes of processes."""

import os
import subprocess
import time

BUILD = os.environ["BUILD_DIR"]
BUNDLE = f"{BUILD}/CardReaderAgent.app"
AGENT = os.environ.get("AGENT", f"{BUNDLE}/Contents/MacOS/card-reader-agent")


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
