"""The person at the terminal."""

import os
import re
import select
import sys
import termios

from .parent import Interrupted, Repeat

TICK = 0.05
LIKE_A_CARD = re.compile(r"[0-9A-Fa-f][0-9A-Fa-f:;,. -]{3,}")


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

    def __init__(self, is_there, is_cancelled):
        self.is_there, self._is_cancelled = is_there, is_cancelled
        self.typed = []  # lines that look like a card's ID
        self.was_asked = False
        self._output = 1
        if is_there and sys.stdin.isatty() and not sys.stdout.isatty():
            try:
                self._output = os.open("/dev/tty", os.O_WRONLY)
            except OSError:
                self._output = 2

    def ask(self, prompt, words):
        """Returns the word, or what a pattern with a group holds; None if the step is skipped."""
        if not self.is_there:
            return None
        self.was_asked = True
        if sys.stdin.isatty():
            termios.tcflush(0, termios.TCIFLUSH)  # what was typed before the question
        names = [re.sub(r"\W.*", " ...", word) for word in words]
        while True:
            write(self._output, f"? {prompt} [{', '.join([*names, 'skip', 'repeat'])}] ")
            line = self._read_line()
            if line in (None, "s", "skip"):
                return None
            if line in ("r", "repeat"):
                raise Repeat()
            for word in words:
                match = re.fullmatch(word, line)
                if match or line == word[0]:
                    return match.group(match.lastindex or 0) if match else word
            if LIKE_A_CARD.fullmatch(line):
                self.typed.append(line)
                write(self._output, "  This looks like a card's ID: the reader types as a keyboard does.\n")

    def _read_line(self):
        """One line in lower case without spaces around; None at the end of input."""
        line = b""
        while not line.endswith(b"\n"):
            if self._is_cancelled():
                raise Interrupted()
            if select.select([0], [], [], TICK)[0]:
                byte = os.read(0, 1)
                if not byte:
                    write(self._output, "\n")
                    return None
                line += byte
        return line.decode(errors="replace").strip().lower()
