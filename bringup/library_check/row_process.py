"""The process that runs one row: it makes the row's calls and reports on a socket, its standard input.

Messages are JSON, one a line. To the parent: `event` (a line of a recording), `during` (the call that
runs), `ask`, `outcome`. From the parent: `answer`. When the parent closes its end, or dies, no further
call is made.
"""

import ctypes
import json
import os
import queue
import socket
import sys
import threading
import time
from contextlib import suppress

from . import Failed, Skipped, rows
from .library import Library


class Channel:
    """The socket to the parent."""

    def __init__(self, timeout):
        # The library gets neither the socket nor the terminal as its standard input.
        self._socket = socket.socket(fileno=os.dup(0))
        nothing = os.open(os.devnull, os.O_RDONLY)
        os.dup2(nothing, 0)
        os.close(nothing)
        self._timeout, self._lock, self._answers = timeout, threading.Lock(), queue.Queue()
        self.is_closed = False
        threading.Thread(target=self._listen, daemon=True).start()

    def report(self, **message):
        line = json.dumps({"time": time.monotonic(), **message}).encode() + b"\n"
        try:
            with self._lock:
                self._socket.sendall(line)
        except OSError:
            self.is_closed = True

    def check_stop(self):
        if self.is_closed:
            raise Skipped("interrupted")

    def next_answer(self):
        answer = self._answers.get()
        self.check_stop()
        return answer

    def _listen(self):
        with suppress(OSError):  # a parent that dies may leave a reset
            for line in self._socket.makefile():
                self._answers.put(json.loads(line)["answer"])
        self.is_closed = True
        self._answers.put(None)
        time.sleep(self._timeout)  # the call that runs may end; one that hangs must not stay forever
        os._exit(1)


class Reader:
    """What a row works with: the library, the reader and the person."""

    def __init__(self, library, channel, request):
        self.library, self._channel = library, channel
        self.timeout, self._device_type = request["timeout"], request["device_type"]
        self.saved = request["saved"]  # the configuration to restore

    def search(self):
        """One search, as the agent makes it. Returns the status."""
        self.library.call("USBDisconnect")
        self.library.call("SetDevTypeSrch", self._device_type)
        return self.library.call("usbConnect")

    def connect(self, when=""):
        """Searches until a reader is connected. Returns the status."""
        status = self.within_timeout(self.search)
        if not status:
            raise Failed(when + self.library.failure("usbConnect"))
        self.report(fact="reader")
        return status

    def within_timeout(self, attempt):
        """Tries until it returns something true, or the time is over. Returns what it returned last."""
        end = time.monotonic() + self.timeout
        while True:
            result = attempt()
            if result or time.monotonic() >= end:
                return result
            self.pause()

    def pause(self):
        time.sleep(rows.POLL_INTERVAL)
        self._channel.check_stop()

    def ask(self, prompt, *words):
        """Asks the person for one of the words, which may be a pattern. Raises Skipped without one."""
        self._channel.report(ask=prompt, words=words)
        answer = self._channel.next_answer()
        if answer is None:
            raise Skipped("skipped")
        return answer

    def please(self, what):
        self.ask(f"{what} Type go, then do it within {self.timeout:g} s", "go")

    def confirm(self, question, otherwise):
        if self.ask(question, "yes", "no") == "no":
            raise Failed(otherwise)

    def report(self, **message):
        self._channel.report(**message)


def outcome_of(row, reader):
    try:
        if row.needs:
            reader.connect()
        return {"outcome": "pass", "detail": row.run(reader) or ""}
    except Skipped as reason:
        return {"outcome": "skip", "detail": str(reason)}
    except Failed as reason:
        return {"outcome": "fail", "detail": str(reason)}
    except Exception:  # a fault in the row itself
        import traceback  # slow to load

        return {"outcome": "fail", "detail": traceback.format_exc()}


def main():
    request = json.loads(sys.argv[2])
    channel = Channel(request["timeout"])
    row = rows.find(request["row"])
    channel.report(during="loading the library")
    try:
        library = Library(request["path"], channel.report, channel.check_stop)
    except OSError as error:
        channel.report(load_error=str(error).split("\n", 1)[0])
        os._exit(0)
    channel.report(during="", missing=library.missing)
    reader = Reader(library, channel, request)
    try:
        if row.hears and "SetMarkerFunction" not in library.missing:
            library.set_marker(True)
    except Skipped:
        pass
    channel.report(**outcome_of(row, reader))
    # Even when interrupted, the process leaves the library as the agent does.
    library.leave(disconnects=row.disconnects)
    channel.report(during="exiting")
    # Python's own end would take the marker function from a library that still calls it.
    ctypes.CDLL(None).exit(0)
