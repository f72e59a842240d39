"""One agent process: starts it, sends it commands, matches its answers and tells what it reports.

    async with CardReaderAgent(path) as agent:
        async for event in agent:
            if isinstance(event, Card):
                await agent.beep(event.reader)

Text is UTF-8 in both directions. Bytes that are not valid UTF-8 become lone surrogates (the error
handler "surrogateescape"), so that a reader name goes back to the agent exactly as it came.

Everything here belongs to the event loop in which the agent was started.
"""

from __future__ import annotations

import asyncio
import codecs
import errno
import os
import re
import secrets
import signal
import sys
import time
import weakref
from asyncio.subprocess import PIPE
from collections import deque
from collections.abc import Callable, Mapping
from contextlib import suppress
from dataclasses import dataclass
from typing import Any, Literal, TypedDict, Union, cast

LINE_LIMIT = 1023  # bytes before the line feed
SAID_LIMIT = 4096  # characters of standard error that an AgentEndedError repeats
GRACE = 1.0  # seconds from the agent's exit to the end of its output, or the other way round

PROGRAM = "Contents/MacOS/card-reader-agent"  # in the bundle
SETTING_IGNORED = "Ignoring unexpected setting "
BAD_CPU_TYPE = 86  # macOS; unknown to the errno module
ROSETTA = (
    "this Mac has no Rosetta, which the agent needs: "
    "softwareupdate --install-rosetta --agree-to-license"
)

# What may stand behind the colon of each kind of line; all else is the rest of a log text.
_TEXTS = {
    "Ok": re.compile(r"(?: [^\0]+)?"),
    "Error": re.compile(r"(?: [^\0]+)?"),
    "Reader": re.compile(r" (?:Global|Dev[0-9]+(?:-[^\s\0]+)?)", re.ASCII),
    "Card": re.compile(r" [0-9A-F]{1,64}"),
    "Log": re.compile(r" .*", re.DOTALL),
}
_FAILED = re.compile(
    r"(?:Beeping|Setting LED state|Clearing LED state|Resetting card reader)"
    r" failed with error (-?[0-9]+)"
    r"|Failed to (?:read|write) reader config"
    r"|Call to \w+ failed; settings will not be set"
)
_SETTING_TYPE = re.compile(r"[^\s.]+", re.ASCII)
_SETTING_NAME = re.compile(r"[^\s.=][^\s=]*", re.ASCII)

BeepLength = Literal["short", "long"]
LedColor = Literal["red", "green", "amber", "off"]


class IDBitCounts(TypedDict, total=False):
    iLeadParityBitCnt: int
    iTrailParityBitCnt: int
    iTotalBitCnt: int


class Flags(TypedDict, total=False):
    bFrcBitCntEx: int
    bSndOnRx: int
    bHaltKBSnd: int


class TimeParameters(TypedDict, total=False):
    iBitStrmTO: int
    iIDHoldTO: int
    iIDLockOutTm: int


class Flags2(TypedDict, total=False):
    bWiegInvData: int
    bUseInvDataF: int
    bRevWiegBits: int
    bBeepID: int
    bRevBytes: int


class LedControl(TypedDict, total=False):
    bAppCtrlsLED: int
    iRedLEDState: int
    iGrnLEDState: int


class Settings(TypedDict, total=False):
    """Setting type, then setting name, to a 32-bit integer or a truth value."""

    tsIDBitCnts: IDBitCounts
    tsCfgFlags: Flags
    tsTimeParms: TimeParameters
    tsCfgFlags2: Flags2
    tsLEDCtrl: LedControl


@dataclass(frozen=True)
class Attached:
    """A reader was found while there was none."""

    reader: str


@dataclass(frozen=True)
class Replaced:
    """The reader was lost and found again at once; commands need its new name."""

    reader: str
    previous: str


@dataclass(frozen=True)
class Gone:
    """The reader was lost. The agent looks for one every 10 seconds."""

    previous: str


@dataclass(frozen=True)
class Card:
    """A card was read: its ID in upper-case hexadecimal digits, and the reader it came from."""

    id: str
    reader: str


@dataclass(frozen=True)
class Log:
    """A line of diagnostics; a text of several lines comes as several events."""

    text: str


AgentEvent = Union[Attached, Replaced, Gone, Card, Log]


class CardReaderError(Exception):
    """What all errors of this package have in common."""


class NoReaderError(CardReaderError):
    """No reader is attached."""


