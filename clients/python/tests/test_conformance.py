"""Plays conformance.txt, which says what its lines mean, with `CardReader`."""

import asyncio
import os
import shlex
import signal
import stat
import tempfile
import unittest
from contextlib import suppress
from pathlib import Path

from bench import AGENT, BUNDLE
from card_reader_agent import (
    CardRemoved,
    CardReader,
    CardReaderError,
    Hang,
    Log,
    Poll,
    ReaderFailedError,
    State,
    UnknownSettingsError,
)
from card_reader_agent.testing import VirtualReader, VirtualReaderError

LIST = Path(__file__).resolve().parents[2] / "conformance.txt"
PATIENCE = 20  # seconds for what must come
AT_ONCE = 6  # situations
SIGNALS = {"kill": signal.SIGKILL, "stop": signal.SIGSTOP, "continue": signal.SIGCONT}
SECONDS = {
    "cardRemovedAfter": "card_removed_after",
    "closeTimeout": "close_timeout",
    "commandTimeout": "command_timeout",
    "restartDelay": "restart_delay",
    "restartDelayLimit": "restart_delay_limit",
    "watchdogInterval": "watchdog_interval",
    "watchdogTimeout": "watchdog_timeout",
}


def situations():
    """Yields each one's name and numbered lines."""
    name, lines = "", []
    for number, line in enumerate([*LIST.read_text("utf-8").split("\n"), "## "], 1):
        if line.startswith("## "):
            if lines:
                yield name, lines
            name, lines = line[3:], []
        elif line and line[0] != "#":
            lines.append((number, line))


def programs():
    """What can take the agent's place, by name. All are made before anything is started: a child that
    begins while a file is written has it open too for a moment, and that file can't be run.
    """
    folder = Path(tempfile.mkdtemp())
    actions = {"denied": "", "silent": "exec sleep 600", "dies": "echo no library here >&2; exit 13"}
    for name, action in actions.items():
        (folder / name).write_text(f"#!/bin/sh\n{action}\n")
        (folder / name).chmod(stat.S_IRUSR if name == "denied" else stat.S_IRWXU)
    return {"bundle": BUNDLE, "missing": folder / "missing", **{name: folder / name for name in actions}}


PROGRAMS = programs()


def command(reader, words):
    """The coroutine that a command's words stand for."""
    limit = {}
    if "timeout" in words:
        limit["timeout"] = int(words.pop()) / 1000
        words.pop()
    name, *words = words
    if name == "configure":
        settings = {}
        for word in words:
            path, value = word.split("=")
            kind, setting = path.split(".")
            settings.setdefault(kind, {})[setting] = int(value)
        return reader.configure(settings, **limit)
    if name == "beep":
        return reader.beep(int(words[0]), words[1], **limit)
    if name == "ping":
        return reader.ping(" ".join(words), **limit)
    names = {"led": "set_led", "clearLed": "clear_led", "resetConfig": "reset_config"}
    names["waitForReader"] = "wait_for_reader"
    return getattr(reader, names[name])(*words, **limit)


async def outcome_is(task, told):
    """None if the task has the outcome that was told, or what it was instead."""
    await asyncio.wait({task}, timeout=PATIENCE)
    if not task.done():
        return "nothing"
    if task.cancelled():
        return None if told == "cancelled" else "cancelled"
    error = task.exception()
    if not error:
        came = f"ok {task.result() or ''}".strip()
        return None if came == told else came
    name, _, words = told.partition(" ")
    parts = [str(error)]
    if isinstance(error, ReaderFailedError) and words.lstrip("-").isdigit():
        parts = [str(error.number)] if str(error.number) == words else []
    if isinstance(error, UnknownSettingsError):
        parts = [" ".join(error.names)]
    if type(error).__name__ == name and any(words in part for part in parts):
        return None
    return f"{type(error).__name__} {error}"


def event_is(event, told):
    if isinstance(event, State):
        state, _, reason = told.partition(": ")
        return state == f"state {event.state}" and reason in (event.reason or "")
    if isinstance(event, Hang):
        return told == "hang"
    return told == f"{'cardRemoved' if isinstance(event, CardRemoved) else 'card'} {event.id}"


