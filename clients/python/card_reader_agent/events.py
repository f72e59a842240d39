"""What a `CardReader` reports."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Literal, Union

StateName = Literal["starting", "searching", "ready", "restarting", "failed", "closed"]


@dataclass(frozen=True)
class State:
    """The state has changed. The reason is a sentence for people, or None."""

    state: StateName
    previous: StateName
    reason: str | None


@dataclass(frozen=True)
class Card:
    """A card was presented; `id` in upper-case hexadecimal digits."""

    id: str


@dataclass(frozen=True)
class CardRemoved:
    """The card was removed, or its reader was disconnected."""

    id: str


@dataclass(frozen=True)
class Poll:
    """The reader has reported a card, perhaps one that has been held for long."""

    id: str


@dataclass(frozen=True)
class Log:
    """A line of diagnostics; a text of several lines arrives as several events."""

    text: str


Event = Union[State, Card, CardRemoved, Poll, Log]
