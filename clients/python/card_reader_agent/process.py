"""The agent's process and its pipes: lines in, lines out, and an exit that is always noticed."""

from __future__ import annotations

import asyncio
import codecs
import os
import subprocess
import threading
import weakref
from collections.abc import Mapping
from contextlib import suppress
from typing import IO, Any, Protocol

CHUNK = 65536
LAST_CHUNKS = 32  # more than a pipe holds; another process may write on

_processes: weakref.WeakSet[Process] = weakref.WeakSet()


def _release_in_forked_process() -> None:
    """A process forked off ours must not hold the agent's pipes open, or the agent would never see the
    end of its input. Their numbers stay in use, since objects forked along may close them once more.
    """
    null = os.open(os.devnull, os.O_RDWR)
    for process in list(_processes):
        for file in process.files:
            with suppress(OSError, ValueError):  # it is closed
                os.dup2(null, file.fileno(), inheritable=False)
    os.close(null)


os.register_at_fork(after_in_child=_release_in_forked_process)


class Owner(Protocol):
    def take_line(self, line: str) -> None: ...
    def take_error(self, text: str) -> None: ...
    def output_ended(self) -> None: ...
    def exited(self, status: int | None) -> None: ...


class Process:
    """A running agent, in a session of its own: a Ctrl-C in the terminal is for the application.

    Uses nothing of the event loop but watched descriptors, so that it works on any. Raises OSError or
    ValueError if the agent cannot be started.
    """

    def __init__(self, path: str, env: Mapping[str, str] | None, owner: Owner) -> None:
        self._loop = asyncio.get_running_loop()
        self._owner = owner
        self._output = bytearray()
        self._is_closing = False
        self._partial: list[bytes] = []  # the pieces of the line that is not complete yet
        self._decoder = codecs.getincrementaldecoder("utf-8")("replace")
        pipe = subprocess.PIPE
        self._popen = subprocess.Popen(
            [path], bufsize=0, stdin=pipe, stdout=pipe, stderr=pipe, env=env, start_new_session=True
        )
        assert self._popen.stdin and self._popen.stdout and self._popen.stderr
        self.pid = self._popen.pid
        self._stdin = self._popen.stdin
        self._outputs = [self._popen.stdout, self._popen.stderr]
        self.files = [self._stdin, *self._outputs]
        _processes.add(self)
        for file in self.files:
            os.set_blocking(file.fileno(), False)
        for file in self._outputs:
            self._loop.add_reader(file.fileno(), self._read, file)
        exited = weakref.WeakMethod(self._exited)
        threading.Thread(target=_wait, args=(self._popen, self._loop, exited), daemon=True).start()

    def write(self, data: bytes) -> None:
        """What is written in one turn of the event loop goes out together."""
        if not self._output:
            self._loop.call_soon(self._flush)
        self._output += data

    def close_input(self) -> None:
        """Close the agent's standard input once all is written."""
        self._is_closing = True
        self._flush()

    def kill(self) -> None:
        self._popen.kill()

    def release(self) -> None:
        for file in self.files:
            self._close(file)

    def _flush(self) -> None:
        if self._stdin.closed:
            return
        try:
            del self._output[: os.write(self._stdin.fileno(), self._output)]
        except BlockingIOError:
            pass
        except OSError:  # the agent has exited, which is noticed elsewhere
            self._output.clear()
        if self._output:
            self._loop.add_writer(self._stdin.fileno(), self._flush)
        else:
            self._loop.remove_writer(self._stdin.fileno())
            if self._is_closing:
                self._stdin.close()

    def _close(self, file: IO[bytes]) -> None:
        if not file.closed:
            self._loop.remove_reader(file.fileno())
            self._loop.remove_writer(file.fileno())
            file.close()

    def _read(self, file: IO[bytes]) -> bool:
        """Whether there may be more."""
        if file.closed:
            return False
        try:
            data = os.read(file.fileno(), CHUNK)
        except BlockingIOError:
            return False
        except OSError:
            data = b""
        if not data:
            self._close(file)
            if file is self._popen.stdout:
                self._owner.output_ended()
        elif file is self._popen.stdout:
            self._take_output(data)
        else:
            self._owner.take_error(self._decoder.decode(data))
        return bool(data)

    def _take_output(self, data: bytes) -> None:
        head, *lines = data.split(b"\n")
        self._partial.append(head)
        for line in lines:  # each follows a newline, so that the one before is complete
            self._owner.take_line(b"".join(self._partial).decode(errors="surrogateescape"))
            self._partial = [line]

    def _exited(self) -> None:
        for file in self._outputs:
            for _ in range(LAST_CHUNKS):  # it has written all by now, though others may hold the pipe
                if not self._read(file):
                    break
        self._owner.exited(self._popen.returncode)


def _wait(popen: subprocess.Popen[bytes], loop: asyncio.AbstractEventLoop, exited: weakref.WeakMethod[Any]) -> None:
    popen.wait()
    if method := exited():
        with suppress(RuntimeError):  # the loop is closed
            loop.call_soon_threadsafe(method)
