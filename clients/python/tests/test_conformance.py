"""Plays conformance.txt and lines.txt, which describe their own format, with `CardReader`."""

import asyncio
import errno
import math
import os
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import unittest
from contextlib import suppress
from pathlib import Path
from unittest import mock

import card_reader_agent
from bench import AGENT, BUNDLE, ends, script
from card_reader_agent import CardReader, CardReaderError, CardRemoved, Log, Poll, State
from card_reader_agent.testing import VirtualReader, VirtualReaderError

CLIENTS = Path(__file__).resolve().parents[2]
TIMEOUT = 20  # seconds, for what must happen
AT_ONCE = 6  # cases
SIGNALS = {"kill": signal.SIGKILL, "stop": signal.SIGSTOP}
AGENTS = {  # shell scripts in place of the agent
    "denied": "",
    "silent": "exec sleep 600",
    "dies": "echo no library here >&2; exit 13",
    "global": "echo 'Reader: Global'; echo no library here >&2; exit 13",
    "leaves": "sleep 20 & echo 'Reader: Dev1-A'; exec sleep 600",
}
# Answers the first ping and its token, then prints the lines of the file $1.
PRINTS = 'read -r ping; echo Ok:; read -r token; echo "Ok: ${token#*Ping}"; cat "$1"; read -r end'
# Answers each command to a reader with the next line of the file $1, in which "\n" is a newline.
ANSWERS = r"""echo 'Reader: Dev1-A'; exec 3<"$1"; while read -r line; do case $line in
Global:Ping) echo Ok:;; Global:*) echo "Ok: ${line#*Ping}";; *) IFS= read -r answer <&3; printf '%b\n' "$answer";; esac; done"""


def sections(name):
    """Yields each section's name and its numbered lines."""
    title, lines = "", []
    for number, line in enumerate([*(CLIENTS / name).read_text("utf-8").split("\n"), "## "], 1):
        if line.startswith("## "):
            if lines:
                yield title, lines
            title, lines = line[3:], []
        elif line and line[0] != "#":
            lines.append((number, line))


def rows(wanted):
    """The rows of a section of lines.txt: number, left, right."""
    [lines] = [lines for name, lines in sections("lines.txt") if name == wanted]
    return [(number, *map(str.strip, line.split("=>", 1))) for number, line in lines]


def data_file(lines):
    path = Path(tempfile.mkdtemp()) / "lines"
    path.write_bytes(b"".join(line + b"\n" for line in lines))
    return path


def unescape(text):
    codes = {"n": b"\n", "0": b"\0", "s": b" "}
    pattern = rb"\\(?:x(..)|([n0s]))"
    return re.sub(pattern, lambda m: bytes([int(m[1], 16)]) if m[1] else codes[m[2].decode()], text.encode())


def snake(name):
    return re.sub("[A-Z]", lambda letter: "_" + letter[0].lower(), name)


def option(name, text):
    """The option and its value in Python's spelling and units."""
    if name == "noSuchOption":
        return name, 1
    words = {"infinity": math.inf, "nan": math.nan, "none": None, "true": True, "[1]": [1]}
    if text in words or text[0] == '"':
        return snake(name), words.get(text, text.strip('"'))
    in_ms = name not in ("giveUpAfter", "onConnect", "stderr", "trace")
    return snake(name), float(text) / 1000 if in_ms else float(text)


def command(reader, words):
    """The awaitable that a command's words stand for; it is sent."""
    timeout = {}
    if "timeout" in words[:-1]:
        timeout["timeout"] = float(words.pop()) / 1000
        words.pop()
    name, *words = words
    if name == "configure":
        settings = {}
        for word in words:
            path, value = word.rsplit("=", 1)
            kind, setting = path.rsplit(".", 1)
            settings.setdefault(kind, {})[setting] = float(value) if "." in value else int(value)
        return reader.configure(settings, **timeout)
    if name == "ping":
        return reader.ping(" ".join(words), **timeout)
    if name == "beep":
        return reader.beep(int(words[0]), words[1], **timeout)
    if name == "waitForConnection":
        return asyncio.ensure_future(connection(reader, reader.wait_for_connection(**timeout)))
    return getattr(reader, "set_led" if name == "led" else snake(name))(*words, **timeout)


async def connection(reader, name):
    if await name != reader.name:
        raise AssertionError("another name than the reader's")


