"""One agent process: sends it commands, matches its answers, keeps its reader's name, watches it."""

from __future__ import annotations

import asyncio
import math
import os
import secrets
import sys
import time
from collections import deque
from collections.abc import Callable
from contextlib import suppress
from dataclasses import dataclass, field
from typing import Any, Protocol, TypeVar

from .countdown import Countdown
from .errors import AgentEndedError, AgentStartError, CardReaderError, CommandTimeoutError
from .errors import error_for, readers_in
from .events import Event, Log
from .options import Options
from .process import Process
from .words import Line, encode, parse_line, reader_number

T = TypeVar("T")
Converter = Callable[[str, list[str]], T]  # from an answer's text and the log lines before it

PROGRAM = "Contents/MacOS/card-reader-agent"  # in the bundle
SAID_LIMIT = 4096  # characters of standard error that an AgentEndedError repeats
KILL_TIMEOUT = 2.0  # seconds in which a killed agent exits, or is given up
NOT_RESPONDING = "the agent is not responding"


class Owner(Protocol):
    """What an agent calls, always from the event loop."""

    def _on_answer(self) -> None: ...
    def _on_busy(self, is_busy: bool) -> None: ...
    def _on_end(self, error: AgentEndedError) -> None: ...
    def _on_reader(self, previous: str | None) -> None: ...
    def _on_card(self, digits: str) -> None: ...
    def _emit(self, event: Event) -> None: ...


@dataclass(eq=False)
class Command:
    """A command without an answer so far. Pings with tokens enclose it, so that no text of the library
    can pass for its answer or, while it is executed, for a card.
    """

    future: asyncio.Future[Any]
    convert: Converter[Any]
    first: str | None  # the token before it, None once that was answered
    last: str  # the token after it
    is_started: bool = False
    answer: Line | None = None  # the last one seen between the tokens
    logs: list[str] = field(default_factory=list)

    def fail(self, error: CardReaderError) -> None:
        if not self.future.done():
            self.future.set_exception(error)

    def succeed(self, text: str) -> None:
        if not self.future.done():  # else it was cancelled, or is late
            try:
                self.future.set_result(self.convert(text, self.logs))
            except CardReaderError as error:
                self.future.set_exception(error)


def limit(future: asyncio.Future[T], timeout: float | None, what: str) -> asyncio.Future[T]:
    """The future, which fails with a CommandTimeoutError after so many seconds."""

    def expire() -> None:
        if not future.done():
            future.set_exception(CommandTimeoutError(f"{what} within {timeout:g} s"))

    if timeout is not None and timeout != math.inf and not future.done():
        countdown = Countdown(timeout, expire)
        countdown.restart()
        future.add_done_callback(lambda _: countdown.stop())
    return future


