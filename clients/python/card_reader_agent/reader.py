"""A reader that is there for as long as the program runs, whatever becomes of the agent.

    async with CardReader(path) as reader:
        async for event in reader:
            if isinstance(event, Card):
                await reader.beep()

States, events, options and errors are those of every language's client; clients/README.md tells them.
"""

from __future__ import annotations

import asyncio
import math
import os
import sys
import weakref
from collections.abc import Awaitable, Callable, Coroutine, Mapping
from contextlib import suppress
from dataclasses import dataclass
from functools import partial
from typing import Any, Literal, TypeVar, Union

from .agent import (
    AgentEndedError,
    AgentEvent,
    AgentStartError,
    Attached,
    BeepLength,
    Card,
    CardReaderAgent,
    CardReaderError,
    Gone,
    LedColor,
    Log,
    NoReaderError,
    RejectedError,
    Settings,
)

T = TypeVar("T")

StateName = Literal["starting", "searching", "ready", "restarting", "failed", "closed"]

# Why a start may fail now and not later.
PASSING = {"EAGAIN", "EIO", "EMFILE", "ENFILE", "ENOMEM", "ENOSPC", "ETXTBSY"}


@dataclass(frozen=True)
class State:
    """The state has changed. The reason is a sentence for people, or None."""

    state: StateName
    previous: StateName
    reason: str | None


@dataclass(frozen=True)
class CardRemoved:
    """The card has gone, or the reader with it."""

    id: str
    reader: str


@dataclass(frozen=True)
class Poll:
    """The reader has reported a card, perhaps one that has been there for long."""

    id: str
    reader: str


@dataclass(frozen=True)
class Hang:
    """The agent hangs, and is waited for."""


Event = Union[State, Card, CardRemoved, Poll, Log, Hang]
OnConnect = Callable[["CardReader"], Awaitable[object]]


class UnknownSettingsError(CardReaderError):
    """The agent does not know the settings `names` ("type.name"), and has applied the others."""

    def __init__(self, names: list[str]) -> None:
        super().__init__(f"unknown settings: {', '.join(names)}")
        self.names = names


class CommandTimeoutError(CardReaderError):
    """No answer came in time. The command may be carried out all the same."""


async def _within(seconds: float, work: Coroutine[Any, Any, T]) -> T:
    # Not asyncio.wait_for: before Python 3.12 a cancellation can get lost in it.
    task = asyncio.ensure_future(work)
    try:
        await asyncio.wait({task}, timeout=None if seconds == math.inf else seconds)
    finally:
        task.cancel()
        task.add_done_callback(lambda task: task.cancelled() or task.exception())
    if not task.done():
        raise CommandTimeoutError(f"no answer within {seconds:g} s")
    return task.result()


class _Events:
    """What happens from now on, for one who iterates."""

    def __init__(self) -> None:
        self.queue: asyncio.Queue[Event | CardReaderError | None] = asyncio.Queue()

    def __aiter__(self) -> _Events:
        return self

    async def __anext__(self) -> Event:
        event = await self.queue.get()
        if event is None:
            self.queue.put_nowait(None)
            raise StopAsyncIteration
        if isinstance(event, CardReaderError):
            raise event.with_traceback(None)
        return event