class Player:
    def __init__(self):
        self.bench = VirtualReader()
        self.path = AGENT
        self.options = {"env": self.bench.env, "stderr": "ignore"}
        self.reader = None
        self.commands = []
        self.events = asyncio.Queue()
        self.logs = asyncio.Queue()
        self.pids = set()

    async def play(self, lines):
        """Yields (line number, line, what came in its place)."""
        for number, line in lines:
            try:
                if came := await self.play_line(*line.partition(" ")[::2]):
                    yield number, line, came
            except asyncio.TimeoutError:
                yield number, line, "nothing"
            except VirtualReaderError as error:
                yield number, line, error
        number += 1
        while not self.events.empty():
            yield number, "the end", self.events.get_nowait()
        for task in self.commands:
            yield number, "the end", await outcome_is(task, "")
        await self.reader.close()
        await self.listener
        for pid in self.pids:
            try:
                os.kill(pid, 0)
                yield number, "no process", pid
            except ProcessLookupError:
                pass
        self.bench.close()

    async def play_line(self, mark, text):
        if self.reader and self.reader.pid:
            self.pids.add(self.reader.pid)
        if mark == "option":
            self.set_option(*text.split(" ", 1))
        elif mark == "agent":
            self.path = PROGRAMS[text]
        elif mark == "!":
            await asyncio.get_running_loop().run_in_executor(None, self.bench.execute, text)
        elif mark == "start":
            self.reader = CardReader(self.path, **self.options)
            self.listener = asyncio.ensure_future(self.listen(self.reader.__aiter__()))
            await self.reader.start()
        elif mark == ">":
            words = text.split(" ") if text.startswith("ping") else shlex.split(text)
            self.commands.append(asyncio.ensure_future(command(self.reader, words)))
            for _ in range(4):  # it is sent
                await asyncio.sleep(0)
        elif mark == "cancel":
            self.commands[0].cancel()
        elif mark == "=":
            return await outcome_is(self.commands.pop(0), text)
        elif mark == "<" and text.startswith("log "):
            while text[4:] not in (await asyncio.wait_for(self.logs.get(), PATIENCE)).text:
                pass
        elif mark == "<":
            event = await asyncio.wait_for(self.events.get(), PATIENCE)
            return None if event_is(event, text) else event
        elif mark in SIGNALS:
            os.kill(self.reader.pid, SIGNALS[mark])
        elif mark == "quiet":
            await asyncio.sleep(int(text) / 1000)
            return None if self.events.empty() else self.events.get_nowait()
        elif mark == "close":
            await self.reader.close()
        else:
            return "no such line"
        return None

    def set_option(self, name, value):
        if name == "onConnect":
            self.options["on_connect"] = lambda reader: command(reader, value.split(" "))
        elif name in SECONDS:
            self.options[SECONDS[name]] = int(value) / 1000
        else:
            names = {"giveUpAfter": ("give_up_after", int), "onHang": ("on_hang", str)}
            key, kind = names[name]
            self.options[key] = kind(value)

    async def listen(self, events):
        while self.reader.state != "closed":
            with suppress(CardReaderError):  # raised when the state is "failed"
                async for event in events:
                    if isinstance(event, Log):
                        self.logs.put_nowait(event)
                    elif not isinstance(event, Poll):
                        self.events.put_nowait(event)


class SituationsTest(unittest.IsolatedAsyncioTestCase):
    async def test_situations(self):
        asyncio.get_running_loop().set_debug(False)
        gate = asyncio.Semaphore(AT_ONCE)

        async def differences(lines):
            async with gate:
                return [difference async for difference in Player().play(lines)]

        only = os.environ.get("SITUATION", "")
        chosen = [(name, lines) for name, lines in situations() if only in name]
        self.assertTrue(chosen)
        results = await asyncio.gather(*(differences(lines) for _, lines in chosen))
        for (name, _), result in zip(chosen, results):
            told = [f"conformance.txt:{n}: {line!r} is told, and came: {came}" for n, line, came in result]
            with self.subTest(name):
                self.assertEqual(told, [])
