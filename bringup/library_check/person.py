"""The person at the terminal."""

import os
import re
import select
import sys
import termios


def write(descriptor, text):
    """Writes all of it, past any buffer. Returns whether that was possible: a terminal may be closed."""
    try:
        data = text.encode()
        while data:
            data = data[os.write(descriptor, data) :]
        return True
    except OSError:
        return False


class Person:
    """Asks questions. Each answer is a word that no card has: a reader may type IDs as a keyboard does."""

    def __init__(self, is_there):
        self.is_there = is_there
        self.is_cancelled = False  # a signal asks the check to end
        self.typed = []  # lines that answer nothing: what a reader types among them
        self.was_asked = False
        self._output = 1
        if is_there and sys.stdin.isatty() and not sys.stdout.isatty():
            try:
                self._output = os.open("/dev/tty", os.O_WRONLY)
            except OSError:
                self._output = 2

    def ask(self, prompt, words):
        """Returns the word, or what a pattern's group matches; or skipped, repeat or interrupted."""
        if not self.is_there:
            return "skipped"
        self.was_asked = True
        if sys.stdin.isatty():
            termios.tcflush(0, termios.TCIFLUSH)  # what was typed before the question
        choices = [*words, "skip", "repeat"]
        names = [re.sub(r"\W.*", " ...", word) for word in choices]
        while True:
            write(self._output, f"? {prompt} [{', '.join(names)}] ")
            line = self._read_line()
            for word in choices:
                match = re.fullmatch(word, line)
                if match or line == word[0]:
                    answer = match.group(match.lastindex or 0) if match else word
                    return "skipped" if answer == "skip" else answer
            if line in ("skipped", "interrupted"):
                return line
            self.typed.append(line)
            write(self._output, "  Expected one of these words. A card's ID here was typed by the reader.\n")

    def _read_line(self):
        """One line in lower case without spaces around; skipped at an end of input."""
        line = b""
        while not line.endswith(b"\n"):
            if self.is_cancelled:
                return "interrupted"
            if select.select([0], [], [], 0.05)[0]:
                byte = os.read(0, 1)
                if not byte:
                    write(self._output, "\n")
                    return "skipped"
                line += byte
        return line.decode(errors="replace").strip().lower()
