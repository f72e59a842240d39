"""What is checked: a row each. To change or add one, write a function with the decorator @row.

A function gets a Reader (row_process), and returns a detail or nothing. It raises Failed or Skipped.
"""

import ctypes
import os
import time

from . import Failed, Skipped
from .library import RECORDS, number

ROWS = []
POLL_INTERVAL = 0.25  # seconds, as the agent polls
POLLS, CONNECTIONS = 200, 10


class Row:
    """One row: its function, and what the parent has to know of it.

    `needs`: what an earlier row must have found; then the process connects first. `write`: only with
    --write. `sets`: it changes the reader, whose configuration is saved before. `disconnects`: the
    process disconnects before it exits. `hears`: it has a marker function.
    """

    def __init__(self, run, name, needs="", write=False, sets=False, disconnects=True, hears=True):
        self.run, self.name, self.needs, self.write = run, name, needs, write
        self.sets, self.disconnects, self.hears = sets or write, disconnects, hears


def row(name, **flags):
    def add(function):
        ROWS.append(Row(function, name, **flags))
        return function
    return add


def find(name):
    return next(each for each in (*ROWS, *HIDDEN) if each.name == name)


def milliseconds(seconds):
    return f"{1000 * seconds:.1f} ms"


def require_equal(what, expected, found):
    for index, (wanted, got) in enumerate(zip(expected, found)):
        if wanted != got:
            raise Failed(f"{what}: the field at byte {2 * index} is {got} instead of {wanted}")


def require_same_configuration(when, expected, found):
    for kind in RECORDS:
        require_equal(f"Get{kind}{when}", expected[kind], found[kind])


# --- without a reader ---


@row("the library has every function", hears=False)
def _(reader):
    if reader.library.missing:
        raise Failed("it lacks " + ", ".join(reader.library.missing))


@row("SetMarkerFunction sets, removes and sets again", hears=False)
def _(reader):
    for is_set in (True, False, True):
        reader.library.set_marker(is_set)


@row("USBDisconnect returns when nothing is connected")
def _(reader):
    reader.library.call("USBDisconnect")
    reader.library.call("USBDisconnect")


@row("usbConnect returns 0 when no reader is plugged in")
def _(reader):
    try:
        reader.please("Unplug the reader, if it is plugged in.")
    except Skipped:
        if reader.search():
            raise Skipped("a reader is plugged in, or usbConnect connects without one")
        return
    if not reader.within_timeout(lambda: reader.search() == 0):
        raise Failed("usbConnect still connects: is another reader plugged in?")


@row("calls fail while no reader is connected")
def _(reader):
    reader.library.call("USBDisconnect")
    results = {name: reader.library.call(name, *arguments) for name, *arguments in
               (("GetQueuedID", 1, 0), ("BeepNow", 1, 0), ("ReadCfg",))}
    wrong = [f"{name} returns {number(result)}" for name, result in results.items() if result]
    if wrong:
        raise Failed("; ".join(wrong))


@row("GetLastLibErr returns a number after a failure")
def _(reader):
    if reader.library.call("BeepNow", 1, 0):
        raise Skipped("no call failed")
    error = reader.library.call("GetLastLibErr")
    if error == 0:
        raise Failed("it is 0 after BeepNow failed")
    return f"it is {error} after BeepNow failed"


# --- connections ---


@row("usbConnect connects the reader")
def _(reader):
    try:
        reader.please("Plug in the reader, with no card near it.")
        status = reader.connect()
    except Skipped:
        status = reader.search()
        if not status:
            raise Skipped(reader.library.failure("usbConnect") + ": is a reader plugged in, "
                          "and used by nothing else? --device-type N searches for another kind") from None
        reader.report(fact="reader")
    if not reader.within_timeout(lambda: reader.library.poll().status):
        raise Failed(f"usbConnect returns {number(status)}, but no poll succeeds: is a reader plugged in?")


@row("usbConnect takes less than 1 s", needs="reader")
def _(reader):
    reader.library.call("USBDisconnect")
    seconds = reader.library.succeed("usbConnect")
    if seconds >= 1:
        raise Failed(milliseconds(seconds) + ": commands wait meanwhile, once every 10 s without a reader")
    return milliseconds(seconds)


@row("a poll succeeds right after connecting", needs="reader")
def _(reader):
    if reader.library.poll().status == 0:
        raise Failed(reader.library.failure("GetQueuedID"))


@row("the part number stays valid until the next call", needs="reader")
def _(reader):
    address, text = reader.library.part_number()
    if not address:
        return "it has none (null)"
    time.sleep(POLL_INTERVAL)
    if ctypes.string_at(address) != text:
        raise Failed(f"{text} became {ctypes.string_at(address)} without a call")
    return text.decode(errors="replace")


@row(f"the reader connects again {CONNECTIONS} times, and no descriptor stays open", needs="reader")
def _(reader):
    before = len(os.listdir("/dev/fd"))
    for _ in range(CONNECTIONS):
        reader.connect("after USBDisconnect: ")
    left = len(os.listdir("/dev/fd")) - before
    if left >= CONNECTIONS:
        raise Failed(f"{left} descriptors stay open")