class ReaderChangedError(CardReaderError):
    """Another reader is attached than the one meant, or the same one anew. Nothing was done."""


class ReaderFailedError(CardReaderError):
    """The reader or its library failed. `number` is the library's, None for a configuration."""

    def __init__(self, message: str, number: int | None) -> None:
        super().__init__(message)
        self.number = number


class RejectedError(CardReaderError):
    """The agent did not understand the command; the message is the agent's."""


class AgentEndedError(CardReaderError):
    """The agent is not running (any more), so that there is no answer.

    `status` is its exit status, negative for a signal, or None; `signal` the signal's name, or None.
    The message ends with the last of what the agent `said` on standard error.
    """

    def __init__(self, status: int | None = None, said: str = "", how: str = "") -> None:
        self.status = status
        self.signal: str | None = None
        if status is not None and status < 0:
            try:
                self.signal = signal.Signals(-status).name
            except ValueError:  # a real-time signal
                self.signal = f"signal {-status}"
        if self.signal:
            how = f"was ended by {self.signal}"
        elif status is not None:
            how = f"ended with status {status}"
        how = how or "is not running"
        super().__init__(f"the agent {how}" + (f": {said.strip()}" if said.strip() else ""))


class AgentStartError(CardReaderError):
    """The agent can't be run. `code` is the system's name for the reason, such as "ENOENT"."""

    def __init__(self, path: str, error: OSError | ValueError) -> None:
        number = error.errno if isinstance(error, OSError) else errno.EINVAL
        self.code = errno.errorcode.get(number or 0, str(number))
        words = os.strerror(number) if number else str(error)
        if sys.platform == "darwin" and number == BAD_CPU_TYPE:
            self.code = "EBADARCH"
            words = ROSETTA
        super().__init__(f"cannot start {path}: {self.code}, {words}")


def error_for(text: str) -> CardReaderError:
    """What the agent's answer "Error: `text`" means."""
    if failed := _FAILED.fullmatch(text):
        return ReaderFailedError(text, int(failed[1]) if failed[1] else None)
    if not text.startswith("Action was for reader "):
        return RejectedError(text)
    if text.endswith(", but there is no reader attached"):
        return NoReaderError(text)
    return ReaderChangedError(text)


# A process that is forked off ours gets a copy of our ends of the agent's pipes. It has to let go of
# them, or the agent would never see the end of its input. Their numbers stay taken, since objects
# that were forked along may close them once more.
_our_ends: weakref.WeakSet[Any] = weakref.WeakSet()


def _let_go_of_our_ends() -> None:
    null = os.open(os.devnull, os.O_RDWR)
    for end in list(_our_ends):
        with suppress(OSError, ValueError):  # it is closed
            os.dup2(null, end.fileno(), inheritable=False)
    os.close(null)


os.register_at_fork(after_in_child=_let_go_of_our_ends)


class _Command:
    """One that was sent and is not answered yet."""

    __slots__ = ("answer", "future", "logs", "proof")

    def __init__(self, future: asyncio.Future[str]) -> None:
        self.future = future
        self.proof: str | None = None  # the answer to the ping that follows it
        self.answer: tuple[str, str, str] | None = None  # the last one seen: kind, text, line
        self.logs: list[str] | None = None  # the log lines meanwhile, if they matter


