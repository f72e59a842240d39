"""What the tests share: where the programs are, and processes."""

import os
import signal
import subprocess
import tempfile
import time
from pathlib import Path

BUNDLE = f"{os.environ['BUILD_DIR']}/CardReaderAgent.app"
AGENT = os.environ.get("AGENT", f"{BUNDLE}/Contents/MacOS/card-reader-agent")
PACKAGE = Path(__file__).resolve().parents[1]

# A shell's background job ignores it, and so would the programs that the tests interrupt.
signal.signal(signal.SIGINT, signal.default_int_handler)


def output(*command):
    return subprocess.run(map(str, command), stdout=subprocess.PIPE, text=True).stdout.strip()


def ends(pid, seconds=5):
    """Whether the process has exited by then; one that nobody waited for has."""
    deadline = time.monotonic() + seconds
    while output("ps", "-o", "stat=", "-p", pid)[:1] not in ("", "Z"):
        if time.monotonic() > deadline:
            return False
        time.sleep(0.01)
    return True


def script(text, mode=0o700):
    """A shell script in place of the agent."""
    path = Path(tempfile.mkdtemp()) / "agent"
    path.write_text(f"#!/bin/sh\n{text}\n")
    path.chmod(mode)
    return path


def data_file(lines):
    path = Path(tempfile.mkdtemp()) / "lines"
    path.write_bytes(b"".join(line + b"\n" for line in lines))
    return path
