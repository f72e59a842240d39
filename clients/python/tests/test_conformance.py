"""Plays conformance.txt and lines.txt, which describe their own format, with `CardReader`."""

import asyncio
import errno
import json
import math
import os
import re
import signal
import subprocess
import unittest
from contextlib import suppress
from unittest import mock

import card_reader_agent
from bench import AGENT, BUNDLE, PACKAGE, data_file, ends, script
from card_reader_agent import CardReader, CardReaderError, Log, Poll, State
from card_reader_agent.testing import AsyncVirtualReader, VirtualReaderError

TIMEOUT = 20  # seconds, for what must happen
AT_ONCE = 6  # cases
VALUES = {"infinity": math.inf, "nan": math.nan, "none": None, "true": True, "[1]": [1]}
UNITS = {"giveUpAfter": 1}  # others are times in milliseconds
AGENTS = {  # shell scripts in place of the agent
    "silent": "exec sleep 600",
    "dies": "echo no library here >&2; exit 13",
    "global": "echo 'Reader: Global'; echo no library here >&2; exit 13",
    "leaves": "sleep 20 & echo 'Reader: Dev1-A'; exec sleep 600",
}
# Prints the file $1 after its first answer, and answers each command to a reader with the next line of the
# file $2, in which "\n" is a newline.
PLAYER = r"""exec 3<"$2"; while read -r line; do case $line in
Global:Ping) echo Ok: ;;
Global:*) echo "Ok: ${line#*Ping}"; [ ! "$1" ] || cat "$1"; set -- "" ;;
*) IFS= read -r answer <&3; printf '%b\n' "$answer" ;;
esac; done"""


def sections(name):
    """The numbered lines of each section."""
    found = {}
    for number, line in enumerate((PACKAGE.parent / name).read_text("utf-8").split("\n"), 1):
        if line.startswith("## "):
            lines = found.setdefault(line[3:], [])
        elif line and line[0] != "#":
            lines.append((number, line))
    return found


TABLES = {
    name: [tuple(map(str.strip, line.split("=>", 1))) for _, line in lines]
    for name, lines in sections("lines.txt").items()
}


def unescape(text):
    """The text with bytes in place of its escapes."""
    return text.replace(r"\s", " ").encode().decode("unicode_escape").encode("latin-1")


def snake(name):
    return re.sub("[A-Z]", lambda letter: "_" + letter[0].lower(), name)


def option(text):
    """The option and its value, in Python's spelling and units."""
    name, text = text.split(" ", 1)
    if text in VALUES or text[0] == '"':
        return {snake(name): VALUES.get(text, text.strip('"'))}
    return {snake(name): float(text) / UNITS.get(name, 1000)}


def command(reader, text):
    """The awaitable that a command stands for; it is sent."""
    text, _, timeout = text.partition(" timeout ")
    limits = {"timeout": float(timeout) / 1000} if timeout else {}
    name, *words = (unescape(word).decode() for word in text.split(" "))
    if name == "configure":
        settings = {}
        for kind, setting, value in (re.fullmatch(r"(.*)\.(.*?)=(.+)", word).groups() for word in words):
            settings.setdefault(kind, {})[setting] = json.loads(value)
        words = [settings]
    elif name == "ping":
        words = [" ".join(words)]
    elif name == "beep":
        words[0] = int(words[0])
    return getattr(reader, "set_led" if name == "led" else snake(name))(*words, **limits)


async def difference(future, expected, reader):
    """None if the future has the expected outcome, or the outcome it has."""
    name, _, words = expected.partition(" ")
    await asyncio.wait({future}, timeout=TIMEOUT)
    if not future.done() or future.cancelled():
        outcome, is_same = ("cancelled" if future.done() else "nothing"), True
    elif error := future.exception():
        text = " ".join(getattr(error, "names", [])) or str(error)
        number = str(getattr(error, "number", ""))
        outcome, is_same = f"{type(error).__name__} {text}", words == number if words[-1:].isdigit() else words in text
    else:
        outcome, is_same = f"ok {future.result()}", future.result() in (words, words or None, reader.name)
    return None if is_same and outcome.partition(" ")[0] == name else outcome


