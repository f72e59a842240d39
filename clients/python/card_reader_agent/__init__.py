"""Card readers in Python, through the card reader agent.

`CardReader` keeps a reader in use for as long as the program runs; `CardReaderAgent` below it is one
agent process. `card_reader_agent.testing` has a virtual reader for the tests of a host.
"""

from .agent import (
    AgentEndedError,
    AgentStartError,
    Attached,
    BeepLength,
    Card,
    CardReaderAgent,
    CardReaderError,
    Gone,
    LedColor,
    Log,
    NoReaderError,
    ReaderChangedError,
    ReaderFailedError,
    RejectedError,
    Replaced,
    Settings,
)
from .reader import (
    CardRemoved,
    CardReader,
    CommandTimeoutError,
    Hang,
    Poll,
    State,
    StateName,
    UnknownSettingsError,
)

__version__ = "1.1.0"

__all__ = [
    "AgentEndedError",
    "AgentStartError",
    "Attached",
    "BeepLength",
    "Card",
    "CardRemoved",
    "CardReader",
    "CardReaderAgent",
    "CardReaderError",
    "CommandTimeoutError",
    "Gone",
    "Hang",
    "LedColor",
    "Log",
    "NoReaderError",
    "Poll",
    "ReaderChangedError",
    "ReaderFailedError",
    "RejectedError",
    "Replaced",
    "Settings",
    "State",
    "StateName",
    "UnknownSettingsError",
]
