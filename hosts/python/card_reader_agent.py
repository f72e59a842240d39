"""Starts the card reader agent, sends it commands and reports what it tells.

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
import os
import re
import sys
from asyncio.subprocess import PIPE, Process
from collections import deque
from collections.abc import Mapping
from dataclasses import dataclass
from typing import Union

LINE_LIMIT = 1023  # bytes before the line feed

_LINE = re.compile(r"(Ok|Error|(?:Reader|Card|Log)(?=: )):(?: (.*))?", re.DOTALL)


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


Event = Union[Attached, Replaced, Gone, Card, Log]


class CommandError(Exception):
    """The agent answered a command with "Error"; the message is the agent's."""


class AgentEnded(Exception):
    """The agent is not running. `status` is its exit status, negative for a signal, or None."""

    def __init__(self, status: int | None) -> None:
        how = "is not running" if status is None else f"ended with status {status}"
        super().__init__(f"The agent {how}")
        self.status = status


class CardReaderAgent:
    """One agent process, started by `async with` or by `start`. Its standard error is ours.

    Iterating over it gives the events in order until the agent ends, also those that came before;
    it raises AgentEnded when the agent ends without `close`. Events wait in memory for whoever
    iterates, so neither the agent nor the commands ever wait for a slow consumer.

    Every command returns the agent's text after "Ok: ", empty for most, or raises: CommandError
    for the agent's "Error"; AgentEnded without an answer; ValueError, with nothing sent, for
    arguments that can't be told in one line of the protocol: a line feed or zero byte, a colon in
    a reader name, white space in a setting's name, a value that is no integer, more than 1023
    bytes. Commands may be sent without waiting for the answers before; one whose wait is
    cancelled has been sent all the same.
    """

    def __init__(self, path: str | os.PathLike[str], *, env: Mapping[str, str] | None = None):
        """`path` is the agent's executable; `env` its environment, by default ours."""
        self._path = path
        self._env = env
        self._process: Process | None = None
        self._pending: deque[asyncio.Future[str]] = deque()
        self._reader: str | None = None
        self._started = self._closing = False
        self._status: int | None = None

    @property
    def reader(self) -> str | None:
        """The name of the attached reader, None when there is none."""
        return self._reader

    @property
    def pid(self) -> int | None:
        """The agent's process id while it runs. A process that hangs can be ended by it."""
        return self._process.pid if self._process and not self._task.done() else None

    async def start(self) -> None:
        """Starts the agent, once. Raises OSError when it can't be started."""
        if self._started:
            raise RuntimeError("The agent was started before")
        self._started = True
        process = await asyncio.create_subprocess_exec(
            self._path, stdin=PIPE, stdout=PIPE, env=self._env, limit=sys.maxsize
        )
        assert process.stdin
        self._events: asyncio.Queue[Event | None] = asyncio.Queue()
        self._stdin = process.stdin
        self._process = process
        self._task = asyncio.create_task(self._read(process))

    async def close(self) -> int | None:
        """Closes the agent's standard input, waits for its end and returns its exit status.

        All commands sent before are answered by then. May be called more than once, and has no
        limit in time: an agent that waits for its reader ends when the reader answers.
        """
        if self._process:
            self._closing = True
            self._stdin.close()
            await asyncio.wait({self._task})
        return self._status

    async def __aenter__(self) -> CardReaderAgent:
        await self.start()
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.close()

    def __aiter__(self) -> CardReaderAgent:
        return self

    async def __anext__(self) -> Event:
        if not self._process:
            raise AgentEnded(None)
        event = await self._events.get()
        if event is not None:
            return event
        self._events.put_nowait(None)  # for all others who iterate
        raise StopAsyncIteration() if self._closing else AgentEnded(self._status)

    async def ping(self, text: str = "") -> str:
        """Returns the text, less white space at its end."""
        # The agent sends back the blank before the text too.
        return (await self._send(f"Global:Ping {text}"))[1:]

    async def beep(self, reader: str, count: int = 1, length: str = "short") -> str:
        """1 to 5 beeps of the length "short", or 1 to 2 of the length "long"."""
        return await self._command(reader, f"Beep {length} {count}")

    async def set_led(self, reader: str, color: str) -> str:
        """Takes the LED under the agent's control: "red", "green", "amber" or "off"."""
        return await self._command(reader, f"SetLED {color}")

    async def clear_led(self, reader: str) -> str:
        """Gives control of the LED back to the reader."""
        return await self._command(reader, "ClearLED")

    async def reset_config(self, reader: str) -> str:
        """Resets the reader to its factory settings."""
        return await self._command(reader, "ResetConfig")

    async def reader_config(self, reader: str, settings: Mapping[str, Mapping[str, int]]) -> str:
        """Changes the reader's configuration: setting type, then setting name, to a 32-bit integer.

        Unknown settings only give log events.
        """
        command = "ReaderConfig"
        for setting_type, values in settings.items():
            for name, value in values.items():
                if re.search(r"\s", setting_type + name):
                    raise ValueError(f"White space in setting {setting_type}.{name}")
                command += f" {setting_type}.{name}={value:d}"
        return await self._command(reader, command)

    async def _command(self, reader: str, command: str) -> str:
        if not reader or ":" in reader:
            raise ValueError(f"A reader name must be neither empty nor hold a colon: '{reader}'")
        return await self._send(f"{reader}:{command}")

    async def _send(self, line: str) -> str:
        data = line.encode(errors="surrogateescape")
        if b"\n" in data or b"\0" in data:
            raise ValueError("A command must not hold a line feed or a zero byte")
        if len(data) > LINE_LIMIT:
            raise ValueError(f"Command line of {len(data)} bytes, more than {LINE_LIMIT}")
        if not self._process or self._closing or self._task.done():
            raise AgentEnded(self._status)
        answer: asyncio.Future[str] = asyncio.get_running_loop().create_future()
        self._pending.append(answer)
        if not self._stdin.is_closing():  # or else the end is near, and fails this too
            self._stdin.write(data + b"\n")
        return await answer

    async def _read(self, process: Process) -> None:
        assert process.stdout
        async for line in process.stdout:
            if line.endswith(b"\n"):  # or else the agent was killed in the middle of it
                self._take(line[:-1].decode(errors="surrogateescape"))
        self._status = await process.wait()
        self._reader = None
        for answer in self._pending:
            if not answer.done():
                answer.set_exception(AgentEnded(self._status))
        self._pending.clear()
        self._events.put_nowait(None)

    def _take(self, line: str) -> None:
        match = _LINE.fullmatch(line)
        kind, text = (match[1], match[2] or "") if match else ("", line)
        if kind in ("Ok", "Error") and self._pending:
            answer = self._pending.popleft()
            if answer.done():
                pass  # nobody waits any more
            elif kind == "Ok":
                answer.set_result(text)
            else:
                answer.set_exception(CommandError(text))
        elif kind == "Reader":
            self._events.put_nowait(self._change_reader(text))
        elif kind == "Card":
            self._events.put_nowait(Card(text, self._reader or ""))
        else:
            self._events.put_nowait(Log(text if kind == "Log" else line))  # a log text goes on

    def _change_reader(self, name: str) -> Event:
        previous, self._reader = self._reader, None if name == "Global" else name
        if self._reader is None:
            return Gone(previous or "")
        return Replaced(name, previous) if previous else Attached(name)