# --- polls ---


@row("a poll without a card succeeds, with an ID of zeros", needs="reader")
def _(reader):
    polls = [reader.library.poll() for _ in range(3)]
    if not all(poll.status for poll in polls):
        raise Failed(reader.library.failure("GetQueuedID"))
    cards = [str(poll) for poll in polls if poll.has_card()]
    if cards:
        raise Failed(f"the ID is {cards[0]}")


@row("a poll takes less than 250 ms", needs="reader")
def _(reader):
    seconds = []
    for _ in range(9):
        begin = time.monotonic()
        reader.library.poll()
        seconds.append(time.monotonic() - begin)
        reader.pause()
    median = sorted(seconds)[4]
    detail = f"median {milliseconds(median)}, maximum {milliseconds(max(seconds))}"
    if median >= POLL_INTERVAL:
        raise Failed(detail)
    return detail


@row(f"{POLLS} polls in a row succeed", needs="reader")
def _(reader):
    failed = [index for index in range(POLLS) if reader.library.poll().status == 0]
    if failed:
        raise Failed(f"{len(failed)} of {POLLS} fail, the first is number {failed[0] + 1}: the agent then "
                     "reports that the reader was disconnected")


# --- configuration ---


@row("ReadCfg reads the configuration", needs="reader")
def _(reader):
    reader.library.succeed("ReadCfg")


@row("ReadCfg and each Get return the same twice", needs="reader")
def _(reader):
    first = reader.library.read_configuration()
    require_same_configuration(" after ReadCfg", first, reader.library.read_configuration())
    require_same_configuration(" again", first, {kind: reader.library.get(kind) for kind in RECORDS})
    over_ones = {kind: reader.library.get(kind, b"\xFF" * 16) for kind in RECORDS}
    sizes = [max((2 * index + 2 for index in range(8) if over_ones[kind][index] == first[kind][index] != -1),
                 default=0) for kind in RECORDS]
    return "bytes written: " + ", ".join(f"{kind} {size}" for kind, size in zip(RECORDS, sizes))


# --- what a person sees and hears ---


def beeps(name, count, is_long, question):
    @row(name, needs="reader")
    def _(reader):
        reader.library.succeed("BeepNow", count, is_long)
        reader.pause()  # a text may come late
        reader.confirm(question, "BeepNow succeeds, but that was not heard")


beeps("two short beeps are heard", 2, 0, "Did you hear two short beeps?")
beeps("a long beep is heard", 1, 1, "Did you hear one long beep?")


def led(name, question, *fields):
    # Without ReadCfg before, and with the record that the agent sends.
    @row(name, needs="reader", sets=True)
    def _(reader):
        reader.library.set("LEDCtrl", (*fields, 0, 0, 0, 0, 1))
        reader.confirm(question, "SetLEDCtrl succeeds, but that was not seen")


led("the LED turns red", "Is the LED red?", 1, 1, 0)
led("the LED turns green", "Is the LED green?", 1, 0, 1)
led("the LED turns amber", "Is the LED amber?", 1, 1, 1)
led("the LED turns off", "Is the LED off?", 1, 0, 0)
led("the reader controls the LED again", "Does the LED look as it does right after plugging in?", 0, 0, 0)


# --- cards ---


def wait_for_card(reader):
    """Polls until a card is there, whatever the polls' statuses are. Returns all polls."""
    polls = []

    def has_card():
        polls.append(reader.library.poll())
        return polls[-1].has_card()
    if not reader.within_timeout(has_card):
        raise Failed(f"no card was reported in {len(polls)} polls")
    reader.report(fact="card")
    return polls


def compare_with_printed(poll, text):
    """How the number on the card is in the ID: as it should, otherwise, or not."""
    swapped = int.from_bytes(poll.value.to_bytes(32, "little").rstrip(b"\0"), "big")
    numbers = {int(text, base) for base in (10, 16) if base == 16 or text.isdecimal()}

    def has_number(value, bits):
        return any(value >> shift & (1 << width) - 1 in numbers
                   for shift in range(bits) for width in range(8, bits - shift + 1))
    if has_number(poll.value, poll.bits):
        return f"{poll}: {text} is in it"
    if has_number(swapped, swapped.bit_length()):
        raise Failed(f"{poll}: {text} is in it only with the bytes reversed")
    return f"{poll}: {text} is not in it: compare by hand"


