"""Timeouts that count only the time in which the event loop ran."""

from __future__ import annotations

import asyncio
import math
from collections.abc import Callable

STEPS = 5
TOLERANCE = 0.05  # seconds by which any step may be late
READ_TIME = 0.001  # seconds; at least one pass of the event loop over its files, on every loop


class Countdown:
    """Calls a function after so many seconds, unless restarted or paused before.

    A step that takes much longer than planned is not counted: the process was suspended or the event
    loop blocked. What has arrived is read before the call. So nobody is blamed for an answer that was
    there in time.
    """

    def __init__(self, seconds: float, function: Callable[[], object]) -> None:
        self._seconds = self._left = seconds
        self._function = function
        self._armed = 0.0
        self._timer: asyncio.TimerHandle | None = None

    def restart(self) -> None:
        self.stop()
        self._left = self._seconds
        self.resume()

    def resume(self) -> None:
        if not self._timer and self._left != math.inf:
            loop = asyncio.get_running_loop()
            self._armed = loop.time()
            step = min(self._seconds / STEPS, self._left)
            self._timer = loop.call_later(max(step, READ_TIME), self._tick)

    def pause(self) -> None:
        if self._timer:
            self.stop()
            elapsed = asyncio.get_running_loop().time() - self._armed
            if elapsed <= 2 * self._seconds / STEPS + TOLERANCE:
                self._left -= elapsed

    def stop(self) -> None:
        if self._timer:
            self._timer.cancel()
            self._timer = None

    def _tick(self) -> None:
        if self._left <= 0:  # the last step was for reading
            self.stop()
            self._function()
        else:
            self.pause()
            self.resume()
