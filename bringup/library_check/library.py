"""A reader library loaded with ctypes. Every call is reported as a line of a recording."""

import ctypes
import os
import struct
import threading
import time
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
for _name in RECORDS:
    FUNCTIONS["Get" + _name] = FUNCTIONS["Set" + _name] = (c_int16, c_void_p)

GUARD = 64  # bytes before and after a record that no call may write
MOST_TEXT = 65536


def quoted(text):
    """The bytes as a recording has a text."""
    escapes = {9: "\\t", 10: "\\n", 13: "\\r", 11: "\\v", 12: "\\f", 92: "\\\\", 34: '\\"'}
    return '"%s"' % "".join(
        escapes.get(c) or (chr(c) if 32 <= c < 127 else "\\x%02X" % c) for c in text)


def number(result):
    """A status, with a hint where the library may have returned 8 bits only."""
    is_byte = result not in range(-255, 256) and not result & 0xFF
    return f"{result} (0x{result & 0xFFFF:04X}: 0 if the library returns 8 bits)" if is_byte else str(result)


class Poll:
    """One fetch of a card's ID, with all 33 values."""

    def __init__(self, status, values):
        self.status, self.bits = status, values[32]
        self.value = int.from_bytes(bytes(value & 0xFF for value in values[:32]), "little")

    def has_card(self):
        return bool(self.bits or self.value)

    def __str__(self):
        return f"{self.value:X}/{self.bits}"


class Library:
    """The functions of the file. `report` takes one message and may be called on any thread;
    `check_stop` is called before each call and may raise.
    """

    def __init__(self, path, report, check_stop):
        self._report, self._check_stop = report, check_stop
        self._thread, self._call, self._was_removed = threading.get_ident(), "", False
        self._marker = MARKER(self._hear)
        self._fill, self._overran = 0xA5, False
        library = ctypes.CDLL(os.path.abspath(path), mode=os.RTLD_NOW | os.RTLD_LOCAL)
        self._functions, self.missing = {}, []
        for name, (result, *arguments) in FUNCTIONS.items():
            try:
                function = self._functions[name] = getattr(library, name)
                function.restype, function.argtypes = result, arguments
            except AttributeError:
                self.missing.append(name)

    def call(self, name, *arguments):
        """Calls a function that takes numbers, and returns its result."""
        return self._run(name, arguments, arguments)[0]

    def succeed(self, name, *arguments):
        """Makes a call whose status must not be 0, and returns how many seconds it took."""
        status, seconds = self._run(name, arguments, arguments)
        if status == 0:
            raise Failed(self.failure(name))
        return seconds

    def failure(self, name, status=0):
        return f"{name} {number(status)} (error {self.call('GetLastLibErr')})"

    def set_marker(self, is_set):
        self._was_removed = not is_set
        self._run("SetMarkerFunction", (int(is_set),), (self._marker if is_set else MARKER(),))

    def leave(self, disconnects):
        """Makes the last calls, also when the parent has stopped the row."""
        self._check_stop = lambda: None
        if disconnects and "USBDisconnect" not in self.missing:
            self.call("USBDisconnect")
        if "SetMarkerFunction" not in self.missing:
            self.set_marker(False)

    def part_number(self):
        """The address of the text, and the text or None."""
        shown = lambda result: quoted(ctypes.string_at(result)) if result else "null"
        address, _ = self._run("getPartNumberString", (), (), shown)
        return address, ctypes.string_at(address) if address else None

    def poll(self):
        status = self.call("GetQueuedID", 1, 0)
        values = {index: self.call("GetQueuedID_index", index) for index in (32, *range(32))}
        return Poll(status, [values[index] for index in range(33)])

    def get(self, kind, before=b"\0" * 16):
        """The record's 8 fields."""
        area = self._area(before)
        name, fields = "Get" + kind, lambda: struct.unpack_from("8h", area, GUARD)
        shown = lambda status: " ".join(map(str, (status, *(fields() if status else ()))))
        status, _ = self._run(name, (), (ctypes.byref(area, GUARD),), shown)
        self._overran |= self._compare(name, area, self._area(before, change=False))
        if status == 0:
            raise Failed(self.failure(name))
        return fields()

    def set(self, kind, fields):
        """Hands the library a record, unless a Get has written outside one: the library's records are
        longer then, and it would store what lies beside this one.
        """
        if self._overran:
            raise Failed("nothing was set: a Get wrote outside its record")
        name, area = "Set" + kind, self._area(struct.pack("8h", *fields))
        area[GUARD + 16 :] = [0] * GUARD
        before = bytes(area)
        status, _ = self._run(name, fields, (ctypes.byref(area, GUARD),))
        self._compare(name, area, before)
        if status == 0:
            raise Failed(self.failure(name))

    def read_configuration(self):
        """All records, as the reader has them."""
        self.succeed("ReadCfg")
        return {kind: self.get(kind) for kind in RECORDS}

    def _area(self, record, change=True):
        # Two fills in turn, so that nothing written equals both.
        self._fill ^= 0xFF * change
        guard = [self._fill] * GUARD
        return (c_uint8 * (2 * GUARD + 16))(*guard, *record, *guard)

    def _compare(self, name, area, before):
        total = 0
        for place, part in (("before", slice(0, GUARD)), ("after", slice(GUARD + 16, None))):
            count = sum(a != b for a, b in zip(bytes(area)[part], bytes(before)[part]))
            total += count
            if count:
                self._report(overrun=f"{name} wrote {count} bytes {place} its record")
        return total > 0

    def _run(self, name, shown_arguments, arguments, show_result=str):
        if name in self.missing:
            raise Skipped(f"the library lacks {name}")
        self._check_stop()
        text = " ".join([name, *map(str, shown_arguments)])
        self._report(event="enter " + text, during=name)
        self._call = name
        begin = time.perf_counter()
        result = self._functions[name](*arguments)
        seconds = time.perf_counter() - begin
        self._call = ""
        arrow = " -> " + show_result(result) if FUNCTIONS[name][0] else ""
        self._report(event=f"call {text}{arrow} ({1000 * seconds:.3f} ms)", during="")
        return result, seconds

    def _hear(self, address, length):
        is_sound = address and 0 <= length <= MOST_TEXT
        text = ctypes.string_at(address, length) if is_sound else b""
        wrong = "" if is_sound else f"its length is {length}"
        if b"\0" in text:
            wrong = f"the text ends before its {length} bytes"
        elif is_sound and 32 <= ctypes.string_at(address + length, 1)[0] < 127:
            wrong = f"the text goes on after its {length} bytes"
        thread = "thread " * (threading.get_ident() != self._thread)
        length_text = f" length {length}" * (length != len(text))
        self._report(event=f"says {thread}{quoted(text)}{length_text}", wrong_length=wrong,
                     during_call=self._call, was_removed=self._was_removed)
