"""What is checked: a row each. To change or add one, write a function with the decorator @row.

A function gets a Reader (row_process), and returns a detail or nothing. It raises Failed or Skipped.
"""

import collections
import ctypes
import os
import time

from . import Failed, Skipped
from .library import RECORDS, number

# `needs`: what an earlier row must have found; then the process connects first. `sets`: it changes the
# reader, whose configuration is saved before these rows and restored after them.
# `write`: only with --write.
Row = collections.namedtuple("Row", "run name needs sets write", defaults=("", False, False))
ROWS = []
POLL_INTERVAL = 0.25  # seconds, as the agent polls
POLLS, CONNECTIONS = 200, 10


def row(name, *flags, **named_flags):
    return lambda run: ROWS.append(Row(run, name, *flags, **named_flags))


def milliseconds(seconds):
    return f"{1000 * seconds:.1f} ms"


def require(is_right, otherwise):
    if not is_right:
        raise Failed(otherwise)


def require_same(what, expected, found):
    """Compares records."""
    for kind in found:
        for index, (wanted, got) in enumerate(zip(expected[kind], found[kind])):
            require(wanted == got, f"Get{kind}{what}: the field at byte {2 * index} is {got} instead of {wanted}")


# --- without a reader ---


@row("the library has every function")
def _(reader):
    require(not reader.library.missing, "it lacks " + ", ".join(reader.library.missing))


@row("SetMarkerFunction sets, removes and sets again")
def _(reader):
    for is_set in (True, False, True):
        reader.library.set_marker(is_set)


@row("USBDisconnect returns when nothing is connected")
def _(reader):
    reader.library.call("USBDisconnect")
    reader.library.call("USBDisconnect")


@row("usbConnect returns 0 when no reader is plugged in")
def _(reader):
    if reader.please("Unplug the reader, if it is plugged in.", is_required=False):
        require(reader.within_timeout(lambda: reader.search() == 0),
                "usbConnect still connects: is another reader plugged in?")
    elif reader.search():
        raise Skipped("a reader is plugged in, or usbConnect connects without one")


@row("calls fail while no reader is connected")
def _(reader):
    reader.library.call("USBDisconnect")
    results = {name: reader.library.call(name, *arguments) for name, *arguments in
               (("GetQueuedID", 1, 0), ("BeepNow", 1, 0), ("ReadCfg",))}
    wrong = [f"{name} returns {number(result)}" for name, result in results.items() if result]
    require(not wrong, "; ".join(wrong))


@row("GetLastLibErr returns a number after a failure")
def _(reader):
    if reader.library.call("BeepNow", 1, 0):
        raise Skipped("no call failed")
    error = reader.library.call("GetLastLibErr")
    require(error, "it is 0 after BeepNow failed")
    return f"it is {error} after BeepNow failed"


# --- connections ---


@row("usbConnect connects the reader")
def _(reader):
    if reader.please("Plug in the reader, with no card near it.", is_required=False):
        status = reader.connect()
    else:
        status = reader.search()
        if not status:
            raise Skipped(reader.library.failure("usbConnect") + ": is a reader plugged in, "
                          "and used by nothing else? --device-type N searches for another kind")
        reader.report(fact={"reader": True})
    require(reader.within_timeout(lambda: reader.library.poll().status),
            f"usbConnect returns {number(status)}, but no poll succeeds: is a reader plugged in?")


@row("usbConnect takes less than 1 s", "reader")
def _(reader):
    seconds = [reader.library.seconds]
    reader.library.call("USBDisconnect")
    reader.library.succeed("usbConnect")
    seconds.append(reader.library.seconds)
    require(max(seconds) < 1, f"{milliseconds(max(seconds))}: commands wait meanwhile, every 10 s without a reader")
    return "; ".join(map(milliseconds, seconds))


@row("a poll succeeds right after connecting", "reader")
def _(reader):
    reader.library.succeed("GetQueuedID", 1, 0)


@row("the part number stays valid until the next call", "reader")
def _(reader):
    address, text = reader.library.part_number()
    if address:
        before = ctypes.string_at(address)
        time.sleep(POLL_INTERVAL)
        require(ctypes.string_at(address) == before, f"{before} became {ctypes.string_at(address)} without a call")
    return text


@row(f"the reader connects again {CONNECTIONS} times, and no descriptor stays open", "reader")
def _(reader):
    before = len(os.listdir("/dev/fd"))
    for _ in range(CONNECTIONS):
        reader.connect("after USBDisconnect: ")
    left = len(os.listdir("/dev/fd")) - before
    require(left < CONNECTIONS, f"{left} descriptors stay open")