async def difference_of(future, expected):
    """None if the future has the expected outcome, or the outcome it has."""
    await asyncio.wait({future}, timeout=TIMEOUT)
    if not future.done() or future.cancelled():
        outcome = "cancelled" if future.done() else "nothing"
        return None if outcome == expected else outcome
    if not (error := future.exception()):
        outcome = f"ok {future.result() or ''}".strip()
        return None if outcome == expected else outcome
    name, _, words = expected.partition(" ")
    text = " ".join(getattr(error, "names", [])) or str(error)
    is_same = words in text
    if re.fullmatch(r"-?\d+", words):
        is_same = words == str(getattr(error, "number", None))
    return None if is_same and type(error).__name__ == name else f"{type(error).__name__} {text}"


def text_of(event):
    if isinstance(event, State):
        return f"state {event.state}: {event.reason}"
    if isinstance(event, Log):
        return f"log {event.text}"
    name = type(event).__name__
    return f"{name[0].lower()}{name[1:]} {event.id}"


class Player:
    def __init__(self, scripts):
        self.bench = VirtualReader()
        self.scripts = scripts
        self.path = AGENT
        self.options = {"env": self.bench.env, "stderr": "ignore"}
        self.reader = None
        self.commands = []
        self.background = []
        self.events, self.logs = asyncio.Queue(), asyncio.Queue()
        self.pids = set()

    async def play(self, lines):
        """The lines that were not met, each with what occurred instead."""
        differences = []
        for number, line in lines:
            try:
                difference = await self.play_line(*line.partition(" ")[::2])
            except asyncio.TimeoutError:
                difference = "nothing"
            except VirtualReaderError as error:
                difference = error
            differences += [(number, line, difference)] if difference else []
        for task in self.background:
            task.cancel()
        left = [self.events.get_nowait() for _ in range(self.events.qsize())] + self.commands
        await self.reader.close()
        await self.listener
        left += [f"process {pid}" for pid in self.pids if not ends(pid, 1)]
        self.bench.close()
        return differences + [(number, "the end", each) for each in left]

    async def play_line(self, mark, text):
        if self.reader and self.reader.pid:
            self.pids.add(self.reader.pid)
        if mark == "option" and text.startswith("onConnect "):
            self.on_connect = text.split(" ", 1)[1].split("; ")
            self.options["on_connect"] = self.connect
        elif mark == "option":
            name, value = option(*text.split(" ", 1))
            self.options[name] = value
        elif mark == "agent":
            self.path = self.scripts.get(text)
        elif mark == "!":
            await asyncio.get_running_loop().run_in_executor(None, self.bench.execute, text)
        elif mark == "start":
            self.reader = CardReader(self.path, **self.options)
            self.listener = asyncio.ensure_future(self.listen(self.reader.__aiter__()))
            self.reader.start()
        elif mark == ">":
            words = text.split(" ") if text.startswith("ping") else shlex.split(text)
            self.commands.append(command(self.reader, words))
        elif mark == "every":
            self.background.append(asyncio.ensure_future(self.repeat(*text.split(" ", 1))))
        elif mark == "cancel":
            self.commands[0].cancel()
        elif mark == "=":
            return await difference_of(self.commands.pop(0), text)
        elif mark == "<" and text.startswith("log "):
            while text[4:] not in (await asyncio.wait_for(self.logs.get(), TIMEOUT)).text:
                pass
        elif mark == "<":
            event = text_of(await asyncio.wait_for(self.events.get(), TIMEOUT))
            start, _, part = text.partition(": ")
            return None if re.match(f"{start}(:|$)", event) and part in event else event
        elif mark == "reason":
            reason = self.reader.reason or ""
            return None if text in reason and bool(text) == bool(reason) else f"reason {reason}"
        elif mark in SIGNALS:
            os.kill(self.reader.pid, SIGNALS[mark])
        elif mark == "suspend":
            pids = f"{os.getpid()} {self.reader.pid}"
            subprocess.Popen(["sh", "-c", f"kill -STOP {pids}; sleep {int(text) / 1000}; kill -CONT {pids}"]).wait()
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
            words = step.split(" ")
            await (asyncio.sleep(int(words[1]) / 1000) if words[0] == "pause" else command(reader, words))

    async def repeat(self, ms, text):
        while True:
            with suppress(CardReaderError):
                await command(self.reader, text.split(" "))
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
        scripts = {name: script(text, 0o400 if name == "denied" else 0o700) for name, text in AGENTS.items()}
        scripts.update(bundle=BUNDLE, missing=Path(tempfile.mkdtemp()) / "missing")
        gate = asyncio.Semaphore(AT_ONCE)

        async def play(lines):
            async with gate:
                return await Player(scripts).play(lines)

        only = os.environ.get("CASE", "")
        cases = [(name, lines) for name, lines in sections("conformance.txt") if only in name]
        self.assertTrue(cases)
        alone = [case for case in cases if "suspend" in str(case)]  # it stops this process
        together = [case for case in cases if case not in alone]
        results = await asyncio.gather(*(play(lines) for _, lines in together))
        for _, lines in alone:
            results.append(await play(lines))
        for (name, _), result in zip(together + alone, results):
            with self.subTest(name):
                self.assertEqual([f"line {n}: {line!r}, but: {other}" for n, line, other in result], [])



