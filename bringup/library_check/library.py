"""A reader library loaded with ctypes. Every call is reported as a line of a recording."""

import ctypes
import os
import struct
import threading
import time
from contextlib import suppress
from ctypes import c_char_p, c_int, c_int16, c_int64, c_uint8, c_void_p

from . import Failed, Skipped

MARKER = ctypes.CFUNCTYPE(None, c_void_p, c_int)
FUNCTIONS = {  # result and arguments, as the agent declares them
    "SetMarkerFunction": (None, MARKER),
    "BeepNow": (c_int16, c_uint8, c_int16),
    "GetLastLibErr": (c_int64,),
    "GetQueuedID": (c_int16, c_int16, c_int16),
    "GetQueuedID_index": (c_int64, c_int16),
    "USBDisconnect": (None,),
    "SetDevTypeSrch": (None, c_int16),
    "usbConnect": (c_int16,),
    "getPartNumberString": (c_void_p,),  # not c_char_p, which copies the text at once
    "GetDevName": (None, c_char_p),  # never called: the size of its buffer is not known
    "ReadCfg": (c_int16,),
    "WriteCfg": (c_int16,),
    "ResetFactoryDflts": (c_int16,),
}
# The configuration records, and in each the index of a field that may be changed for a moment.
RECORDS = {"IDBitCnts": 3, "Flags": 7, "TimeParms": 1, "Flags2": 5, "LEDCtrl": 1}
FUNCTIONS.update({verb + kind: (c_int16, c_void_p) for kind in RECORDS for verb in ("Get", "Set")})
GUARD = 256  # bytes before and after a record that no call may write


def quoted(text):
    """The bytes as a recording has a text."""
    escapes = {9: "\\t", 10: "\\n", 13: "\\r", 11: "\\v", 12: "\\f", 92: "\\\\", 34: '\\"'}
    return '"%s"' % "".join(escapes.get(c) or (chr(c) if 32 <= c < 127 else "\\x%02X" % c) for c in text)


def number(result):
    """A status, with a hint where the library may have returned 8 bits only."""
    is_byte = result not in range(-255, 256) and not result & 0xFF
    return f"{result} (0x{result & 0xFFFF:04X}: 0 if the library returns 8 bits)" if is_byte else str(result)


class Poll:
    """What the 33 values of one poll say."""

    def __init__(self, status, bits, values):
        self.status, self.bits = status, bits
        self.value = int.from_bytes(bytes(value & 0xFF for value in values), "little")
        self.has_card = bool(self.bits or self.value)

    def __str__(self):
        return f"{self.value:X}/{self.bits}"


class Library:
    """The functions of the file. `report` takes one message and may be called on any thread;
    `before_call` may raise. Both are called for each call.
    """

    def __init__(self, path, report, before_call):
        self._report, self.before_call = report, before_call
        self._thread, self._is_calling, self._was_removed, self._overran = threading.get_ident(), False, False, False
        self._marker = MARKER(self._hear)
        self.seconds = 0.0  # how long the last call took
        self._library = ctypes.CDLL(os.path.abspath(path), mode=os.RTLD_NOW | os.RTLD_LOCAL)
        self.missing = [name for name in FUNCTIONS if not hasattr(self._library, name)]

    def call(self, name, *arguments, shown=None, show_result=str):
        """Calls a function and returns its result. `shown`: the arguments, as the recording has them."""
        if name in self.missing:
            raise Skipped(f"the library lacks {name}")
        self.before_call()
        function = getattr(self._library, name)
        function.restype, *function.argtypes = FUNCTIONS[name]
        text = " ".join([name, *map(str, arguments if shown is None else shown)])
        if name != "GetQueuedID_index":
            self._report(event="enter " + text)
        self._is_calling, begin = True, time.perf_counter()
        result = function(*arguments)
        self._is_calling, self.seconds = False, time.perf_counter() - begin
        arrow = " -> " + show_result(result) if FUNCTIONS[name][0] else ""
        self._report(event=f"call {text}{arrow} ({1000 * self.seconds:.3f} ms)")
        return result

    def failure(self, name, status=0):
        return f"{name} {number(status)} (error {self.call('GetLastLibErr')})"

    def succeed(self, name, *arguments, **shown):
        """Makes a call whose status must not be 0."""
        if self.call(name, *arguments, **shown) == 0:
            raise Failed(self.failure(name))

    def set_marker(self, is_set):
        self._was_removed = not is_set
        self.call("SetMarkerFunction", self._marker if is_set else MARKER(), shown=[int(is_set)])

    def leave(self):
        """Makes the last calls of the agent, also when the row was stopped."""
        self.before_call = lambda: None
        with suppress(Skipped):
            self.call("USBDisconnect")
        with suppress(Skipped):
            self.set_marker(False)

    def part_number(self):
        """The address of the text, and the text as a recording has it."""
        shown = lambda result: quoted(ctypes.string_at(result)) if result else "null"
        address = self.call("getPartNumberString", show_result=shown)
        return address, shown(address)

    def poll(self):
        status = self.call("GetQueuedID", 1, 0)
        bits, *values = [self.call("GetQueuedID_index", index) for index in (32, *range(32))]
        return Poll(status, bits, values)

    def get(self, kind):
        """The record's 8 fields."""
        fields = lambda area: struct.unpack_from("8h", area, GUARD)
        return fields(self._pass_record("Get" + kind, bytes(16), os.urandom(GUARD), lambda area, status: " ".join(
            map(str, (status, *(fields(area) if status else ()))))))

    def set(self, kind, fields):
        """Sets a record, unless a Get wrote outside one: a longer one would be stored with what lies beside."""
        if self._overran:
            raise Failed("nothing was set: a Get wrote outside its record")
        self._pass_record("Set" + kind, struct.pack("8h", *fields), bytes(GUARD), lambda _, status: str(status), fields)

    def read_configuration(self):
        """All records, as the reader has them."""
        self.succeed("ReadCfg")
        return {kind: self.get(kind) for kind in RECORDS}

    def _pass_record(self, name, record, after, show_result, shown=()):
        guarded = os.urandom(GUARD) + record + after
        area = (c_uint8 * len(guarded))(*guarded)
        try:
            self.succeed(name, ctypes.byref(area, GUARD), shown=shown, show_result=lambda status: show_result(area, status))
        finally:
            for place, part in ("before", slice(0, GUARD)), ("after", slice(GUARD + 16, None)):
                if count := sum(a != b for a, b in zip(bytes(area)[part], guarded[part])):
                    self._overran |= name.startswith("Get")
                    self._report(problem=["record", f"{name} wrote {count} bytes {place} its record"])
        return area

    def _hear(self, address, length):
        is_sound = address and 0 <= length <= 65536
        text = ctypes.string_at(address, length) if is_sound else b""
        thread = "thread " * (threading.get_ident() != self._thread)
        event = f"says {thread}{quoted(text)}" + f" length {length}" * (length != len(text))
        self._report(event=event)
        for row, problem in (("removed", self._was_removed and "after removal"),
                             ("thread", (thread or not self._is_calling) and not self._was_removed and "outside of calls"),
                             ("length", not is_sound and f"its length is {length}"),
                             ("length", b"\0" in text and f"the text ends before its {length} bytes"),
                             ("length", is_sound and 32 <= ctypes.string_at(address + length, 1)[0] < 127
                              and f"the text goes on after its {length} bytes")):
            if problem:
                self._report(problem=[row, f"{event}: {problem}"])
