"""The lines of the protocol: what each from the agent is, and how those to it are written. Pure."""

from __future__ import annotations

import re
from collections.abc import Mapping
from typing import Literal, NamedTuple, TypedDict, cast

from .errors import UnknownSettingsError

LINE_LIMIT = 1023  # bytes before the newline

BeepLength = Literal["short", "long"]
LedColor = Literal["red", "green", "amber", "off"]
LineKind = Literal["Ok", "Error", "Reader", "Card", "Log", ""]

# What may follow the colon of each kind of line; all else is text of the library.
_TEXTS: dict[LineKind, re.Pattern[str]] = {
    "Ok": re.compile(r"(?: [^\0]+)?"),
    "Error": re.compile(r"(?: [^\0]+)?"),
    "Reader": re.compile(r" (?:Global|Dev[0-9]{1,15}(?:-[^\s\0]+)?)", re.ASCII),
    "Card": re.compile(r" [0-9A-F]{1,64}"),
    "Log": re.compile(r" .*", re.DOTALL),
}
_SETTING = re.compile(r"[^\s.]+\.[^\s.=][^\s=]*", re.ASCII)
_IGNORED = "Ignoring unexpected setting "


# Setting type, then setting name, to a 32-bit integer or a truth value.
_Bits = TypedDict("_Bits", {"iLeadParityBitCnt": int, "iTrailParityBitCnt": int, "iTotalBitCnt": int}, total=False)
_Flags = TypedDict("_Flags", {"bFrcBitCntEx": int, "bSndOnRx": int, "bHaltKBSnd": int}, total=False)
_Times = TypedDict("_Times", {"iBitStrmTO": int, "iIDHoldTO": int, "iIDLockOutTm": int}, total=False)
_Flags2 = TypedDict(
    "_Flags2",
    {"bWiegInvData": int, "bUseInvDataF": int, "bRevWiegBits": int, "bBeepID": int, "bRevBytes": int},
    total=False,
)
_Led = TypedDict("_Led", {"bAppCtrlsLED": int, "iRedLEDState": int, "iGrnLEDState": int}, total=False)


class Settings(TypedDict, total=False):
    tsIDBitCnts: _Bits
    tsCfgFlags: _Flags
    tsTimeParms: _Times
    tsCfgFlags2: _Flags2
    tsLEDCtrl: _Led


class Line(NamedTuple):
    kind: LineKind
    text: str
    whole: str


def parse_line(line: str) -> Line:
    """A line from the agent. Kind "" is text of the library, or something that only resembles a line."""
    name, colon, text = line.partition(":")
    kind = cast(LineKind, name)
    if colon and kind in _TEXTS and _TEXTS[kind].fullmatch(text):
        return Line(kind, text[1:], line)
    return Line("", line, line)


def encode(line: str) -> bytes:
    """A line to the agent as bytes. Raises ValueError if the agent would read something else."""
    data = line.encode(errors="surrogateescape")
    for byte, name in (b"\n", "newline"), (b"\0", "NUL byte"):
        if byte in data:
            raise ValueError(f"invalid command: it contains a {name}")
    if len(data) > LINE_LIMIT:
        raise ValueError(f"invalid command: {len(data)} bytes, more than {LINE_LIMIT}")
    return data + b"\n"


def reader_number(name: str) -> int:
    """The N of a reader's name "DevN-part"."""
    return int(name[3:].partition("-")[0])


class Configuration:
    """The command for settings, and a check from the agent's log lines that it knows them all."""

    def __init__(self, settings: Settings) -> None:
        self.command = "ReaderConfig"
        self._logs: dict[str, set[str]] = {}  # of each setting, if the agent does not know it
        for kind, values in dict(cast("Mapping[str, Mapping[str, int]]", settings)).items():
            for name, value in dict(values).items():
                setting = f"{kind}.{name}"
                if not _SETTING.fullmatch(setting) or "." in kind:
                    raise ValueError(f"invalid setting name '{setting}'")
                if not isinstance(value, int) or not -(2**31) <= value < 2**31:
                    raise ValueError(f"invalid {setting}: expected a 32-bit integer, got {value!r}")
                self.command += f" {setting}={value:d}"
                self._logs[setting] = {f"{_IGNORED}{setting}={value:d}", f"{_IGNORED}type {kind}"}

    def check(self, _: str, logs: list[str]) -> None:
        unknown = sorted(setting for setting, of_it in self._logs.items() if of_it & set(logs))
        if unknown:
            raise UnknownSettingsError(unknown)