def text_of(event):
    if isinstance(event, State):
        return f"state {event.state}: {event.reason}"
    name = type(event).__name__
    return f"{name[0].lower()}{name[1:]} {event.text if isinstance(event, Log) else event.id}"


class Player:
    def __init__(self, scripts):
        self.bench = AsyncVirtualReader()
        self.scripts, self.path = scripts, AGENT
        self.options = {"env": self.bench.env, "stderr": "ignore"}
        self.reader = None
        self.commands, self.background, self.pids = [], [], set()
        self.events, self.logs = asyncio.Queue(), asyncio.Queue()

    async def play(self, lines):
        differences = []
        for number, line in lines:
            try:
                other = await self.play_line(*line.partition(" ")[::2])
            except (asyncio.TimeoutError, VirtualReaderError) as error:
                other = error
            differences += [f"line {number}: {line!r}, but: {other!r}"] if other is not None else []
        for task in self.background:
            task.cancel()
        left = [self.events.get_nowait() for _ in range(self.events.qsize())] + self.commands
        await self.reader.close()
        await self.listener
        await self.bench.close()
        left += [f"process {pid}" for pid in self.pids if not ends(pid, 1)]
        return differences + [f"line {lines[-1][0]}: left over: {each}" for each in left]

    async def play_line(self, mark, text):
        if self.reader and self.reader.pid:
            self.pids.add(self.reader.pid)
        if text.startswith("onConnect "):
            self.options["on_connect"] = self.connect
            self.on_connect = text.split(" ", 1)[1].split("; ")
        elif mark == "option":
            self.options.update(option(text))
        elif mark == "agent":
            self.path = self.scripts[text]
        elif mark == "!":
            await self.bench.execute(text)
        elif mark == "start":
            self.reader = CardReader(self.path, **self.options)
            self.listener = asyncio.ensure_future(self.listen(self.reader.__aiter__()))
            self.reader.start()
        elif mark == ">":
            self.commands.append(command(self.reader, text))
        elif mark == "every":
            self.background.append(asyncio.ensure_future(self.repeat(*text.split(" ", 1))))
        elif mark == "cancel":
            self.commands[0].cancel()
        elif mark == "=":
            return await difference(self.commands.pop(0), text, self.reader)
        elif text.startswith("log "):
            while text[4:] not in (await asyncio.wait_for(self.logs.get(), TIMEOUT)).text:
                pass
        elif mark == "<":
            event = text_of(await asyncio.wait_for(self.events.get(), TIMEOUT))
            start, _, part = text.partition(": ")
            return None if event.partition(":")[0] == start and part in event else event
        elif mark == "reason":
            reason = self.reader.reason or ""
            return None if text in reason and bool(text) == bool(reason) else reason
        elif mark in ("kill", "stop"):
            os.kill(self.reader.pid, getattr(signal, f"SIG{mark.upper()}"))
        elif mark == "suspend":
            pids = f"{os.getpid()} {self.reader.pid}"
            subprocess.run(["sh", "-c", f"kill -STOP {pids}; sleep {int(text) / 1000}; kill -CONT {pids}"])
        elif mark == "quiet":
            await asyncio.sleep(int(text) / 1000)
            return None if self.events.empty() else self.events.get_nowait()
        elif mark == "close":
            await asyncio.wait_for(self.reader.close(), 5)
        else:
            return "no such line"
        return None

    async def connect(self, reader):
        for step in self.on_connect:
            is_pause = step.startswith("pause ")
            await (asyncio.sleep(int(step[6:]) / 1000) if is_pause else command(reader, step))

    async def repeat(self, ms, text):
        while True:
            with suppress(CardReaderError):
                await command(self.reader, text)
            await asyncio.sleep(int(ms) / 1000)

    async def listen(self, events):
        while self.reader.state != "closed":
            with suppress(CardReaderError):  # raised when the state becomes "failed"
                async for event in events:
                    if not isinstance(event, Poll):
                        (self.logs if isinstance(event, Log) else self.events).put_nowait(event)