class Agent:
    """A running agent. Raises AgentStartError if it cannot be started.

    Every way out ends in `exited`: pending commands fail with the reason, the pipes are closed and
    the owner is called, once, even if the process survives a SIGKILL.
    """

    def __init__(self, owner: Owner, options: Options) -> None:
        path = os.fsdecode(options.path)
        if os.path.isdir(path):
            path = os.path.join(path, PROGRAM)
        self.reader: str | None = None  # its name
        self._owner, self._options = owner, options
        self._pending: deque[Command] = deque()
        self._salt, self._count = secrets.token_hex(8), 0
        self._last_reader: str | None = None
        self._said = ""
        self._reason = ""
        self._is_closing = self._is_dying = self._is_settled = False
        self._loop = asyncio.get_running_loop()
        try:
            self._process = Process(path, options.env, self)
        except (OSError, ValueError) as error:
            raise AgentStartError(path, error) from error
        self._hang = Countdown(options.watchdog_timeout, lambda: self.end(NOT_RESPONDING))
        self._quiet = Countdown(options.watchdog_interval or math.inf, self.ping)
        self._exit = Countdown(options.close_timeout, lambda: self.end(NOT_RESPONDING))
        self._death = Countdown(KILL_TIMEOUT, lambda: self.exited(None))
        self.ping()

    @property
    def pid(self) -> int | None:
        return None if self._is_settled else self._process.pid

    def ping(self) -> None:
        future = self.send("Global:Ping", lambda _text, _logs: None, None)
        future.add_done_callback(lambda future: future.cancelled() or future.exception())

    def send(self, line: str, convert: Converter[T], timeout: float | None) -> asyncio.Future[T]:
        """Send the line now."""
        future: asyncio.Future[T] = self._loop.create_future()
        if self._is_settled or self._is_closing:
            future.set_exception(AgentEndedError())
            return future
        first = None if line.startswith("Global:") else self._token()
        command = Command(future, convert, first, self._token())
        lines = [line, f"Global:Ping{command.last}"]
        if first:
            lines.insert(0, f"Global:Ping{first}")
        self._process.write(b"".join(map(encode, lines)))
        self._pending.append(command)
        if len(self._pending) == 1:
            self._quiet.stop()
            self._hang.restart()
            self._owner._on_busy(True)
        for each in lines:
            self._call(self._options.trace, time.time(), ">", each)
        return limit(future, timeout, "no answer")

    def close(self) -> None:
        """Let the agent answer what was sent and exit; after `close_timeout`, end it."""
        if not self._is_closing:
            self._is_closing = True
            self._process.close_input()
            self._exit.restart()

    def end(self, reason: str) -> None:
        """Kill the agent. Settle when it has exited, or after KILL_TIMEOUT if it does not."""
        if not self._is_settled and not self._is_dying:
            self._is_dying = True
            self._reason = reason
            self._process.kill()
            self._death.restart()

    def _token(self) -> str:
        self._count += 1
        return f" {self._salt}-{self._count}"

    def output_ended(self) -> None:
        """An agent that closes its output and lives on cannot answer any more."""
        self._exit.stop()
        self._exit = Countdown(KILL_TIMEOUT, lambda: self.end(""))
        self._exit.restart()

    def exited(self, status: int | None) -> None:
        if self._is_settled:
            return
        self._is_settled = True
        for timer in self._hang, self._quiet, self._exit, self._death:
            timer.stop()
        self._process.release()
        pending, self._pending = self._pending, deque()
        for command in pending:
            command.fail(AgentEndedError(status, self._said, self._reason))
        self.reader = None
        self._owner._on_end(AgentEndedError(status, self._said, self._reason))

    def take_line(self, text: str) -> None:
        self._call(self._options.trace, time.time(), "<", text)
        line = parse_line(text)
        command = self._pending[0] if self._pending else None
        if line.kind in ("Ok", "Error") and command:
            self._take_answer(command, line)
        elif line.kind == "Log":
            if command:
                command.logs.append(line.text)
            self._owner._emit(Log(line.text))
        elif line.kind == "Reader" and self._is_plausible(line.text):
            self._change_reader(None if line.text == "Global" else line.text)
        elif line.kind == "Card" and self.reader and not (command and command.is_started):
            # Between a reader's command and the pings around it the agent does not poll for cards.
            self._owner._on_card(line.text)
            self._owner._on_busy(bool(command))
        else:
            self._owner._emit(Log(text))

    def _is_plausible(self, name: str) -> bool:
        """The agent numbers the connections of its process one by one."""
        if name == "Global":
            return self.reader is not None
        return not self._last_reader or reader_number(name) == reader_number(self._last_reader) + 1

    def _take_answer(self, command: Command, answer: Line) -> None:
        token = answer.text if answer.kind == "Ok" else None
        if command.first is not None:
            if token == command.first:
                command.first, command.is_started = None, True
            else:
                self._owner._emit(Log(answer.whole))
        elif command.answer and token == command.last:
            self._pending.popleft()
            self._answered(command, command.answer)
        else:
            if command.answer:
                self._owner._emit(Log(command.answer.whole))  # text of the library
            command.answer = answer

    def _answered(self, command: Command, answer: Line) -> None:
        self._quiet.restart()
        self._hang.restart()
        self._owner._on_answer()
        if answer.kind == "Ok":
            command.succeed(answer.text)
        else:
            command.fail(error_for(answer.text))
            readers = readers_in(answer.text)
            if readers and readers[0] == self.reader:  # a forged line has named it
                self._change_reader(readers[1])
        if not self._pending:
            self._hang.stop()
            self._owner._on_busy(False)

    def _change_reader(self, name: str | None) -> None:
        previous, self.reader = self.reader, name
        self._last_reader = name or self._last_reader
        self._owner._on_reader(previous)

    def take_error(self, text: str) -> None:
        self._said = (self._said + text)[-SAID_LIMIT:]
        if callable(self._options.stderr):
            self._call(self._options.stderr, text)
        elif self._options.stderr == "inherit" and sys.stderr:
            with suppress(OSError, ValueError):  # nobody reads it any more
                sys.stderr.write(text)

    def _call(self, function: Callable[..., object] | None, *args: Any) -> None:
        """Call a function of the application. One that fails must not cost the lines after it."""
        if not function:
            return
        try:
            function(*args)
        except Exception as error:
            context = {"message": f"{function!r} failed", "exception": error}
            self._loop.call_exception_handler(context)
