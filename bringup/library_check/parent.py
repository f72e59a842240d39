"""Runs rows in processes of their own, and collects what they report."""

import json
import os
import platform
import select
import signal
import socket
import subprocess
import sys
import time
from contextlib import suppress

from .library import quoted

START = 30.0  # seconds for Python to start, which Rosetta may have to translate first
GRACE = 1.0  # seconds for the output of a process that has exited to end
OVERALL = {  # rows about all processes
    "removed": "no text comes once the marker function is removed",
    "thread": "texts come during calls, on the caller's thread",
    "length": "each text comes with its length",
    "record": "Get and Set write within the 16 bytes of a record",
    "output": "nothing is printed on standard output",
    "exit": "each process exits with status 0",
    "helper": "no process of the library stays behind",
}


def interpreter():
    """What runs a row: this Python, under Rosetta on Apple silicon, since the agent is x86-64."""
    is_arm_mac = sys.platform == "darwin" and platform.machine() == "arm64"
    return ["arch", "-x86_64"] * is_arm_mac + [sys.executable, "-S", "-E"]


def ending(status):
    """How a process ended that should have gone on."""
    with suppress(ValueError):
        return f"crashed: {signal.Signals(-status).name}" if status < 0 else f"exited with status {status}"
    return f"crashed: signal {-status}"


class Parent:
    """Starts rows, and holds all that they reported."""

    def __init__(self, options, person):
        self._options, self._person = options, person
        self._begin, self._processes = time.monotonic(), 0
        self.recording, self.facts, self.problems = [], {}, {key: set() for key in OVERALL}

    def run(self, row, saved=None, is_interruptible=True, path=None):
        """Runs the row. Returns its outcome and detail."""
        self._processes += 1
        request = {"row": row.name, "path": path or self._options.library, "saved": saved,
                   "timeout": self._options.timeout, "device_type": self._options.device_type}
        ours, its = socket.socketpair()
        # A session of its own, so that Ctrl-C reaches the parent alone.
        process = subprocess.Popen([*interpreter(), sys.argv[0], "--row", json.dumps(request)],
                                   stdin=its, stdout=subprocess.PIPE, start_new_session=True)
        its.close()
        state = {"during": "starting", "outcome": None, "detail": ""}
        try:
            trouble = self._watch(row, process, ours, state, is_interruptible)
        finally:
            ours.close()
            with suppress(OSError):
                os.killpg(process.pid, signal.SIGKILL)  # and all that it started
            process.wait()
            process.stdout.close()
        if not state["outcome"]:
            outcome = "unloadable" if state["during"] == "loading the library" else "fail"
            return outcome, f"{state['during']}: {trouble or 'exited with status 0'}"
        if trouble:  # after the row, so it is no fault of the row
            self.problems["exit"].add(f"{row.name}: {state['during']}: {trouble}")
        return state["outcome"], state["detail"]

    def _watch(self, row, process, channel, state, is_interruptible):
        """Follows the process up to its end. Returns what was wrong with the end."""
        received, open_ends, last, ended = b"", [channel, process.stdout], time.monotonic(), None
        while ended is None or open_ends and time.monotonic() < ended + GRACE:
            for end in select.select(open_ends, [], [], 0.05)[0]:
                data = b""
                with suppress(ConnectionResetError):  # it exited without reading an answer
                    data = os.read(end.fileno(), 65536)
                if not data:
                    open_ends.remove(end)
                elif end is process.stdout:
                    self.problems["output"].add(f"{row.name}: {quoted(data[:1000])}")
                else:
                    *lines, received = (received + data).split(b"\n")
                    for line in lines:
                        self._take(json.loads(line), state, channel)
                    last = time.monotonic()  # the person's time does not count
            if is_interruptible and self._person.is_cancelled:
                is_interruptible = False
                with suppress(OSError):
                    channel.shutdown(socket.SHUT_WR)
            if ended is None and process.poll() is not None:
                ended = time.monotonic()
            limit = START if state["during"] == "starting" else self._options.timeout + GRACE
            if ended is None and time.monotonic() > last + limit:
                return f"did not return in {self._options.timeout:g} s"
        if process.stdout in open_ends:
            self.problems["helper"].add(f"{row.name}: a process that the library started kept the output open")
        return ending(process.returncode) if process.returncode else ""

    def _take(self, message, state, channel):
        if "event" in message:
            event = message["event"]
            self.recording.append(f"{message['time'] - self._begin:.6f} {self._processes} {event}")
            verb, name = (event + " ").split(" ", 2)[:2]
            state["during"] = {"enter": name, "call": "after " + name}.get(verb, state["during"])
        if "problem" in message:
            key, text = message["problem"]
            self.problems[key].add(text)
        self.facts.update(message.get("fact", {}))
        state.update((name, message[name]) for name in state if name in message)
        if "ask" in message:
            answer = self._person.ask(message["ask"], message["words"])
            with suppress(OSError):  # it may have exited meanwhile
                channel.sendall(answer.encode() + b"\n")