class CardReader:
    """A supervised reader, started by `async with` or by `start`. Times are in seconds.

    Each `async for` over it gives the events from then on, over all restarts, until the reader is
    closed; it raises what led there when the state becomes "failed". Events wait in memory for
    whoever iterates.

    A command's `timeout` is `command_timeout` if it is None; math.inf is no limit. Commands raise
    the errors of clients/README.md, ValueError for arguments that can't be sent.
    """

    def __init__(
        self,
        path: str | os.PathLike[str],
        *,
        env: Mapping[str, str] | None = None,
        restart_delay: float = 0.5,
        restart_delay_limit: float = 30.0,
        give_up_after: int = 5,
        command_timeout: float | None = 10.0,
        watchdog_interval: float = 5.0,
        watchdog_timeout: float = 15.0,
        on_hang: Literal["restart", "wait"] = "restart",
        card_removed_after: float = 0.6,
        on_connect: OnConnect | None = None,
        close_timeout: float | None = 2.0,
        stderr: Literal["inherit", "ignore"] | Callable[[str], object] = "inherit",
        trace: Callable[[float, str, str], object] | None = None,
        certain: bool = True,
    ) -> None:
        self._new_agent = partial(
            CardReaderAgent,
            path,
            env=env,
            certain=certain,
            close_timeout=close_timeout,
            stderr=stderr,
            trace=trace,
            on_event=self._take,
        )
        self._restart_delay = restart_delay
        self._restart_delay_limit = restart_delay_limit
        self._give_up_after = give_up_after
        self._command_timeout = math.inf if command_timeout is None else command_timeout
        self._watchdog_interval = watchdog_interval or math.inf
        self._watchdog_timeout = watchdog_timeout
        self._on_hang = on_hang
        self._card_removed_after = card_removed_after
        self._on_connect = on_connect
        self._close_timeout = close_timeout

        self._state: StateName = "starting"
        self._reason: str | None = None
        self._failure: CardReaderError | None = None
        self._agent: CardReaderAgent | None = None
        self._supervision: asyncio.Task[None] | None = None
        self._connecting: asyncio.Task[None] | None = None
        self._pinging: asyncio.Task[None] | None = None
        self._closing = False
        self._answers = False  # the agent has answered
        self._card: Card | None = None
        self._card_seen = 0.0
        self._card_timer: asyncio.TimerHandle | None = None
        self._waiters: set[asyncio.Future[None]] = set()
        self._iterators: weakref.WeakSet[_Events] = weakref.WeakSet()

    @property
    def state(self) -> StateName:
        return self._state

    @property
    def reason(self) -> str | None:
        """Of the state, as it was told."""
        return self._reason

    @property
    def failure(self) -> CardReaderError | None:
        """What led to the state "failed": an AgentStartError or an AgentEndedError."""
        return self._failure

    @property
    def name(self) -> str | None:
        """The name of the attached reader, None when there is none."""
        return self._agent.reader if self._agent else None

    @property
    def pid(self) -> int | None:
        """The process id of the agent that runs."""
        return self._agent.pid if self._agent else None

    async def start(self) -> None:
        """Begins, once, and waits for nothing."""
        if self._supervision or self._closing:
            raise RuntimeError("the reader was started or closed before")
        self._supervision = asyncio.get_running_loop().create_task(self._supervise())

    async def close(self) -> None:
        """Lets the agent answer what was sent, and ends it: at the latest, kills it after
        `close_timeout`; at once when this is cancelled. May be called at any time, more than once.
        """
        task, again = self._supervision, self._closing
        self._closing = True
        if task and not task.done():
            if not again:
                task.cancel()
            try:
                await asyncio.wait({task})
            except asyncio.CancelledError:
                task.cancel()
                raise
        self._change("closed")

    async def __aenter__(self) -> CardReader:
        await self.start()
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.close()

    def __aiter__(self) -> _Events:
        events = _Events()
        if self._state in ("failed", "closed"):
            events.queue.put_nowait(self._failure)
        self._iterators.add(events)
        return events

    async def wait_for_reader(self, timeout: float | None = None) -> None:
        """Waits until the state is "ready". `timeout` None is no limit.

        Raises CommandTimeoutError; `failure` when the state is "failed"; AgentEndedError when "closed".
        """
        await _within(math.inf if timeout is None else timeout, self._until_ready())

    async def ping(self, text: str = "", *, timeout: float | None = None) -> str:
        """Returns the text, less white space at its end. Needs no reader."""
        agent = self._agent
        if not agent:
            raise AgentEndedError
        return await _within(self._limit(timeout), agent.ping(text))

    async def beep(
        self, count: int = 1, length: BeepLength = "short", *, timeout: float | None = None
    ) -> None:
        """1 to 5 beeps of the length "short", or 1 to 2 of the length "long"."""
        agent, name = self._attached()
        await _within(self._limit(timeout), agent.beep(name, count, length))

    async def set_led(self, color: LedColor, *, timeout: float | None = None) -> None:
        """Takes the LED under the agent's control: "red", "green", "amber" or "off"."""
        agent, name = self._attached()
        await _within(self._limit(timeout), agent.set_led(name, color))

    async def clear_led(self, *, timeout: float | None = None) -> None:
        """Gives control of the LED back to the reader."""
        agent, name = self._attached()
        await _within(self._limit(timeout), agent.clear_led(name))

    async def configure(self, settings: Settings, *, timeout: float | None = None) -> None:
        """Changes the reader's configuration."""
        agent, name = self._attached()
        if unknown := await _within(self._limit(timeout), agent.configure(name, settings)):
            raise UnknownSettingsError(unknown)

    async def reset_config(self, *, timeout: float | None = None) -> None:
        """Resets the reader to its factory settings."""
        agent, name = self._attached()
        await _within(self._limit(timeout), agent.reset_config(name))

    def _limit(self, timeout: float | None) -> float:
        return self._command_timeout if timeout is None else timeout

    def _attached(self) -> tuple[CardReaderAgent, str]:
        agent, name = self._agent, self.name
        if not agent or not name:
            raise NoReaderError("no reader is attached")
        if ":" in name:
            raise RejectedError(f"the reader {name} has a colon in its name: no command can name it")
        return agent, name

    async def _until_ready(self) -> None:
        while self._state != "ready":
            if self._failure:
                raise self._failure.with_traceback(None)
            if self._state == "closed":
                raise AgentEndedError
            waiter = asyncio.get_running_loop().create_future()
            self._waiters.add(waiter)
            try:
                await waiter
            finally:
                self._waiters.discard(waiter)

    # One agent after the other.

    async def _supervise(self) -> None:
        try:
            self._failure = await self._serve_until_failure()
            self._change("failed", str(self._failure))
        finally:
            if not self._failure:
                self._change("closed")

    async def _serve_until_failure(self) -> CardReaderError:
        loop = asyncio.get_running_loop()
        delay = self._restart_delay
        unanswered = 0
        while True:
            agent = self._agent = self._new_agent()
            self._answers = False
            began = loop.time()
            try:
                end = await self._serve(agent)
            finally:
                await self._finish(agent)
            unanswered = 0 if self._answers else unanswered + 1
            if unanswered >= self._give_up_after:
                return end
            if isinstance(end, AgentStartError) and end.code not in PASSING:
                return end
            if loop.time() - began > self._restart_delay_limit:
                delay = self._restart_delay
            self._change("restarting", str(end))
            await asyncio.sleep(delay)
            delay = min(2 * delay, self._restart_delay_limit)
            self._change("starting")

    async def _serve(self, agent: CardReaderAgent) -> CardReaderError:
        """Starts the agent and watches over it up to its end, which it returns."""
        try:
            await agent.start()
            await self._ping(agent)
            told = 0.0  # of the hang since then
            while not await agent.wait(self._pause(agent, told)):
                now = asyncio.get_running_loop().time()
                if not agent.busy:
                    if now - agent.answered >= self._watchdog_interval:
                        await self._ping(agent)
                elif now - agent.answered >= self._watchdog_timeout:
                    if self._on_hang == "restart":
                        agent.kill()
                        return AgentEndedError(how="hangs")
                    if told != agent.answered:
                        told = agent.answered
                        self._emit(Hang())
        except AgentStartError as error:
            return error
        except asyncio.CancelledError:
            # Before Python 3.11 a Ctrl-C cancels all tasks at once. Whoever closes this reader may
            # have commands for it first.
            if sys.version_info < (3, 11) and not self._closing:
                await agent.wait(self._close_timeout)
            raise
        return agent.end

    def _pause(self, agent: CardReaderAgent, told: float) -> float:
        """How long there is nothing to look after, in seconds."""
        now = asyncio.get_running_loop().time()
        if not agent.busy:
            return min(agent.answered + self._watchdog_interval - now, self._watchdog_timeout)
        if agent.answered == told:
            return self._watchdog_timeout
        return agent.answered + self._watchdog_timeout - now

    async def _ping(self, agent: CardReaderAgent) -> None:
        async def ping() -> None:
            with suppress(CardReaderError):
                await agent.ping()
                self._answered()

        self._pinging = asyncio.ensure_future(ping())
        await asyncio.sleep(0)  # it is sent

    async def _finish(self, agent: CardReaderAgent) -> None:
        if self._connecting:
            self._connecting.cancel()
        await agent.close()
        self._lose_card()

    def _answered(self) -> None:
        self._answers = True
        if self._state == "starting":
            self._change("searching")

    # What the agent tells.

    def _take(self, event: AgentEvent) -> None:
        if isinstance(event, Log):
            self._emit(event)
        elif isinstance(event, Card):
            self._see_card(event)
        else:
            self._lose_card()
            if self._connecting:
                self._connecting.cancel()
            if isinstance(event, Attached):
                self._answered()
            else:
                gone = isinstance(event, Gone)
                self._change("searching", f"the reader {'has gone' if gone else 'was connected anew'}")
            if isinstance(event, Gone):
                return
            if self._on_connect:
                connect = self._connect(self._on_connect, event.reader)
                self._connecting = asyncio.ensure_future(connect)
            else:
                self._change("ready")

    async def _connect(self, function: OnConnect, name: str) -> None:
        try:
            await function(self)
        except Exception as error:
            self._emit(Log(f"the on-connect function failed: {error}"))
        else:
            if self.name == name:
                self._change("ready")

    def _see_card(self, card: Card) -> None:
        if card != self._card:
            self._lose_card()
            self._card = card
            self._emit(card)
        self._card_seen = asyncio.get_running_loop().time()
        self._emit(Poll(card.id, card.reader))
        if not self._card_timer:
            self._look_for_card()

    def _look_for_card(self) -> None:
        """Gives the card up, or looks again when that may be due: commands keep the agent from it."""
        if self._card_timer:
            self._card_timer.cancel()
        if not self._card or not self._agent:
            return
        loop = asyncio.get_running_loop()
        since = max(self._card_seen, self._agent.answered)
        due = (loop.time() if self._agent.busy else since) + self._card_removed_after
        if due <= loop.time():
            self._lose_card()
        else:  # if we stood still ourselves, what came meanwhile is read first
            self._card_timer = loop.call_at(due, loop.call_soon, self._look_for_card)

    def _lose_card(self) -> None:
        if self._card_timer:
            self._card_timer.cancel()
            self._card_timer = None
        card, self._card = self._card, None
        if card:
            self._emit(CardRemoved(card.id, card.reader))

    # What is told.

    def _change(self, state: StateName, reason: str | None = None) -> None:
        previous = self._state
        if state == previous:
            return
        self._state, self._reason = state, reason
        self._emit(State(state, previous, reason))
        if state in ("failed", "closed"):
            self._emit(self._failure if state == "failed" else None)
        for waiter in self._waiters:
            if not waiter.done():
                waiter.set_result(None)

    def _emit(self, event: Event | CardReaderError | None) -> None:
        for events in list(self._iterators):
            events.queue.put_nowait(event)