# --- polls ---


@row("a poll without a card succeeds, with an ID of zeros", "reader")
def _(reader):
    polls = [reader.library.poll() for _ in range(3)]
    require(all(poll.status for poll in polls), reader.library.failure("GetQueuedID"))
    for poll in polls:
        require(not poll.has_card, f"the ID is {poll}")


@row("a poll takes less than 250 ms", "reader")
def _(reader):
    seconds = []
    for _ in range(9):
        begin = time.monotonic()
        reader.library.poll()
        seconds.append(time.monotonic() - begin)
    detail = f"median {milliseconds(sorted(seconds)[4])}, maximum {milliseconds(max(seconds))}"
    require(sorted(seconds)[4] < POLL_INTERVAL, detail)
    return detail


@row(f"{POLLS} polls in a row succeed", "reader")
def _(reader):
    failed = [index for index in range(POLLS) if reader.library.call("GetQueuedID", 1, 0) == 0]
    require(not failed, f"{len(failed)} of {POLLS} fail, the first is number {(failed or [0])[0] + 1}: "
            "the agent then reports that the reader was disconnected")


# --- configuration ---


@row("ReadCfg and each Get return the same twice", "reader")
def _(reader):
    first = reader.library.read_configuration()
    require_same(" after ReadCfg", first, reader.library.read_configuration())
    require_same(" again", first, {kind: reader.library.get(kind) for kind in RECORDS})


# --- cards and beeps ---


def beeps(name, count, is_long, question):
    @row(name, "reader")
    def _(reader):
        reader.library.succeed("BeepNow", count, is_long)
        reader.pause()  # a text may come late
        reader.confirm(question, "BeepNow succeeds, but that was not heard")


beeps("two short beeps are heard", 2, 0, "Did you hear two short beeps?")
beeps("a long beep is heard", 1, 1, "Did you hear one long beep?")


def wait_for_card(reader):
    """Polls until a card is there, whatever the polls' statuses are. Returns all polls."""
    polls = []
    is_found = reader.within_timeout(lambda: polls.append(reader.library.poll()) or polls[-1].has_card)
    require(is_found, f"no card was reported in {len(polls)} polls")
    reader.report(fact={"card": True})
    return polls


def compare_with_printed(poll, text):
    """How the number on the card is in the ID: as it should, otherwise, or not."""
    swapped = int.from_bytes(poll.value.to_bytes(32, "little").rstrip(b"\0"), "big")
    numbers = {int(text, base) for base in (10, 16) if base == 16 or text.isdecimal()}

    def has_number(value):
        return any(value >> shift & (1 << width) - 1 in numbers for shift in range(256) for width in range(8, 257 - shift))
    found = has_number(poll.value)
    require(found or not has_number(swapped), f"{poll}: {text} is in it only with the bytes reversed")
    return f"{poll}: {text} is in it" if found else f"{poll}: {text} is not in it: compare by hand"


@row("a card is reported, and its ID is right", "reader")
def _(reader):
    polls = [reader.library.poll()]
    reader.please("Hold a card to the reader, and keep it there until the next step.")
    polls += wait_for_card(reader)
    poll, failed = polls[-1], sum(not each.status for each in polls)
    require(0 <= poll.bits <= 256, f"{poll}: the length is no number of bits")
    require(poll.value.bit_length() <= (poll.bits or 256), f"{poll}: the ID has {poll.value.bit_length()} bits: "
            "is its length in bytes, or the most significant byte first?")
    require(not failed, f"{poll}: {failed} of {len(polls)} polls returned 0, which means a disconnected reader")
    try:
        text = reader.ask("Type number, a space, and the number printed on the card.", r"number\s+([0-9a-f]+)")
    except Skipped as reason:
        if str(reason) != "skipped":
            raise
        return f"{poll}; the number printed on the card is not known"
    return compare_with_printed(poll, text)


@row("a card that stays is reported at every poll", "card")
def _(reader):
    reader.please("Keep the card at the reader, or hold it there again.")
    wait_for_card(reader)
    reports = 0
    for _ in range(12):
        reader.pause()
        reports += reader.library.poll().has_card
    require(reports == 12, f"at {reports} of 12 polls")


@row("a card that was removed is no longer reported", "card")
def _(reader):
    reader.library.poll()
    reader.please("Remove the card.")
    require(reader.within_timeout(lambda: not reader.library.poll().has_card), "it is still reported")
    reader.pause()
    require(not reader.library.poll().has_card, "it is reported again")


