#!/usr/bin/env python3
"""Plays transcripts: sessions of an application with the agent, line by line.

    tests/transcripts/run_transcripts.py BUILD_DIR FILE...

    > a line that the application sends   ! a verb for the virtual reader
    < the next line of the agent          = the next line that the virtual reader prints

BUILD_DIR holds virtual-reader and the agent; AGENT in the environment names another agent. Verbs at
a transcript's start come before the agent's. If a transcript tells of the virtual reader's lines, it
tells of all. Dev1, Dev2 ... stand for the first names of a run. Control characters and what is no
UTF-8 are written like \\x0B and \\xFF. At its end the application closes the agent's input, and the
agent must end well without another line.

A text file holds transcripts with blank lines between them, and comments that begin with '#'; a
Markdown page has them in its ```transcript blocks.
"""
import os
import queue
import re
import signal
import subprocess
import sys
import tempfile
import threading
from pathlib import Path

PATIENCE = 20  # seconds for a line that must come
DONE = "= -- done"  # what the virtual reader prints when it has executed all verbs so far


def escaped(line):
    text = line.rstrip(b"\n").decode(errors="backslashreplace")
    return re.sub(r"[\0-\x1F]", lambda c: f"\\x{ord(c[0]):02x}", text)


def unescaped(text):
    return re.sub(rb"\\x(..)", lambda code: bytes.fromhex(code[1].decode()), text.encode())


def numbered(text, offset):
    return re.sub(r"\bDev(\d+)", lambda name: f"Dev{int(name[1]) + offset}", text)


class Program:
    def __init__(self, path, environment):
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE}
        self.process = subprocess.Popen([path], env=environment, **pipes)
        self.lines = queue.Queue()
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.process.stdout:
            self.lines.put(escaped(line))
        self.lines.put("(end)")

    def send(self, line):
        self.process.stdin.write(line + b"\n")
        self.process.stdin.flush()

    def next(self):
        try:
            return self.lines.get(timeout=PATIENCE)
        except queue.Empty:
            return "(nothing)"


def play(build, lines, environment):
    """Yields (line number, what was expected, what was got) wherever the two differ."""
    reader = Program(f"{build}/virtual-reader", environment)
    agent = None
    printed = []  # by the virtual reader
    base = 0  # the number before that of the run's first name

    def execute(verb):
        reader.send(verb.encode() + b'\necho "-- done"')
        while (got := reader.next()) != DONE:
            if got in ("(nothing)", "(end)"):
                raise RuntimeError(f"the virtual reader has not executed: {verb}")
            printed.append(got)

    execute("")
    for number, line in lines:
        mark, text = line[:1], line[2:]
        if mark != "!" and not agent:
            bundled = f"{build}/CardReaderAgent.app/Contents/MacOS/card-reader-agent"
            agent = Program(os.environ.get("AGENT", bundled), environment)
        got = text
        if mark == "!":
            execute(text)
        elif mark == ">":
            agent.send(unescaped(numbered(text, base)))
        elif mark == "<":
            got = agent.next()
            if not base and (name := re.match(r"Reader: Dev(\d+)", got)):
                base = int(name[1]) - 1
            got = numbered(got, -base)
        elif mark == "=":
            got = printed.pop(0) if printed else reader.next()
        else:
            got = "(unknown mark)"
        if got != text:
            yield number, line, got
    if any(line.startswith("=") for _, line in lines):
        execute("")
        for line in printed:
            yield number, "(nothing more)", line
    for program in agent, reader:
        program.process.stdin.close()
        while (got := program.next()) != "(end)" and program.process.poll() != -signal.SIGKILL:
            if program is agent:
                yield number, "(the end)", got
            if got == "(nothing)":
                program.process.kill()
        if program.process.wait() != 0:
            yield number, "(a good end)", f"status {program.process.returncode}"


def transcripts(path):
    """Yields every transcript of a file: its numbered lines."""
    wanted = not path.endswith(".md")
    lines = []
    for number, line in enumerate([*Path(path).read_text("utf-8").split("\n"), ""], 1):
        if line.startswith("```"):
            wanted = line == "```transcript"
        elif wanted and line and line[0] != "#":
            lines.append((number, line))
        if lines and (not line or not wanted):
            yield lines
            lines = []


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    played = failed = 0
    for path in sys.argv[2:]:
        for lines in transcripts(path):
            with tempfile.TemporaryDirectory() as folder:
                environment = {**os.environ, "VIRTUAL_READER_SOCKET": f"{folder}/socket"}
                differences = [*play(sys.argv[1], lines, environment)]
            for number, expected, got in differences:
                print(f"{path}:{number}: expected {expected!r}, got {got!r}")
            played += 1
            failed += bool(differences)
    print(f"{played} transcripts, {failed} failed")
    sys.exit(1 if failed or not played else 0)


if __name__ == "__main__":
    main()
