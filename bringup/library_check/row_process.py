"""The process that runs one row: it makes the row's calls and reports on a socket, its standard input.

Messages are JSON, one a line. To the parent: `event` (a line of a recording), `during`, `problem` (of which
overall row, and what), `fact`, `ask`, `outcome`. From the parent: an answer. When the parent closes its end,
or dies, no further call is made.
"""

import ctypes
import json
import os
import select
import signal
import sys
import threading
import time
from contextlib import suppress

from . import Failed, Skipped, rows
from .library import Library


class Reader:
    """What a row works with: the library, the reader and the person."""

    def __init__(self, request):
        # The library gets neither the socket nor the terminal as its standard input.
        self._socket, self._lock = os.dup(0), threading.Lock()
        os.dup2(os.open(os.devnull, os.O_RDONLY), 0)
        self.timeout, self._device_type = request["timeout"], request["device_type"]
        self.saved = request["saved"]  # the configuration to restore
        self.stays_connected = False
        self.library = None

    def load(self, path):
        self.library = Library(path, self.report, self._check_stop)

    def report(self, **message):
        with suppress(OSError), self._lock:
            os.write(self._socket, json.dumps({"time": time.monotonic(), **message}).encode() + b"\n")

    def _check_stop(self):
        if select.select([self._socket], [], [], 0)[0]:  # its end: nothing else comes without a question
            raise Skipped("interrupted")
        signal.alarm(int(self.timeout) + 30)  # ends a call that hangs when there is no parent to do so

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
        self.report(fact={"reader": True})
        return status

    def within_timeout(self, attempt):
        """Tries until it returns something true, or the time is over. Returns what it returned last."""
        end = time.monotonic() + self.timeout
        while not (result := attempt()) and time.monotonic() < end:
            self.pause()
        return result

    def pause(self):
        time.sleep(rows.POLL_INTERVAL)
        self._check_stop()

    def ask(self, prompt, *words):
        """Returns which of the words the person types, or what a pattern's group matches."""
        signal.alarm(0)
        self.report(ask=prompt, words=words)
        answer = os.read(self._socket, 4096).decode().strip() or "interrupted"
        if answer in ("skipped", "repeat", "interrupted"):
            raise Skipped(answer)
        return answer

    def please(self, what, is_required=True):
        """Returns whether the person does it."""
        try:
            return self.ask(f"{what} Type go, then do it within {self.timeout:g} s", "go")
        except Skipped as reason:
            if is_required or str(reason) != "skipped":
                raise
            return False

    def confirm(self, question, otherwise):
        if self.ask(question, "yes", "no") == "no":
            raise Failed(otherwise)


def outcome_of(row, reader):
    try:
        if "SetMarkerFunction" not in reader.library.missing:
            reader.library.set_marker(True)
        if row.needs:
            reader.connect()
        return {"outcome": "pass", "detail": row.run(reader) or ""}
    except Skipped as reason:
        return {"outcome": "skip", "detail": str(reason)}
    except Failed as reason:
        return {"outcome": "fail", "detail": str(reason)}
    except Exception as error:  # a fault in the row itself
        line = error.__traceback__.tb_next.tb_lineno if error.__traceback__.tb_next else 0
        return {"outcome": "fail", "detail": f"the check's own fault: line {line}: {error!r}"}


def main():
    request = json.loads(sys.argv[2])
    reader = Reader(request)
    reader.report(during="loading the library")
    try:
        reader.load(request["path"])
    except OSError as error:
        reader.report(outcome="unloadable", detail=str(error).split("\n", 1)[0])
        os._exit(0)
    reader.report(during="")
    reader.report(**outcome_of(next(row for row in rows.ALL if row.name == request["row"]), reader))
    if not reader.stays_connected:
        reader.library.leave()
    reader.report(during="exiting")
    # Python's own end would take the marker function from a library that still calls it.
    ctypes.CDLL(None).exit(0)
