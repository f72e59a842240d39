"""The options of a `CardReader`, checked when it is made."""

from __future__ import annotations

import os
from collections.abc import Awaitable, Callable, Mapping
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any, Literal, Union

if TYPE_CHECKING:
    from .reader import CardReader

StandardError = Union[Literal["inherit", "ignore"], Callable[[str], object]]
Trace = Callable[[float, str, str], object]
OnConnect = Callable[["CardReader"], Awaitable[Any]]

LONGEST = 1e9  # seconds


def check(is_valid: bool, name: str, value: object, expected: str, error: type[Exception] = ValueError) -> None:
    if not is_valid:
        raise error(f"invalid {name}: expected {expected}, got {value!r}")


def check_number(name: str, value: Any, expected: str, is_valid: Callable[[float], bool]) -> None:
    is_number = isinstance(value, (int, float)) and not isinstance(value, bool)
    check(is_number, name, value, expected, TypeError)
    check(is_valid(value), name, value, expected)


def check_timeout(name: str, value: object) -> None:
    """A timeout in seconds. None and math.inf mean none."""
    if value is not None:
        check_number(name, value, "a number above 0", lambda number: number > 0)


_FROM_0: tuple[str, Callable[[float], bool]] = "a number of at least 0", lambda number: 0 <= number <= LONGEST


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
        os.fspath(self.path)
        least = self.restart_delay
        for name, expected, is_valid in (
            ("restart_delay", *_FROM_0),
            ("restart_delay_limit", f"a number from restart_delay, {least}", lambda number: least <= number <= LONGEST),
            ("give_up_after", "a whole number of at least 1", lambda number: number >= 1 and not number % 1 > 0),
            ("watchdog_interval", *_FROM_0),
            ("watchdog_timeout", "a number above 0", lambda number: 0 < number <= LONGEST),
            ("card_removed_after", *_FROM_0),
            ("close_timeout", *_FROM_0),
        ):
            check_number(name, getattr(self, name), expected, is_valid)
        check_timeout("command_timeout", self.command_timeout)
        for name, value in ("on_connect", self.on_connect), ("trace", self.trace):
            check(value is None or callable(value), name, value, "a function", TypeError)
        is_known = self.stderr in ("inherit", "ignore") or callable(self.stderr)
        check(is_known, "stderr", self.stderr, "'inherit', 'ignore' or a function")
        check(self.env is None or isinstance(self.env, Mapping), "env", self.env, "a mapping", TypeError)