# --- rows that set something ---


def led(name, question, *fields):
    # Without ReadCfg before, and with the record that the agent sends.
    @row(name, "reader", sets=True)
    def _(reader):
        reader.library.set("LEDCtrl", (*fields, 0, 0, 0, 0, 1))
        reader.confirm(question, "SetLEDCtrl succeeds, but that was not seen")


led("the LED turns red", "Is the LED red?", 1, 1, 0)
led("the LED turns green", "Is the LED green?", 1, 0, 1)
led("the LED turns amber", "Is the LED amber?", 1, 1, 1)
led("the LED turns off", "Is the LED off?", 1, 0, 0)
led("the reader controls the LED again", "Does the LED look as it does right after plugging in?", 0, 0, 0)


def changed(fields, kind):
    index = RECORDS[kind]
    return (*fields[:index], fields[index] ^ 1, *fields[index + 1 :])


def require_connection(reader, after):
    require(reader.library.poll().status, f"{after} drops the connection: " + reader.library.failure("GetQueuedID"))


@row("Get returns what Set was given, without WriteCfg", "reader", sets=True, write=True)
def _(reader):
    before = reader.library.read_configuration()
    for kind in RECORDS:
        for fields in (changed(before[kind], kind), before[kind]):
            reader.library.set(kind, fields)
            require_same("", {kind: fields}, {kind: reader.library.get(kind)})


@row("WriteCfg stores the configuration and keeps the connection", "reader", sets=True, write=True)
def _(reader):
    fields = changed(reader.library.read_configuration()["Flags"], "Flags")
    reader.library.set("Flags", fields)
    reader.library.succeed("WriteCfg")
    seconds = reader.library.seconds
    require_connection(reader, "WriteCfg")
    reader.connect("after WriteCfg: ")
    reader.library.succeed("ReadCfg")
    require_same(" after WriteCfg", {"Flags": fields}, {"Flags": reader.library.get("Flags")})
    return milliseconds(seconds)


@row("ResetFactoryDflts succeeds and keeps the connection", "reader", sets=True, write=True)
def _(reader):
    before = reader.library.read_configuration()
    reader.library.succeed("ResetFactoryDflts")
    seconds = reader.library.seconds
    require_connection(reader, "ResetFactoryDflts")
    is_same = reader.library.read_configuration() == before
    return milliseconds(seconds) + "; it changed nothing" * is_same


# --- ends: a reader that stays taken or unplugged fails no other row ---


@row("calls return without a marker function")
def _(reader):
    reader.library.set_marker(False)
    reader.search()
    reader.library.call("BeepNow", 1, 0)
    reader.pause()  # a text may come late


@row("a process exits while it is connected", "reader")
def _(reader):
    reader.stays_connected = True


@row("an exited process leaves the reader free", "reader")
def _(reader):
    pass  # it is connected


@row("polls fail after unplugging, and plugging in connects again", "reader")
def _(reader):
    reader.please("Unplug the reader.")
    require(reader.within_timeout(lambda: reader.library.poll().status == 0), "polls still succeed")
    details = [reader.library.failure("GetQueuedID")]
    for name, *arguments in (("BeepNow", 1, 0), ("ReadCfg",)):
        details.append(reader.library.failure(name, reader.library.call(name, *arguments)))
    require(not reader.search(), "usbConnect still connects")
    reader.please("Plug the reader in again.")
    reader.connect()
    require(reader.library.poll().status, "after plugging in: " + reader.library.failure("GetQueuedID"))
    return "; ".join(details)


# --- steps of the check itself ---


def save(reader):
    records = reader.library.read_configuration()
    require_same(" again", records, reader.library.read_configuration())
    reader.report(fact={"configuration": {"reader": reader.library.part_number()[1], "records": records}})


def restore(reader):
    _, part = reader.library.part_number()
    require(part == reader.saved["reader"], f"the configuration is of reader {reader.saved['reader']}, "
            f"but {part} is connected")
    before = reader.library.read_configuration()
    # Also when nothing seems to differ: what was set without WriteCfg may not show.
    records = {kind: tuple(reader.saved["records"][kind]) for kind in RECORDS}
    for kind, fields in records.items():
        reader.library.set(kind, fields)
    if before != records:
        reader.library.succeed("WriteCfg")


def verify(reader):
    require_same(" after restoring", reader.saved["records"], reader.library.read_configuration())


SAVE, RESTORE, VERIFY = (Row(step, step.__name__, "reader") for step in (save, restore, verify))
ALL = (*ROWS, SAVE, RESTORE, VERIFY)
