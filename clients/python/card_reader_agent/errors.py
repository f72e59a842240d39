"""The errors of this package, and the one that an answer of the agent stands for."""

from __future__ import annotations

import errno
import os
import re
import signal
import sys

BAD_CPU_TYPE = 86  # macOS; unknown to the errno module
ROSETTA = "this Mac has no Rosetta, which the agent needs; run softwareupdate --install-rosetta --agree-to-license"
RETRYABLE = {"EAGAIN", "EMFILE", "ENFILE", "ENOMEM", "ETXTBSY"}  # why a start may succeed later

_FAILED = re.compile(
    r"(?:Beeping|Setting LED state|Clearing LED state|Resetting card reader) failed with error (-?[0-9]+)"
    r"|Failed to (?:read|write) reader config"
    r"|Call to \w+ failed; settings will not be set"
)
_OTHER_READER = re.compile(
    r"(?s)Action was for reader (.+), but (?:there is no reader attached|the current reader is (Dev[0-9]{1,15}.*))"
)


class CardReaderError(Exception):
    """The base class. `code` names the error for programs; the message is for people."""

    code = "CARD_READER"


class NoReaderError(CardReaderError):
    """No reader is attached."""

    code = "NO_READER"


class ReaderChangedError(CardReaderError):
    """Another reader is attached, or the same one again. The command was not executed."""

    code = "READER_CHANGED"


class ReaderFailedError(CardReaderError):
    """The reader or its library failed. `number` is the library's, None for a configuration."""

    code = "READER_FAILED"

    def __init__(self, message: str, number: int | None) -> None:
        super().__init__(message)
        self.number = number


class RejectedError(CardReaderError):
    """The agent did not understand the command; the message is the agent's."""

    code = "REJECTED"


class UnknownSettingsError(CardReaderError):
    """The agent does not know the settings `names` ("type.name"). It has applied the others."""

    code = "UNKNOWN_SETTINGS"

    def __init__(self, names: list[str]) -> None:
        super().__init__(f"unknown settings: {', '.join(names)}")
        self.names = names


class CommandTimeoutError(CardReaderError, TimeoutError):
    """No answer arrived in time. The command may be executed all the same."""

    code = "COMMAND_TIMEOUT"


class AgentEndedError(CardReaderError):
    """The agent does not run, so there is no answer.

    `status` is its exit status, negative for a signal, or None; `signal` the signal's name, or None.
    """

    code = "AGENT_ENDED"

    def __init__(self, status: int | None = None, said: str = "", reason: str = "") -> None:
        """`said` is the end of what the agent wrote to standard error. `reason` replaces both."""
        self.status = status
        self.signal: str | None = None
        if status is None:
            text = "the agent is not running"
        elif status < 0:
            names = {int(each): each.name for each in signal.Signals}
            self.signal = names.get(-status, f"signal {-status}")  # a real-time signal has no name
            text = f"the agent was killed by {self.signal}"
        else:
            text = f"the agent exited with status {status}"
        super().__init__(reason or ": ".join(filter(None, [text, said.strip()])))


class AgentStartError(CardReaderError):
    """The agent cannot be started. `system_code` is the system's reason, such as "ENOENT"."""

    code = "AGENT_START"

    def __init__(self, path: str, error: OSError | ValueError) -> None:
        number = error.errno if isinstance(error, OSError) else errno.EINVAL
        self.system_code = errno.errorcode.get(number or 0, str(number))
        text = os.strerror(number) if number else str(error)
        if sys.platform == "darwin" and number == BAD_CPU_TYPE:
            self.system_code, text = "EBADARCH", ROSETTA
        super().__init__(f"cannot start {path}: {self.system_code}, {text}")


def error_for(text: str) -> CardReaderError:
    """The error for the agent's answer "Error: `text`"."""
    if failed := _FAILED.fullmatch(text):
        return ReaderFailedError(text, int(failed[1]) if failed[1] else None)
    if other := _OTHER_READER.fullmatch(text):
        return ReaderChangedError(text) if other[2] else NoReaderError(text)
    return RejectedError(text)


def readers_in(text: str) -> tuple[str, str | None] | None:
    """The reader that a command was for and the one attached, if the answer's text names them."""
    other = _OTHER_READER.fullmatch(text)
    return (other[1], other[2]) if other else None
