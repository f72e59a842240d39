"""Card readers in Python, through the card reader agent."""

import logging

from .errors import AgentEndedError, AgentStartError, CardReaderError, CommandTimeoutError
from .errors import NoReaderError, ReaderChangedError, ReaderFailedError, RejectedError
from .errors import UnknownSettingsError
from .events import Card, CardRemoved, Event, Log, Poll, State, StateName
from .reader import CardReader
from .words import BeepLength, LedColor, Settings

__version__ = "1.1.0"

__all__ = ["AgentEndedError", "AgentStartError", "BeepLength", "Card", "CardReader", "CardReaderError"]
__all__ += ["CardRemoved", "CommandTimeoutError", "Event", "LedColor", "Log", "NoReaderError", "Poll"]
__all__ += ["ReaderChangedError", "ReaderFailedError", "RejectedError", "Settings", "State", "StateName"]
__all__ += ["UnknownSettingsError"]

logging.getLogger(__name__).addHandler(logging.NullHandler())  # silent unless the application listens