class _Process(asyncio.SubprocessProtocol):
    """The agent's process and its pipes: bytes to lines, and an end that always comes."""

    transport: asyncio.SubprocessTransport | None = None

    def __init__(self, agent: CardReaderAgent) -> None:
        self.loop = asyncio.get_running_loop()
        self.ended: asyncio.Future[None] = self.loop.create_future()
        self.closing = False
        self.said = ""
        self._agent = agent
        self._output: list[bytes] = []
        self._partial: list[bytes] = []  # the pieces of the line that is not complete yet
        self._decoder = codecs.getincrementaldecoder("utf-8")("replace")
        self._insisting: asyncio.TimerHandle | None = None

    def connection_made(self, transport: asyncio.BaseTransport) -> None:
        self.transport = cast(asyncio.SubprocessTransport, transport)
        for number in range(3):
            if pipe := self.transport.get_pipe_transport(number):
                _our_ends.add(pipe.get_extra_info("pipe"))
        if self.closing:
            self.close_input()

    def write(self, data: bytes) -> None:
        """What is written in one turn of the event loop goes out together: a flood costs less."""
        if not self._output:
            self.loop.call_soon(self._flush)
        self._output.append(data)

    def _flush(self) -> None:
        pipe = self._input()
        if pipe and not pipe.is_closing():  # or else the end is near, and fails this too
            pipe.write(b"".join(self._output))
        self._output.clear()

    def close_input(self) -> None:
        self.closing = True
        self._flush()
        if pipe := self._input():
            pipe.close()

    def kill(self) -> None:
        if self.transport:
            with suppress(ProcessLookupError):
                self.transport.kill()

    def finish(self, status: int | None) -> None:
        if self._insisting:
            self._insisting.cancel()
        if not self.ended.done():
            self.ended.set_result(None)
            self._agent._end(status, self.said)

    def pipe_data_received(self, fd: int, data: bytes) -> None:
        if fd != 1:
            self._hear(data)
            return
        head, *lines = data.split(b"\n")
        self._partial.append(head)
        for line in lines:  # each begins behind a line feed, so that the one before is complete
            self._agent._take(b"".join(self._partial).decode(errors="surrogateescape"))
            self._partial = [line]

    def pipe_connection_lost(self, fd: int, exc: Exception | None) -> None:
        if fd == 1:
            self._insist()

    def process_exited(self) -> None:
        self._insist()

    def connection_lost(self, exc: Exception | None) -> None:
        if self.transport:
            self.transport.close()  # there is nothing left to close, but it would complain
            self.finish(self.transport.get_returncode())

    def _input(self) -> asyncio.WriteTransport | None:
        pipe = self.transport.get_pipe_transport(0) if self.transport else None
        return cast("asyncio.WriteTransport | None", pipe)

    def _hear(self, data: bytes) -> None:
        text = self._decoder.decode(data)
        self.said = (self.said + text)[-SAID_LIMIT:]
        self._agent._hear(text)

    def _insist(self) -> None:
        """Another process may hold the pipes of one that is gone, or this one live on without."""
        if self.transport and not self._insisting:
            self._insisting = self.loop.call_later(GRACE, self.transport.close)