class ConformanceTest(unittest.IsolatedAsyncioTestCase):
    async def asyncSetUp(self):
        asyncio.get_running_loop().set_debug(False)

    async def test_cases(self):
        # Made before anything is started: a child process that begins while a file is written holds it
        # open for a moment, and it cannot be executed.
        scripts = {name: script(text) for name, text in AGENTS.items()}
        scripts |= {"bundle": BUNDLE, "missing": "/nowhere/agent", "denied": script("", 0o400)}
        gate = asyncio.Semaphore(AT_ONCE)

        async def play(lines):
            async with gate:
                return await Player(scripts).play(lines)

        only = os.environ.get("CASE", "")
        cases = {name: lines for name, lines in sections("conformance.txt").items() if only in name}
        alone = [name for name in cases if "suspended" in name]  # they stop this process
        results = await asyncio.gather(*(play(lines) for name, lines in cases.items() if name not in alone))
        for name in alone:
            results.append(await play(cases[name]))
        self.assertTrue(cases)
        self.assertEqual(sum(results, []), [])


class LinesTest(unittest.IsolatedAsyncioTestCase):
    async def test_lines_and_answers(self):
        lines = data_file([*(unescape(line) for line, _ in TABLES["lines"]), b"Log: the end"])
        answers = data_file(answer.encode() for answer, _ in TABLES["answers"])
        path = script(f"set -- {lines} {answers}; {PLAYER}")
        seen = []
        async with CardReader(path, card_removed_after=3600) as reader:
            async for event in reader:
                if event == Log("the end"):
                    break
                seen += [] if isinstance(event, State) else [text_of(event).encode(errors="surrogateescape")]
            outcomes = [await difference(reader.clear_led(), outcome, reader) for _, outcome in TABLES["answers"]]
        expected = [unescape(each) for _, events in TABLES["lines"] for each in events.split("; ") if each]
        self.assertEqual(seen, expected)
        self.assertEqual([row for row in zip(TABLES["answers"], outcomes) if row[1]], [])

    async def test_wrong_arguments_are_refused_and_not_sent(self):
        marks = []
        async with CardReader(AGENT, trace=lambda _, mark, line: marks.append(mark), stderr="ignore") as reader:
            await reader.wait_for("searching", timeout=TIMEOUT)
            sent = marks.count(">")
            for line, part in TABLES["arguments"]:
                with self.subTest(line), self.assertRaisesRegex((ValueError, TypeError), re.escape(part)):
                    command(reader, line)
            self.assertEqual(marks.count(">"), sent)

    async def test_options_errors_and_start_errors(self):
        for line, part in TABLES["options"]:
            with self.subTest(line):
                [(name, value)] = option(line).items()
                if part == "ok":
                    CardReader("agent", **{name: value})
                    continue
                with self.assertRaises((ValueError, TypeError)) as refused:
                    CardReader("agent", **{name: value})
                part = str(value) if part.lstrip("-").isdigit() else snake(part)
                self.assertIn(part, str(refused.exception))
                self.assertIn(name, str(refused.exception))
        for name, code in TABLES["errors"]:
            self.assertEqual(getattr(card_reader_agent, name).code, code)
        self.assertTrue(issubclass(card_reader_agent.CommandTimeoutError, TimeoutError))
        for code, state in TABLES["start errors"]:
            with mock.patch("subprocess.Popen", side_effect=OSError(getattr(errno, code), "")):
                async with CardReader("agent") as reader:
                    await reader.wait_for(state, timeout=TIMEOUT)
                    self.assertIn(code, reader.reason)
