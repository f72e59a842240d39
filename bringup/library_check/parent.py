"""Runs rows in processes of their own, and collects what comes of them."""

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

TICK = 0.05  # seconds between two looks at the process and at signals
START = 30.0  # seconds for Python to start, which Rosetta may have to translate first
GRACE = 1.0  # seconds for the output of a process that has exited to end


def interpreter():
    """What runs a row: this Python, under Rosetta on Apple silicon, since the agent is x86-64."""
    is_arm_mac = sys.platform == "darwin" and platform.machine() == "arm64"
    return ["arch", "-x86_64"] * is_arm_mac + [sys.executable]


def ending(status):
    """How a process ended that should have gone on."""
    if status >= 0:
        return f"exited with status {status}"
    try:
        return f"crashed: {signal.Signals(-status).name}"
    except ValueError:
        return f"crashed: signal {-status}"


class LoadError(Exception):
    """The library cannot be loaded; the text says why."""


class Interrupted(Exception):
    """A signal asked the check to end."""


class Repeat(Exception):
    """The person wants the row to start again."""


class Parent:
    """Starts rows, and holds all that they reported. `cancelled` is set by signals."""

    def __init__(self, options, person):
        self._options, self._person = options, person
        self._start, self._processes = time.monotonic(), 0
        self.cancelled = False
        self.recording, self.texts, self.printed = [], [], []
        self.facts, self.overruns, self.exits, self.helpers = set(), [], [], []
        self.missing, self.records, self.part = [], None, None

    def run(self, row, saved=None, interruptible=True, path=None):
        """Runs the row. Returns its outcome and detail. Raises LoadError, or Repeat."""
        self._processes += 1
        request = {"row": row.name, "path": path or self._options.library, "saved": saved,
                   "timeout": self._options.timeout, "device_type": self._options.device_type}
        ours, its = socket.socketpair()
        # A session of its own, so that Ctrl-C reaches the parent alone.
        process = subprocess.Popen(
            [*interpreter(), sys.argv[0], "--row", json.dumps(request)],
            stdin=its, stdout=subprocess.PIPE, start_new_session=True)
        its.close()
        try:
            return self._watch(row, process, ours, interruptible)
        finally:
            ours.close()
            with suppress(OSError):
                os.killpg(process.pid, signal.SIGKILL)  # and all that it started
            process.wait()
            process.stdout.close()

    def _watch(self, row, process, channel, interruptible):
        state = {"during": "starting", "outcome": None, "detail": "", "wish": None}
        received, open_ends = b"", [channel, process.stdout]
        last, ended = time.monotonic(), None
        while ended is None or open_ends and time.monotonic() < ended + GRACE:
            for end in select.select(open_ends, [], [], TICK)[0]:
                data = os.read(end.fileno(), 65536)
                if not data:
                    open_ends.remove(end)
                elif end is process.stdout:
                    self.printed.append(f"{row.name}: {quoted(data[:1000])}")
                else:
                    *lines, received = (received + data).split(b"\n")
                    for line in lines:
                        self._take(state, json.loads(line), channel)
                    last = time.monotonic()  # the person's time does not count
            if interruptible and self.cancelled:
                interruptible = False
                with suppress(OSError):
                    channel.shutdown(socket.SHUT_WR)
            if ended is None and process.poll() is not None:
                ended = time.monotonic()
            limit = START if state["during"] == "starting" else self._options.timeout + GRACE
            if ended is None and time.monotonic() > last + limit:
                return self._judge(row, state, f"did not return in {self._options.timeout:g} s")
        if process.stdout in open_ends:
            self.helpers.append(f"{row.name}: a process that the library started kept the output open")
        return self._judge(row, state, ending(process.returncode) if process.returncode else "")

    def _judge(self, row, state, trouble):
        """The row's outcome. What goes wrong after it is no fault of the row."""
        if state["wish"]:
            raise state["wish"]
        if not state["outcome"] and state["during"] == "loading the library":
            raise LoadError(f"{state['during']}: {trouble}")
        if state["outcome"] and trouble:
            self.exits.append(f"{row.name}: {state['during']}: {trouble}")
        elif not state["outcome"]:
            return "fail", f"{state['during'] or 'between calls'}: {trouble or 'exited with status 0'}"
        return state["outcome"], state["detail"]

    def _take(self, state, message, channel):
        if "load_error" in message:
            raise LoadError(message["load_error"])
        if "event" in message and not message["event"].startswith("enter GetQueuedID_index"):
            at = message["time"] - self._start
            self.recording.append(f"{at:.6f} {self._processes} {message['event']}")
        if "wrong_length" in message:
            self.texts.append(message)
        if "overrun" in message:
            self.overruns.append(message["overrun"])
        self.facts.update([message["fact"]] if "fact" in message else [])
        for name in ("missing", "records", "part"):
            setattr(self, name, message.get(name, getattr(self, name)))
        state.update((name, message[name]) for name in state if name in message)
        if "ask" in message:
            with suppress(OSError):  # it has ended meanwhile
                try:
                    answer = self._person.ask(message["ask"], message["words"])
                    channel.sendall(json.dumps({"answer": answer}).encode() + b"\n")
                except (Interrupted, Repeat) as wish:
                    state["wish"] = wish
                    channel.shutdown(socket.SHUT_WR)
