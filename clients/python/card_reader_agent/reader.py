"""A reader that stays in use for as long as the application runs, whatever happens to the agent."""

from __future__ import annotations

import asyncio
import logging
import os
import weakref
from collections.abc import Callable, Mapping
from typing import Any, Literal, TypeVar, Union, get_args

from .agent import KILL_TIMEOUT, Agent, Converter, limit
from .countdown import Countdown
from .errors import RETRYABLE, AgentEndedError, AgentStartError, CardReaderError, NoReaderError
from .errors import ReaderChangedError, RejectedError
from .events import Card, CardRemoved, Event, Log, Poll, State, StateName
from .options import OnConnect, Options, StandardError, Trace, check, check_timeout
from .words import BeepLength, Configuration, LedColor, Settings, encode

T = TypeVar("T")

logger = logging.getLogger("card_reader_agent")


Timeout = Union[float, None, Literal["default"]]  # "default" is the reader's command_timeout


class _Events:
    """The events from now on, for one iteration. They wait in memory."""

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

    Read `state`; `reason`, that of the last state event; `failure`, which led to the state "failed";
    `name`, of the attached reader; `card`, the ID of the card on it; `pid`, of the agent's process.

    Each `async for` over it yields the events from then on, over all restarts. It ends when the reader
    is closed, and raises `failure` when the state becomes "failed".

    A command is sent when its method is called, which returns a future at once. Cancelling it does not
    unsend the command. A `timeout` of None is none.
    """

    def __init__(
        self,
        path: str | os.PathLike[str],
        *,
        env: Mapping[str, str] | None = None,
        restart_delay: float = 0.5,
        restart_delay_limit: float = 30.0,
        give_up_after: float = 5,
        command_timeout: float | None = 10.0,
        watchdog_interval: float = 5.0,
        watchdog_timeout: float = 15.0,
        card_removed_after: float = 0.6,
        on_connect: OnConnect | None = None,
        close_timeout: float = 2.0,
        stderr: StandardError = "inherit",
        trace: Trace | None = None,
    ) -> None:
        self._options = Options(
            path, env, restart_delay, restart_delay_limit, give_up_after, command_timeout,
            watchdog_interval, watchdog_timeout, card_removed_after, on_connect, close_timeout, stderr, trace,
        )  # fmt: skip
        self.state: StateName = "starting"
        self.reason: str | None = None
        self.failure: CardReaderError | None = None
        self.card: str | None = None
        self._agent: Agent | None = None
        self._is_started = self._is_closing = False
        self._began = 0.0
        self._delay = restart_delay
        self._has_answered = False
        self._unanswered = 0  # agents in a row that ended without an answer
        self._next_start: asyncio.Handle | None = None
        self._connecting: asyncio.Task[None] | None = None
        self._cancelled: weakref.WeakSet[asyncio.Task[Any]] = weakref.WeakSet()
        self._card_timer = Countdown(card_removed_after, self._remove_card)
        self._waiters: dict[asyncio.Future[Any], tuple[StateName, Callable[[], Any]]] = {}
        self._iterations: weakref.WeakSet[_Events] = weakref.WeakSet()

    @property
    def name(self) -> str | None:
        return self._agent.reader if self._agent else None

    @property
    def pid(self) -> int | None:
        return self._agent.pid if self._agent else None

    def start(self) -> None:
        """Begin, once, and wait for nothing."""
        if self._is_started or self._is_closing:
            raise RuntimeError("already started")
        self._is_started = True
        self._next_start = asyncio.get_running_loop().call_soon(self._launch)

    async def close(self) -> None:
        """Let the agent answer what was sent, then end it; kill it if this is cancelled. May be repeated."""
        self._is_closing = True
        if self._connecting is asyncio.current_task():
            self._connecting = None  # it closes the reader itself, and goes on
        self._cancel_connecting()
        if self._agent:
            self._agent.close()
        else:
            self._finish()
        try:
            await self.wait_for("closed")
        except asyncio.CancelledError:
            if self._agent:
                self._agent.end("the agent was killed by SIGKILL")
            raise

    async def __aenter__(self) -> CardReader:
        self.start()
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.close()

    def __aiter__(self) -> _Events:
        events = _Events()
        if self.state in ("failed", "closed"):
            events.queue.put_nowait(self._ending)
        self._iterations.add(events)
        return events

    def wait_for(self, state: StateName, *, timeout: float | None = None) -> asyncio.Future[None]:
        """Wait until the state is this one, which it may be already. Fails at "failed" and "closed"."""
        check(state in get_args(StateName), "state", state, "one of " + ", ".join(get_args(StateName)))
        return self._wait(state, lambda: None, timeout, f"not {state}", is_now=state == self.state)

    def wait_for_connection(self, *, timeout: float | None = None) -> asyncio.Future[str]:
        """The reader's name, the next time that the state becomes "ready". Fails as `wait_for` does."""
        return self._wait("ready", lambda: self.name or "", timeout, "no connection")

    def ping(self, text: str = "", *, timeout: Timeout = "default") -> asyncio.Future[str]:
        """The text, less white space at its end. Needs no reader."""
        # The agent sends back the space before the text too.
        return self._send(f"Global:Ping {text}", timeout, lambda answer, _: answer[1:])

    def beep(
        self, count: int = 1, length: BeepLength = "short", *, timeout: Timeout = "default"
    ) -> asyncio.Future[None]:
        """1 to 5 beeps of the length "short", or 1 to 2 of the length "long"."""
        return self._command(f"Beep {length} {count}", timeout)

    def set_led(self, color: LedColor, *, timeout: Timeout = "default") -> asyncio.Future[None]:
        """Take control of the LED: "red", "green", "amber" or "off"."""
        return self._command(f"SetLED {color}", timeout)

    def clear_led(self, *, timeout: Timeout = "default") -> asyncio.Future[None]:
        """Give control of the LED back to the reader."""
        return self._command("ClearLED", timeout)

    def configure(self, settings: Settings, *, timeout: Timeout = "default") -> asyncio.Future[None]:
        configuration = Configuration(settings)
        return self._command(configuration.command, timeout, configuration.check)

    def reset_config(self, *, timeout: Timeout = "default") -> asyncio.Future[None]:
        """Restore the factory settings."""
        return self._command("ResetConfig", timeout)

    def _command(
        self, command: str, timeout: Timeout, convert: Converter[None] = lambda _text, _logs: None
    ) -> asyncio.Future[None]:
        name = self.name
        error: CardReaderError | None = None
        if not name:
            error = NoReaderError("no reader is attached")
        elif asyncio.current_task() in self._cancelled:
            error = ReaderChangedError("the reader was connected again since this function was called")
        elif ":" in name:
            error = RejectedError(f"the reader {name} has a colon in its name, so no command can name it")
        return self._send(f"{name}:{command}", timeout, convert, error)

    def _send(
        self, line: str, timeout: Timeout, convert: Converter[T], error: CardReaderError | None = None
    ) -> asyncio.Future[T]:
        if timeout == "default":
            timeout = self._options.command_timeout
        check_timeout("timeout", timeout)
        encode(line)
        if self._agent and not error:
            return self._agent.send(line, convert, timeout)
        future: asyncio.Future[T] = asyncio.get_running_loop().create_future()
        future.set_exception(error or AgentEndedError())
        return future

    def _wait(
        self, state: StateName, result: Callable[[], T], timeout: float | None, what: str, is_now: bool = False
    ) -> asyncio.Future[T]:
        check_timeout("timeout", timeout)
        future: asyncio.Future[T] = asyncio.get_running_loop().create_future()
        self._waiters[future] = state, result
        future.add_done_callback(self._waiters.pop)
        self._settle(future, result, is_now)
        return limit(future, timeout, what)

    def _settle(self, future: asyncio.Future[T], result: Callable[[], T], is_reached: bool) -> None:
        if is_reached and not future.done():
            future.set_result(result())
        elif self.state in ("failed", "closed") and not future.done():
            future.set_exception(self._ending or AgentEndedError())

    @property
    def _ending(self) -> CardReaderError | None:
        """What ends iterations and waiting, once the state is "failed" or "closed"."""
        return self.failure.with_traceback(None) if self.failure and self.state == "failed" else None

    # One agent after the other.

    def _new_agent(self) -> Agent:  # a stub reader has another
        return Agent(self, self._options)

    def _launch(self) -> None:
        self._next_start = None
        self._change("starting")
        self._has_answered = False
        self._began = asyncio.get_running_loop().time()
        try:
            self._agent = self._new_agent()
        except CardReaderError as error:
            self._on_end(error)
        except Exception as error:  # a fault of this package or of an option: report it, and do not wait
            self._fail(AgentEndedError(reason=f"unexpected error: {error!r}"))
            raise

    def _on_answer(self) -> None:
        self._has_answered = True
        if self.state == "starting":
            self._change("searching")

    def _on_end(self, error: CardReaderError) -> None:
        self._agent = None
        self._remove_card()
        self._cancel_connecting()
        if self._is_closing:
            self._finish()
            return
        options = self._options
        self._unanswered = 0 if self._has_answered else self._unanswered + 1
        is_hopeless = isinstance(error, AgentStartError) and error.system_code not in RETRYABLE
        if is_hopeless or self._unanswered >= options.give_up_after:
            self._fail(error)
            return
        loop = asyncio.get_running_loop()
        if loop.time() - self._began > options.restart_delay_limit:
            self._delay = options.restart_delay
        logger.warning("%s; restarting it in %g s", error, self._delay)
        self._next_start = loop.call_later(self._delay, self._launch)
        self._delay = min(2 * self._delay, options.restart_delay_limit)
        self._change("restarting", str(error))

    def _fail(self, error: CardReaderError) -> None:
        logger.error("giving up: %s", error)
        self.failure = error
        self._change("failed", str(error))

    def _finish(self) -> None:
        if self._next_start:
            self._next_start.cancel()
        self._change("closed")

    # What the agent reports.

    def _on_reader(self, previous: str | None) -> None:
        name, function = self.name, self._options.on_connect
        self._remove_card()
        self._cancel_connecting()
        if name:
            self._on_answer()
        if previous:
            self._change("searching", f"the reader was {'reconnected' if name else 'disconnected'}")
        if name and not function:
            self._change("ready")
        elif name and function and not self._is_closing:
            self._connecting = asyncio.get_running_loop().create_task(self._connect(function, name))

    async def _connect(self, function: OnConnect, name: str) -> None:
        before = set(self._cancelled)
        if before:  # one at a time
            await asyncio.wait(before, timeout=KILL_TIMEOUT)
        try:
            await function(self)
        except Exception as error:
            logger.warning("the on-connect function failed", exc_info=True)
            self._emit(Log(f"the on-connect function failed: {error}"))
        else:
            if self.name == name and self._connecting is asyncio.current_task():
                self._change("ready")

    def _cancel_connecting(self) -> None:
        if self._connecting and not self._connecting.done():
            self._cancelled.add(self._connecting)
            self._connecting.add_done_callback(self._cancelled.discard)
            self._connecting.cancel()
        self._connecting = None

    def _on_busy(self, is_busy: bool) -> None:
        if is_busy:
            self._card_timer.pause()
        elif self.card:
            self._card_timer.resume()

    def _on_card(self, digits: str) -> None:
        if digits != self.card:
            self._remove_card()
            self.card = digits
            self._emit(Card(digits))
        self._emit(Poll(digits))
        self._card_timer.restart()

    def _remove_card(self) -> None:
        self._card_timer.stop()
        card, self.card = self.card, None
        if card:
            self._emit(CardRemoved(card))

    # What is reported to the application.

    def _change(self, state: StateName, reason: str | None = None) -> None:
        previous = self.state
        if state == previous:
            return
        self.state, self.reason = state, reason
        self._emit(State(state, previous, reason))
        if state in ("failed", "closed"):
            self._emit(self._ending)
        for future, (wanted, result) in list(self._waiters.items()):
            self._settle(future, result, wanted == state)

    def _emit(self, event: Event | CardReaderError | None) -> None:
        for events in list(self._iterations):
            events.queue.put_nowait(event)
