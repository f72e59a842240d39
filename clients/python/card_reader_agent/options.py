"""The options of a `CardReader`, checked when it is made."""

from __future__ import annotations

import math
import os
from collections.abc import Awaitable, Callable, Mapping
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, Literal, Union

if TYPE_CHECKING:
    from .reader import CardReader

StandardError = Union[Literal["inherit", "ignore"], Callable[[str], object]]
Trace = Callable[[float, str, str], object]
OnConnect = Callable[["CardReader"], Awaitable[Any]]


def check_number(name: str, value: object, least: float, above: bool, most: float, kind: str) -> None:
    expected = f"expected a {kind} {'above' if above else 'of at least'} {least:g}"
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise TypeError(f"invalid {name}: {expected}, got {value!r}")
    if not (least < value if above else least <= value) or not value <= most:
        raise ValueError(f"invalid {name}: {expected}, got {value!r}")


def check_timeout(name: str, value: object) -> None:
    """A timeout in seconds. None and math.inf mean none."""
    if value is not None:
        check_number(name, value, 0, True, math.inf, "number")


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
    on_connect: OnConnect | None
    close_timeout: float
    stderr: StandardError
    trace: Trace | None

    def __post_init__(self) -> None:
        for name in "restart_delay", "watchdog_interval", "card_removed_after", "close_timeout":
            check_number(name, getattr(self, name), 0, False, 1e9, "number")
        least = self.restart_delay
        check_number("restart_delay_limit", self.restart_delay_limit, least, False, 1e9, "number (restart_delay)")
        check_number("watchdog_timeout", self.watchdog_timeout, 0, True, 1e9, "number")
        check_timeout("command_timeout", self.command_timeout)
        check_number("give_up_after", self.give_up_after, 1, False, math.inf, "whole number")
        if self.give_up_after % 1 > 0:
            raise ValueError(f"invalid give_up_after: expected a whole number, got {self.give_up_after!r}")
        for name in "on_connect", "trace":
            if not callable(getattr(self, name) or print):
                raise TypeError(f"invalid {name}: expected a function, got {getattr(self, name)!r}")
        if self.stderr not in ("inherit", "ignore") and not callable(self.stderr):
            raise ValueError(f"invalid stderr: expected 'inherit', 'ignore' or a function, got {self.stderr!r}")
        os.fspath(self.path)