class LinesTest(unittest.IsolatedAsyncioTestCase):
    async def asyncSetUp(self):
        asyncio.get_running_loop().set_debug(False)

    async def start(self, path, **options):
        reader = CardReader(path, stderr="ignore", close_timeout=0.1, **options)
        self.addAsyncCleanup(reader.close)
        events = reader.__aiter__()
        reader.start()
        return reader, events

    async def test_lines(self):
        table = rows("lines")
        output = data_file([*(unescape(left) for _, left, _ in table), b"Log: the end"])
        reader, events = await self.start(script(f"set -- {output}; {PRINTS}"), card_removed_after=3600)
        expected = [unescape(each) for _, _, right in table for each in right.split("; ") if each]
        seen = []
        while True:
            event = await asyncio.wait_for(events.__anext__(), TIMEOUT)
            if event == Log("the end"):
                break
            if not isinstance(event, State):
                seen.append(text_of(event).encode(errors="surrogateescape"))
        self.assertEqual(seen, expected)

    async def test_answers(self):
        table = rows("answers")
        answers = data_file(left.encode() for _, left, _ in table)
        reader, _ = await self.start(script(f"set -- {answers}; {ANSWERS}"))
        await reader.wait_for("ready", timeout=TIMEOUT)
        outcomes = [await difference_of(reader.clear_led(), right) for _, _, right in table]
        different = [(row, outcome) for row, outcome in zip(table, outcomes) if outcome]
        self.assertEqual(different, [])

    async def test_arguments(self):
        trace = []
        reader, _ = await self.start(AGENT, trace=lambda *line: trace.append(line[1:]))
        await reader.wait_for("searching", timeout=TIMEOUT)
        sent = [line for line in trace if line[0] == ">"]
        for number, left, right in rows("arguments"):
            with self.subTest(f"lines.txt:{number}"):
                with self.assertRaises((ValueError, TypeError)) as refused:
                    command(reader, spaced(left))
                self.assertIn(right, str(refused.exception))
        await asyncio.sleep(0)
        self.assertEqual([line for line in trace if line[0] == ">"], sent)

    def test_options(self):
        for number, left, right in rows("options"):
            with self.subTest(f"lines.txt:{number}: {left}"):
                name, value = option(*left.split(" ", 1))
                if right == "ok":
                    CardReader("agent", **{name: value})
                    continue
                with self.assertRaises((ValueError, TypeError)) as refused:
                    CardReader("agent", **{name: value})
                part = str(value) if re.fullmatch(r"-?\d+", right) else right
                self.assertIn(snake(part) if part != name else part, str(refused.exception))
                self.assertIn(name, str(refused.exception))

    def test_errors(self):
        for _, name, code in rows("errors"):
            self.assertEqual(getattr(card_reader_agent, name).code, code)
        self.assertTrue(issubclass(card_reader_agent.CommandTimeoutError, TimeoutError))

    async def test_start_errors(self):
        for number, code, state in rows("start errors"):
            error = OSError(getattr(errno, code), "")
            with self.subTest(code), mock.patch("subprocess.Popen", side_effect=error):
                reader, events = await self.start("agent")
                self.assertEqual((await events.__anext__()).state, state)
                self.assertIn(code, reader.reason)


def spaced(text):
    """The words of a command in which \\s is a space within a word."""
    return [unescape(word).decode() for word in text.split(" ")]