class CardReaderAgent:
    """One agent process, started by `async with` or by `start`, in a session of its own.

    Iterating over it gives the events in order until the agent ends, also those that came before;
    it raises AgentEndedError when the agent ends without `close`. Events wait in memory for whoever
    iterates, so neither the agent nor the commands ever wait for a slow consumer.

    Every command returns once it is answered, or raises: one of the errors that `error_for` makes
    of the agent's "Error"; AgentEndedError without an answer; ValueError, with nothing sent, for
    arguments that can't be told in one line of the protocol: a line feed or zero byte, a colon in
    a reader name, a setting's name that is none, a value that is no 32-bit integer, more than 1023
    bytes. Commands may be sent without waiting for the answers before; one whose wait is cancelled
    has been sent all the same.

    Reader names begin with the time of the agent's start in seconds: those of two agents that were
    started within a second may be the same.
    """

    def __init__(
        self,
        path: str | os.PathLike[str],
        *,
        env: Mapping[str, str] | None = None,
        certain: bool = True,
        close_timeout: float | None = 2.0,
        stderr: Literal["inherit", "ignore"] | Callable[[str], object] = "inherit",
        trace: Callable[[float, str, str], object] | None = None,
        on_event: Callable[[AgentEvent], object] | None = None,
    ) -> None:
        """`path` is the agent's executable or its bundle; `env` its environment, by default ours.

        `certain`: a ping with a fresh number follows each command, so that no text of the reader
        library can pass for an answer. `close_timeout`: seconds, see `close`. `stderr`: where the
        agent's standard error goes, perhaps a function. `trace` is called with each line: time in
        seconds since the epoch, ">" to the agent or "<" from it, the line. `on_event` is called
        with each event at once; there is nothing to iterate over then.
        """
        path = os.fspath(path)
        self._path = os.path.join(path, PROGRAM) if os.path.isdir(path) else path
        self._env = env
        self._certain = certain
        self._close_timeout = close_timeout
        self._stderr = stderr
        self._trace = trace
        self._on_event = on_event
        self._process: _Process | None = None
        self._events: asyncio.Queue[AgentEvent | None] | None = None
        self._pending: deque[_Command] = deque()
        self._salt = secrets.token_hex(8)
        self._number = 0
        self._reader: str | None = None
        self._status: int | None = None
        self._said = ""
        self._answered = 0.0

    @property
    def reader(self) -> str | None:
        """The name of the attached reader, None when there is none."""
        return self._reader

    @property
    def pid(self) -> int | None:
        """The agent's process id while it runs."""
        process = self._process
        if not process or not process.transport or process.ended.done():
            return None
        return process.transport.get_pid()

    @property
    def answered(self) -> float:
        """When the last answer came or, if none was due then, the command after it was sent; in the
        time of the event loop.
        """
        return self._answered

    @property
    def busy(self) -> bool:
        """Whether commands are under way."""
        return bool(self._pending)

    @property
    def end(self) -> AgentEndedError:
        """How the agent ended; without a status if it has not."""
        return AgentEndedError(self._status, self._said)

    async def start(self) -> None:
        """Starts the agent, once. Raises AgentStartError when it can't be; try again as you like."""
        if self._process:
            raise RuntimeError("the agent was started before")
        self._events = asyncio.Queue()
        process = self._process = _Process(self)
        try:
            await process.loop.subprocess_exec(
                lambda: process,
                self._path,
                stdin=PIPE,
                stdout=PIPE,
                stderr=PIPE,
                env=self._env,
                start_new_session=True,  # a Ctrl-C in our terminal is ours to answer
            )
        except BaseException as error:
            self._process = None
            process.finish(None)
            if isinstance(error, (OSError, ValueError)):
                raise AgentStartError(self._path, error) from error
            raise

    async def wait(self, timeout: float | None = None) -> bool:
        """Waits for the agent's end, at most `timeout` seconds; returns whether it is not running."""
        if self._process and not self._process.ended.done():
            await asyncio.wait({self._process.ended}, timeout=timeout)
            return self._process.ended.done()
        return True

    async def close(self) -> int | None:
        """Closes the agent's standard input, waits for its end and returns its exit status.

        All commands sent before are answered by then. An agent that has not ended after
        `close_timeout` seconds is killed, and so is it when this is cancelled. May be called at any
        time and more than once. The status is None if there was no agent, or none that would end.
        """
        if process := self._process:
            process.close_input()
            try:
                await asyncio.wait({process.ended}, timeout=self._close_timeout)
            finally:
                if not process.ended.done():
                    process.kill()
            await asyncio.wait({process.ended}, timeout=2 * GRACE)
            process.finish(None)  # not even SIGKILL ends a process whose driver never returns
        return self._status

    def kill(self) -> None:
        """Ends the agent at once; `wait` tells when that is done."""
        if self._process:
            self._process.kill()

    async def __aenter__(self) -> CardReaderAgent:
        await self.start()
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.close()

    def __aiter__(self) -> CardReaderAgent:
        return self

    async def __anext__(self) -> AgentEvent:
        if not self._process or not self._events:
            raise AgentEndedError()
        event = await self._events.get()
        if event is not None:
            return event
        self._events.put_nowait(None)  # for all others who iterate
        raise StopAsyncIteration() if self._process.closing else self.end

    async def ping(self, text: str = "") -> str:
        """Returns the text, less white space at its end."""
        # The agent sends back the blank before the text too.
        return (await self._send(f"Global:Ping {text}").future)[1:]

    async def beep(self, reader: str, count: int = 1, length: BeepLength = "short") -> None:
        """1 to 5 beeps of the length "short", or 1 to 2 of the length "long"."""
        await self._command(reader, f"Beep {length} {count}").future

    async def set_led(self, reader: str, color: LedColor) -> None:
        """Takes the LED under the agent's control: "red", "green", "amber" or "off"."""
        await self._command(reader, f"SetLED {color}").future

    async def clear_led(self, reader: str) -> None:
        """Gives control of the LED back to the reader."""
        await self._command(reader, "ClearLED").future

    async def reset_config(self, reader: str) -> None:
        """Resets the reader to its factory settings."""
        await self._command(reader, "ResetConfig").future

    async def configure(self, reader: str, settings: Settings) -> list[str]:
        """Changes the reader's configuration.

        Returns, sorted and as "type.name", the settings that the agent does not know. It has applied
        the others.
        """
        logs_of = {}
        line = "ReaderConfig"
        for setting_type, values in cast("Mapping[str, Mapping[str, int]]", settings).items():
            for name, value in values.items():
                setting = f"{setting_type}.{name}"
                if not _SETTING_TYPE.fullmatch(setting_type) or not _SETTING_NAME.fullmatch(name):
                    raise ValueError(f"not the name of a setting: '{setting}'")
                if not isinstance(value, int) or not -(2**31) <= value < 2**31:
                    raise ValueError(f"not a 32-bit integer: {setting}={value}")
                line += f" {setting}={value:d}"
                logs_of[setting] = (f"{setting}={value:d}", f"type {setting_type}")
        command = self._command(reader, line)
        command.logs = []
        await command.future
        ignored = {text[len(SETTING_IGNORED) :] for text in command.logs}
        return sorted(name for name, logs in logs_of.items() if not ignored.isdisjoint(logs))

    def _command(self, reader: str, command: str) -> _Command:
        if not reader or ":" in reader:
            raise ValueError(f"a reader name must be neither empty nor hold a colon: '{reader}'")
        return self._send(f"{reader}:{command}")

    def _send(self, line: str) -> _Command:
        data = line.encode(errors="surrogateescape") + b"\n"
        if b"\n" in data[:-1] or b"\0" in data:
            raise ValueError("a command must not hold a line feed or a zero byte")
        if len(data) > LINE_LIMIT + 1:
            raise ValueError(f"command line of {len(data) - 1} bytes, more than {LINE_LIMIT}")
        process = self._process
        if not process or not process.transport or process.closing or process.ended.done():
            raise self.end
        command = _Command(process.loop.create_future())
        if self._trace:
            self._call(self._trace, time.time(), ">", line)
        if self._certain:
            self._number += 1
            command.proof = f" {self._salt}-{self._number}"
            ping = f"Global:Ping{command.proof}"
            data += ping.encode() + b"\n"
            if self._trace:
                self._call(self._trace, time.time(), ">", ping)
        if not self._pending:
            self._answered = process.loop.time()
        self._pending.append(command)
        process.write(data)
        return command

    def _take(self, line: str) -> None:
        if self._trace:
            self._call(self._trace, time.time(), "<", line)
        kind, colon, text = line.partition(":")
        form = _TEXTS.get(kind)
        if not form or not colon or not form.fullmatch(text):
            self._emit(Log(line))  # a log text goes on
            return
        text = text[1:]
        if kind in ("Ok", "Error"):
            self._take_answer(kind, text, line)
        elif kind == "Log":
            if self._pending and (logs := self._pending[0].logs) is not None:
                logs.append(text)
            self._emit(Log(text))
        elif kind == "Reader" and (text != "Global" or self._reader):
            self._change_reader(text)
        elif kind == "Card" and self._reader:
            self._emit(Card(text, self._reader))
        else:
            self._emit(Log(line))

    def _take_answer(self, kind: str, text: str, line: str) -> None:
        command = self._pending[0] if self._pending else None
        if command and command.proof is None:
            self._settle(kind, text)
        elif command and command.answer and kind == "Ok" and text == command.proof:
            self._settle(*command.answer[:2])
        else:
            late = line  # without a command, or before the last answer to one
            if command:
                late = command.answer[2] if command.answer else ""
                command.answer = (kind, text, line)
            if late:
                self._emit(Log(late))

    def _settle(self, kind: str, text: str) -> None:
        future = self._pending.popleft().future
        self._answered = future.get_loop().time()
        if future.done():
            pass  # nobody waits any more
        elif kind == "Ok":
            future.set_result(text)
        else:
            future.set_exception(error_for(text))

    def _change_reader(self, name: str) -> None:
        previous, self._reader = self._reader, None if name == "Global" else name
        if self._reader is None:
            self._emit(Gone(previous or ""))
        elif previous:
            self._emit(Replaced(name, previous))
        else:
            self._emit(Attached(name))

    def _hear(self, text: str) -> None:
        if callable(self._stderr):
            self._call(self._stderr, text)
        elif self._stderr == "inherit" and sys.stderr:
            self._call(sys.stderr.write, text)

    def _end(self, status: int | None, said: str) -> None:
        self._status, self._said = status, said
        self._reader = None
        for command in self._pending:
            if not command.future.done():
                command.future.set_exception(self.end)
        self._pending.clear()
        if self._events:
            self._events.put_nowait(None)

    def _emit(self, event: AgentEvent) -> None:
        if self._on_event:
            self._call(self._on_event, event)
        elif self._events:
            self._events.put_nowait(event)

    def _call(self, function: Callable[..., object], *args: object) -> None:
        """The host's function; one that fails must not cost the lines behind."""
        try:
            function(*args)
        except Exception as error:
            context = {"message": f"{function!r} failed", "exception": error}
            asyncio.get_running_loop().call_exception_handler(context)
