"""Virtual readers for tests of applications, and a stub reader for their unit tests.

    with VirtualReader() as reader:
        app = subprocess.Popen(["my-app"], env=reader.env)
        reader.hold("3AB1234/26")
        reader.expect("led green", within=2)
"""

from __future__ import annotations

import asyncio
import os
import shutil
import subprocess
import tempfile
import threading
import time
from collections.abc import Awaitable, Sequence
from contextlib import ExitStack
from typing import Any, Generic, TypeVar

from .agent import Agent, Converter
from .errors import AgentEndedError, CardReaderError
from .reader import CardReader

START_TIMEOUT = 10.0  # seconds
EXIT_TIMEOUT = 5.0

Done = TypeVar("Done")
T = TypeVar("T")


class VirtualReaderError(AssertionError):
    """A verb was wrong or an expectation failed; the message is the virtual reader's."""


class _Reader(Generic[Done]):
    """A virtual reader and its verbs, whose methods return when they are done. Any thread may call them.

    `env` is the environment for the agent or the application under test. The program `virtual-reader`
    does the work; its pages describe the verbs and patterns.
    """

    def __init__(
        self,
        program: str | os.PathLike[str] | None = None,
        *,
        plugged: bool = True,
        arguments: Sequence[str | os.PathLike[str]] = (),
    ) -> None:
        """`program` is by default $VIRTUAL_READER, or else `virtual-reader` on the path. Raises OSError
        when it cannot be run, VirtualReaderError when it does not answer.
        """
        self._program = os.fspath(program or os.environ.get("VIRTUAL_READER") or "virtual-reader")
        self._output: list[bytes] = []
        with ExitStack() as stack:
            folder = tempfile.mkdtemp(prefix="reader-")
            stack.callback(shutil.rmtree, folder, ignore_errors=True)
            self.socket = os.path.join(folder, "reader.sock")
            self.env = {**os.environ, "VIRTUAL_READER_SOCKET": self.socket}
            command = [self._program, "--socket", self.socket, *arguments]
            if not plugged:
                command.insert(1, "--unplugged")
            self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
            stack.callback(self._end_process)
            output = self.process.stdout or ()
            self._collector = threading.Thread(target=self._output.extend, args=(output,), daemon=True)
            self._collector.start()
            self._wait_until_it_listens()
            self._end = stack.pop_all().close

    @property
    def output(self) -> str:
        """The program's standard output so far."""
        return b"".join(self._output).decode(errors="surrogateescape")

    def _run(self, verb: str) -> Done:
        raise NotImplementedError

    def _execute(self, verb: str) -> str:
        command = [self._program, "--socket", self.socket, "--execute", verb]
        result = subprocess.run(
            command, stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="surrogateescape"
        )
        if result.returncode:
            raise VirtualReaderError(result.stderr.strip())
        return result.stdout

    def _wait_until_it_listens(self) -> None:
        deadline = time.monotonic() + START_TIMEOUT
        while True:
            try:
                self._execute("events 1")
                return
            except VirtualReaderError as error:
                if self.process.poll() is not None or time.monotonic() > deadline:
                    raise VirtualReaderError(f"no answer from {self._program}: {error}") from None
                time.sleep(0.01)

    def _end_process(self) -> None:
        if self.process.stdin:
            self.process.stdin.close()
        try:
            self.process.wait(EXIT_TIMEOUT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self._collector.join(EXIT_TIMEOUT)
        if self.process.stdout and not self._collector.is_alive():
            self.process.stdout.close()

    def plug(self) -> Done:
        return self._run("plug")

    def unplug(self) -> Done:
        return self._run("unplug")

    def replug(self) -> Done:
        return self._run("replug")

    def queue(self, *cards: str) -> Done:
        """Present cards ("HEX/BITS"), each for one poll."""
        return self._run(f"card queue {' '.join(cards)}")

    def hold(self, card: str) -> Done:
        """Hold a card ("HEX/BITS") on the reader until `remove`."""
        return self._run(f"card hold {card}")

    def remove(self) -> Done:
        return self._run("card remove")

    def fail(self, call: str, *, error: int | None = None, when: str = "") -> Done:
        """Make the next library call fail, or those that `when` says, for instance "always"."""
        number = "" if error is None else f"error {error}"
        return self._run(f"fail {call} {number} {when}")

    def hang(self, call: str, *, when: str = "") -> Done:
        return self._run(f"hang {call} {when}")

    def delay(self, call: str, seconds: float, *, when: str = "") -> Done:
        """Make a library call take so long, each time unless `when` says otherwise."""
        return self._run(f"delay {call} {round(seconds * 1000)} {when}")

    def release(self) -> Done:
        """Let the calls that hang or are delayed return."""
        return self._run("release")

    def clear(self) -> Done:
        """Drop the faults that `fail`, `hang` and `delay` have set."""
        return self._run("clear")

    def expect(self, pattern: str, *, within: float = 5.0) -> Done:
        """Wait for an event after the one expected before; raise VirtualReaderError if none matches."""
        return self._run(f"expect {pattern} within {round(within * 1000)}")

    def expect_no(self, pattern: str, *, within: float = 0.5) -> Done:
        """Raise VirtualReaderError if such an event occurs."""
        return self._run(f"expect no {pattern} within {round(within * 1000)}")


class VirtualReader(_Reader[None]):
    """One virtual reader with a private socket, plugged in. It ends with this process at the latest."""

    def execute(self, verb: str) -> str:
        """Execute a verb and return its answer, a newline after each line."""
        return self._execute(verb)

    def events(self, count: int = 1_000_000) -> list[str]:
        return self.execute(f"events {count}").splitlines()

    def close(self) -> None:
        self._end()

    def _run(self, verb: str) -> None:
        self._execute(verb)

    def __enter__(self) -> VirtualReader:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class AsyncVirtualReader(_Reader[Awaitable[None]]):
    """The same with methods to be awaited. A cancelled `expect` goes on in the background."""

    async def execute(self, verb: str) -> str:
        return await asyncio.to_thread(self._execute, verb)

    async def events(self, count: int = 1_000_000) -> list[str]:
        return (await self.execute(f"events {count}")).splitlines()

    async def close(self) -> None:
        await asyncio.to_thread(self._end)

    async def _run(self, verb: str) -> None:
        await self.execute(verb)

    async def __aenter__(self) -> AsyncVirtualReader:
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.close()


class StubReader(CardReader):
    """A `CardReader` for unit tests, without an agent: the test connects it and presents cards. `commands`
    are those that it was sent, such as "SetLED green".
    """

    def __init__(self, **options: Any) -> None:
        options.setdefault("card_removed_after", 1e9)
        super().__init__("stub", **options)
        self.commands: list[str] = []
        self._errors: list[CardReaderError] = []

    def connect(self, name: str = "Dev1-Stub") -> None:
        self._stub._change_reader(name)

    def disconnect(self) -> None:
        self._stub._change_reader(None)

    def present(self, card: str) -> None:
        """The card stays until `remove` or another one."""
        self._on_card(card)

    def remove(self) -> None:
        self._remove_card()

    def fail(self, *errors: CardReaderError) -> None:
        """The next commands fail with these errors."""
        self._errors += errors

    def crash(self) -> None:
        self._stub.end("the agent was killed by SIGKILL")

    def start(self) -> None:
        super().start()
        if self._next_start:
            self._next_start.cancel()
        self._launch()

    def _new_agent(self) -> Agent:
        self._stub = _StubAgent(self, self.commands, self._errors)
        return self._stub


class _StubAgent(Agent):
    def __init__(self, owner: StubReader, commands: list[str], errors: list[CardReaderError]) -> None:
        self.reader = self._last_reader = None
        self._owner, self._commands, self._errors = owner, commands, errors
        asyncio.get_running_loop().call_soon(owner._on_answer)

    pid = None

    def send(self, line: str, convert: Converter[T], timeout: float | None) -> asyncio.Future[T]:
        future: asyncio.Future[T] = asyncio.get_running_loop().create_future()
        command = line.partition(":")[2]
        self._commands.append(command)
        if self._errors:
            future.set_exception(self._errors.pop(0))
        else:
            future.set_result(convert(command[len("Ping") :], []))
        return future

    def close(self) -> None:
        self.end("")

    def end(self, reason: str) -> None:
        self.reader = None
        self._owner._on_end(AgentEndedError(reason=reason))
