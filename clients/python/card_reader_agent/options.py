"""The options of a `CardReader`, checked when it is made."""

from __future__ import annotations

import math
import os
from collections.abc import Awaitable, Callable, Mapping
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

from .agent import StandardError, Trace

if TYPE_CHECKING:
    from .reader import CardReader


def check_number(
    name: str,
    value: object,
    least: float,
    *,
    most: float = 1e9,
    above: bool = False,
    kind: str = "number",
) -> None:
    """Raises TypeError or ValueError unless the value is a number in the range."""
    expected = f"expected a {kind} {'above' if above else 'of at least'} {least:g}"
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise TypeError(f"invalid {name}: {expected}, got {value!r}")
    if not (least < value if above else least <= value) or not value <= most:
        raise ValueError(f"invalid {name}: {expected}, got {value!r}")


def check_timeout(name: str, value: object) -> None:
    """A timeout in seconds; None or math.inf is none."""
    if value is not None:
        check_number(name, value, 0, most=math.inf, above=True)


@dataclass(frozen=True)
class Options:
    path: str | os.PathLike[str]
    env: Mapping[str, str] | None
    restart_delay: float
    restart_delay_limit: float
    give_up_after: float
    command_timeout: float | None
    watchdog_interval: float
    watchdog_timeout: float
    card_removed_after: float
    on_connect: Callable[[CardReader], Awaitable[Any]] | None
    close_timeout: float
    stderr: StandardError
    trace: Trace | None

    def __post_init__(self) -> None:
        for name in "restart_delay", "watchdog_interval", "card_removed_after", "close_timeout":
            check_number(name, getattr(self, name), 0)
        check_number("restart_delay_limit", self.restart_delay_limit, 0)
        if self.restart_delay_limit < self.restart_delay:
            raise ValueError(
                f"invalid restart_delay_limit: expected at least the restart_delay of "
                f"{self.restart_delay!r}, got {self.restart_delay_limit!r}"
            )
        check_number("watchdog_timeout", self.watchdog_timeout, 0, above=True)
        check_timeout("command_timeout", self.command_timeout)
        check_number("give_up_after", self.give_up_after, 1, most=math.inf, kind="whole number")
        if self.give_up_after % 1 > 0:
            raise ValueError(f"invalid give_up_after: expected a whole number, got {self.give_up_after!r}")
        for name in "on_connect", "trace":
            value = getattr(self, name)
            if value is not None and not callable(value):
                raise TypeError(f"invalid {name}: expected a function, got {value!r}")
        if self.stderr not in ("inherit", "ignore") and not callable(self.stderr):
            raise ValueError(f"invalid stderr: expected 'inherit', 'ignore' or a function, got {self.stderr!r}")
        os.fspath(self.path)
