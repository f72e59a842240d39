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
from typing import Any, NamedTuple, Protocol, TypeVar

from .countdown import Countdown
from .errors import AgentEndedError, AgentStartError, CardReaderError, CommandTimeoutError
from .errors import error_for, readers_in
from .options import Options
from .process import Process
from .words import encode, parse_line, reader_number

T = TypeVar("T")

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
    def _on_log(self, text: str) -> None: ...


class Answer(NamedTuple):
    is_ok: bool
    text: str
    line: str


class Command:
    """A command without an answer so far. Pings with tokens enclose it, so that no text of the library
    can pass for its answer or, while it is executed, for a card.
    """

    def __init__(self, first: str | None, last: str, settle: Callable[[Answer], object]) -> None:
        self.first = first  # the token before it, None once that was answered
        self.last = last  # the token after it
        self.is_started = False
        self.settle = settle
        self.fail: Callable[[CardReaderError], object] = lambda _: None
        self.answer: Answer | None = None  # the last one seen between the tokens
        self.logs: list[str] = []


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
        path = os.fspath(options.path)
        if os.path.isdir(path):
            path = os.path.join(path, PROGRAM)
        self.reader: str | None = None  # its name
        self._owner, self._options = owner, options
        self._pending: deque[Command] = deque()
        self._salt, self._count = secrets.token_hex(8), 0
        self._number: int | None = None  # of the reader attached last
        self._said = ""
        self._reason = ""
        self._is_settled = self._is_closing = False
        self._loop = asyncio.get_running_loop()
        try:
            self._process = Process(path, options.env, self)
        except (OSError, ValueError) as error:
            raise AgentStartError(path, error) from error
        self._hang = Countdown(options.watchdog_timeout, lambda: self.end(NOT_RESPONDING))
        self._quiet = Countdown(options.watchdog_interval or math.inf, self.ping)
        self._exit = Countdown(options.close_timeout, lambda: self.end(NOT_RESPONDING))
        self._dying: asyncio.TimerHandle | None = None
        self.ping()

    @property
    def pid(self) -> int | None:
        return None if self._is_settled else self._process.pid

    @property
    def is_busy(self) -> bool:
        return bool(self._pending)

    def ping(self) -> None:
        future = self.send("Global:Ping", lambda _text, _logs: None, None)
        future.add_done_callback(lambda future: future.cancelled() or future.exception())

    def send(
        self, line: str, convert: Callable[[str, list[str]], T], timeout: float | None
    ) -> asyncio.Future[T]:
        """Send the line now. The future has what `convert` makes of the answer's text and the log
        lines before it, or fails.
        """
        lines = [line, self._token()]
        is_for_reader = not line.startswith("Global:")
        if is_for_reader:
            lines.insert(0, self._token())
        data = b"".join(map(encode, lines))
        future: asyncio.Future[T] = self._loop.create_future()
        if self._is_settled or self._is_closing:
            future.set_exception(AgentEndedError())
            return future

        def settle(answer: Answer) -> None:
            if not answer.is_ok:
                fail(error_for(answer.text))
            elif not future.done():  # else it was cancelled, or is late
                try:
                    future.set_result(convert(answer.text, command.logs))
                except CardReaderError as error:
                    future.set_exception(error)

        def fail(error: CardReaderError) -> None:
            if not future.done():
                future.set_exception(error)

        first = lines[0] if is_for_reader else None
        command = Command(first and first[len("Global:Ping") :], lines[-1][len("Global:Ping") :], settle)
        command.fail = fail
        for each in lines:
            self._call(self._options.trace, time.time(), ">", each)
        self._process.write(data)
        self._pending.append(command)
        if len(self._pending) == 1:
            self._quiet.stop()
            self._hang.restart()
            self._owner._on_busy(True)
        return limit(future, timeout, "no answer")

    def close(self) -> None:
        """Let the agent answer what was sent and exit; after `close_timeout`, end it."""
        if not self._is_closing:
            self._is_closing = True
            self._process.close_input()
            self._exit.restart()

    def end(self, reason: str) -> None:
        """Kill the agent. Settle when it has exited, or after KILL_TIMEOUT if it does not."""
        if not self._is_settled and not self._dying:
            self._reason = reason
            self._dying = self._loop.call_later(KILL_TIMEOUT, self.exited, None)
            self._process.kill()

    def _token(self) -> str:
        self._count += 1
        return f"Global:Ping {self._salt}-{self._count}"

    def output_ended(self) -> None:
        """An agent that closes its output and lives on cannot answer any more."""
        self._exit.stop()
        self._exit = Countdown(KILL_TIMEOUT, lambda: self.end(""))
        self._exit.restart()

    def exited(self, status: int | None) -> None:
        if self._is_settled:
            return
        self._is_settled = True
        for countdown in self._hang, self._quiet, self._exit:
            countdown.stop()
        if self._dying:
            self._dying.cancel()
        self._process.release()
        error = AgentEndedError(status, "" if self._reason else self._said, self._reason)
        pending, self._pending = self._pending, deque()
        for command in pending:
            command.fail(AgentEndedError(status, "" if self._reason else self._said, self._reason))
        self.reader = None
        self._owner._on_end(error)

    def take_line(self, line: str) -> None:
        self._call(self._options.trace, time.time(), "<", line)
        kind, text = parse_line(line)
        command = self._pending[0] if self._pending else None
        if kind in ("Ok", "Error") and command:
            self._take_answer(command, Answer(kind == "Ok", text, line))
        elif kind == "Log":
            if command:
                command.logs.append(text)
            self._owner._on_log(text)
        elif kind == "Reader" and self._is_plausible(text):
            self._change_reader(None if text == "Global" else text)
        elif kind == "Card" and self.reader and not (command and command.is_started):
            # Between a reader's command and the pings around it the agent does not poll for cards.
            self._owner._on_card(text)
        else:
            self._owner._on_log(line)

    def _is_plausible(self, name: str) -> bool:
        """The agent numbers the connections of its process one by one."""
        if name == "Global":
            return self.reader is not None
        return self._number is None or reader_number(name) == self._number + 1

    def _take_answer(self, command: Command, answer: Answer) -> None:
        if command.first is not None:
            if answer.is_ok and answer.text == command.first:
                command.first, command.is_started = None, True
            else:
                self._owner._on_log(answer.line)
        elif command.answer and answer.is_ok and answer.text == command.last:
            self._pending.popleft()
            self._answered(command, command.answer)
        else:
            if command.answer:
                self._owner._on_log(command.answer.line)  # text of the library
            command.answer = answer

    def _answered(self, command: Command, answer: Answer) -> None:
        self._quiet.restart()
        if self._pending:
            self._hang.restart()
        else:
            self._hang.stop()
        self._owner._on_answer()
        command.settle(answer)
        readers = None if answer.is_ok else readers_in(answer.text)
        if readers and readers[0] == self.reader:  # a forged line has named it
            self._change_reader(readers[1])
        if not self._pending:
            self._owner._on_busy(False)

    def _change_reader(self, name: str | None) -> None:
        previous, self.reader = self.reader, name
        if name:
            with suppress(ValueError):
                self._number = reader_number(name)
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
