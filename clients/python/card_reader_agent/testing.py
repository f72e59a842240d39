"""A virtual reader for the tests of a host: plugged in when it is made, ruled by its methods.

    with VirtualReader() as reader:
        host = subprocess.Popen(["my-host"], env=reader.env)
        reader.hold("3AB1234/26")
        reader.expect("led green", within=2)

What it does is told by its program, `virtual-reader`, whose README has the verbs and patterns. Each
method runs that program once and returns when the verb is carried out; in a coroutine use
`await asyncio.to_thread(reader.expect, "led green")`, or the host under test waits too. Any thread
may call them.
"""

from __future__ import annotations

import os
import shutil
import subprocess
import tempfile
import threading
from collections.abc import Mapping
from contextlib import suppress
from types import TracebackType

STARTING = 10.0  # seconds that the program may take
ENDING = 5.0


class VirtualReaderError(AssertionError):
    """A verb was wrong or an expectation not met; the message is the virtual reader's."""


class VirtualReader:
    """One virtual reader with a private socket. It ends with this process at the latest."""

    env: Mapping[str, str]
    """For the agent or the host under test: this process's environment, with the reader's socket."""

    def __init__(self, program: str | os.PathLike[str] | None = None, *, plugged: bool = True) -> None:
        """`program` is by default $VIRTUAL_READER, or else `virtual-reader` on the path. Raises
        OSError when it can't be run, VirtualReaderError when it does not answer.
        """
        self._program = os.fspath(program or os.environ.get("VIRTUAL_READER") or "virtual-reader")
        self._folder = tempfile.mkdtemp(prefix="reader-")
        self._socket = os.path.join(self._folder, "reader.sock")
        self.env = {**os.environ, "VIRTUAL_READER_SOCKET": self._socket}
        self._answered = threading.Event()
        try:
            self._process = subprocess.Popen(
                [self._program, "--socket", self._socket, *([] if plugged else ["--unplugged"])],
                bufsize=0,
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
            )
        except OSError:
            shutil.rmtree(self._folder, ignore_errors=True)
            raise
        self._listener = threading.Thread(target=self._listen, daemon=True)
        self._listener.start()
        assert self._process.stdin
        with suppress(BrokenPipeError):  # it has ended
            self._process.stdin.write(b'echo "ready"\n')
        if not self._answered.wait(STARTING) or self._process.poll() is not None:
            self.close()
            raise VirtualReaderError(f"no answer from {self._program}")

    def close(self) -> None:
        """Pulls the reader out and ends it."""
        if self._process.stdin:
            self._process.stdin.close()
        try:
            self._process.wait(ENDING)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        self._listener.join()
        shutil.rmtree(self._folder, ignore_errors=True)

    def __enter__(self) -> VirtualReader:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.close()

    def execute(self, verb: str) -> str:
        """Has the verb carried out and returns what it answers, a line feed behind each line."""
        told = subprocess.run(
            [self._program, "--socket", self._socket, "--execute", verb],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            errors="surrogateescape",
        )
        if told.returncode:
            raise VirtualReaderError(told.stderr.strip())
        return told.stdout

    def plug(self) -> None:
        self.execute("plug")

    def unplug(self) -> None:
        self.execute("unplug")

    def replug(self) -> None:
        self.execute("replug")

    def queue(self, *cards: str) -> None:
        """Cards, "HEX/BITS" each, that are shown one after the other, for one poll each."""
        self.execute(f"card queue {' '.join(cards)}")

    def hold(self, card: str) -> None:
        """A card, "HEX/BITS", that stays until `remove`."""
        self.execute(f"card hold {card}")

    def remove(self) -> None:
        """Takes the held card away."""
        self.execute("card remove")

    def fail(self, call: str, *, error: int | None = None, when: str = "") -> None:
        """The library's call fails: the next one, or as `when` says, such as "always"."""
        number = "" if error is None else f"error {error}"
        self.execute(f"fail {call} {number} {when}")

    def hang(self, call: str, *, when: str = "") -> None:
        """The library's call does not return until `release`."""
        self.execute(f"hang {call} {when}")

    def delay(self, call: str, seconds: float, *, when: str = "") -> None:
        """The library's call takes that long, each time if `when` does not tell."""
        self.execute(f"delay {call} {round(seconds * 1000)} {when}")

    def release(self) -> None:
        """Ends the calls that hang or are delayed just now."""
        self.execute("release")

    def clear(self) -> None:
        """Drops what `fail`, `hang` and `delay` have set."""
        self.execute("clear")

    def expect(self, pattern: str, *, within: float = 5.0) -> None:
        """Waits, so many seconds at most, for what comes behind the expectation before; raises
        VirtualReaderError, which is an AssertionError, when it does not come.
        """
        self.execute(f"expect {pattern} within {round(within * 1000)}")

    def expect_no(self, pattern: str, *, within: float = 0.5) -> None:
        """Raises VirtualReaderError when it comes within so many seconds."""
        self.execute(f"expect no {pattern} within {round(within * 1000)}")

    def events(self, count: int = 1_000_000) -> list[str]:
        """The last entries of what has happened, by default all."""
        return self.execute(f"events {count}").splitlines()

    def _listen(self) -> None:
        """Takes what the program prints off its pipe, up to the end."""
        assert self._process.stdout
        with self._process.stdout as lines:
            for line in lines:
                if line == b"= ready\n":
                    self._answered.set()
        self._answered.set()  # it has ended, whatever it said