@row("a card is reported, and its ID is right", needs="reader")
def _(reader):
    polls = [reader.library.poll()]
    reader.please("Hold a card to the reader, and keep it there until the next step.")
    polls += wait_for_card(reader)
    poll = polls[-1]
    if not 0 <= poll.bits <= 256:
        raise Failed(f"{poll}: the length is no number of bits")
    if poll.bits and poll.value >> poll.bits:
        raise Failed(f"{poll}: the ID has {poll.value.bit_length()} bits: is its length in bytes, or the "
                     "most significant byte first?")
    failed = sum(not each.status for each in polls)
    if failed:
        raise Failed(f"{poll}: {failed} of {len(polls)} polls returned 0, which means a disconnected reader")
    try:
        text = reader.ask("Type number, a space, and the number printed on the card.", r"number\s+([0-9a-f]+)")
    except Skipped:
        return f"{poll}; the number printed on the card is not known"
    return compare_with_printed(poll, text)


@row("a card that stays is reported at every poll", needs="card")
def _(reader):
    reader.please("Keep the card at the reader, or hold it there again.")
    wait_for_card(reader)
    reports = 0
    for _ in range(12):
        reader.pause()
        reports += reader.library.poll().has_card()
    if reports < 12:
        raise Failed(f"at {reports} of 12 polls")


@row("a card that was removed is no longer reported", needs="card")
def _(reader):
    reader.library.poll()
    reader.please("Remove the card.")
    if not reader.within_timeout(lambda: not reader.library.poll().has_card()):
        raise Failed("it is still reported")
    reader.pause()
    if reader.library.poll().has_card():
        raise Failed("it is reported again")


# --- unplugging ---


@row("polls fail after unplugging, and plugging in connects again", needs="reader")
def _(reader):
    reader.please("Unplug the reader.")
    if not reader.within_timeout(lambda: reader.library.poll().status == 0):
        raise Failed("polls still succeed")
    details = [reader.library.failure("GetQueuedID")]
    for name, *arguments in (("BeepNow", 1, 0), ("ReadCfg",)):
        details.append(reader.library.failure(name, reader.library.call(name, *arguments)))
    if reader.search():
        raise Failed("usbConnect still connects")
    reader.please("Plug the reader in again.")
    reader.connect()
    if not reader.library.poll().status:
        raise Failed("after plugging in: " + reader.library.failure("GetQueuedID"))
    return "; ".join(details)


# --- texts ---


@row("no text comes once the marker function is removed")
def _(reader):
    # The parent fails this row if one comes, here or anywhere.
    reader.library.set_marker(False)
    reader.search()
    reader.library.call("BeepNow", 1, 0)
    reader.pause()


# --- with --write ---


def changed(fields, kind):
    index = RECORDS[kind]
    return (*fields[:index], fields[index] ^ 1, *fields[index + 1 :])


def require_connection(reader, after):
    if not reader.library.poll().status:
        raise Failed(f"{after} drops the connection: " + reader.library.failure("GetQueuedID"))


@row("Get returns what Set was given, without WriteCfg", needs="reader", write=True)
def _(reader):
    before = reader.library.read_configuration()
    for kind in RECORDS:
        for fields in (changed(before[kind], kind), before[kind]):
            reader.library.set(kind, fields)
            require_equal("Get" + kind, fields, reader.library.get(kind))


@row("WriteCfg stores the configuration and keeps the connection", needs="reader", write=True)
def _(reader):
    fields = changed(reader.library.read_configuration()["Flags"], "Flags")
    reader.library.set("Flags", fields)
    seconds = reader.library.succeed("WriteCfg")
    require_connection(reader, "WriteCfg")
    reader.connect("after WriteCfg: ")
    require_equal("GetFlags after WriteCfg", fields, reader.library.read_configuration()["Flags"])
    return milliseconds(seconds)


@row("ResetFactoryDflts succeeds and keeps the connection", needs="reader", write=True)
def _(reader):
    seconds = reader.library.succeed("ResetFactoryDflts")
    require_connection(reader, "ResetFactoryDflts")
    return milliseconds(seconds)


# --- steps of the check itself, in processes of their own like rows ---


def save(reader):
    configuration = reader.library.read_configuration()
    require_same_configuration(" again", configuration, reader.library.read_configuration())
    _, part = reader.library.part_number()
    reader.report(records=configuration, part=None if part is None else part.decode(errors="replace"))


def restore(reader):
    _, part = reader.library.part_number()
    part = None if part is None else part.decode(errors="replace")
    if part != reader.saved["reader"]:
        raise Failed(f"the configuration is of reader {reader.saved['reader']}, but {part} is connected")
    records = {kind: tuple(reader.saved["records"][kind]) for kind in RECORDS}
    if reader.library.read_configuration() != records:
        for kind in RECORDS:
            reader.library.set(kind, records[kind])
        reader.library.succeed("WriteCfg")
    reader.library.set("LEDCtrl", records["LEDCtrl"])  # the LED itself


def verify(reader):
    require_same_configuration(" after restoring", reader.saved["records"], reader.library.read_configuration())


def connect_only(reader):
    reader.connect()


SAVE, RESTORE, VERIFY = (Row(step, step.__name__, needs="reader") for step in (save, restore, verify))
LEAVE = Row(connect_only, "leave connected", disconnects=False)
FIND = Row(connect_only, "find again")
HIDDEN = (SAVE, RESTORE, VERIFY, LEAVE, FIND)
