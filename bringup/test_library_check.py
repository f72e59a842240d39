#!/usr/bin/env python3
"""The check against the virtual reader's library, and against libraries with a fault each.

    PYTHONPATH=clients/python bringup/test_library_check.py BUILD_FOLDER [--all-moments]
"""

import concurrent.futures
import glob
import json
import os
import pathlib
import pty
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[1]
BUILD = pathlib.Path(sys.argv[1]).resolve()
sys.path.insert(0, str(ROOT / "clients/python"))
from card_reader_agent.testing import VirtualReader  # noqa: E402

CHECK = ROOT / "bringup/library-check"
TEMPORARY = tempfile.TemporaryDirectory()
WHOLE = shutil.copy(glob.glob(f"{BUILD}/CardReaderAgent.app/Contents/Frameworks/libpcProxAPI.*")[0],
                    TEMPORARY.name)
BROKEN, NEEDY = (glob.glob(f"{BUILD}/bringup/broken_libraries/lib{name}_library.*")[0]
                 for name in ("broken", "needy"))

# What the person does with the reader, or looks for in what it shows.
PERSON = {
    "Unplug the reader": "unplug",
    "Plug in the reader": "plug",
    "Plug the reader in again": "plug",
    "Hold a card to": "card hold 3AB1234/32",
    "Type number": "number 61542964",
    "Keep the card": "",
    "Remove the card": "card remove",
    "two short beeps": "beeps 2 short, 0 long",
    "one long beep": "beeps 2 short, 1 long",
    "LED red": "led red",
    "LED green": "led green",
    "LED amber": "led amber",
    "LED off": "led off",
    "LED look": "led auto",
    "Repeat this step": "no",
}

ZEROS, MANY = "a poll without a card succeeds, with an ID of zeros", "200 polls in a row succeed"
FIRST_POLL, CARD = "a poll succeeds right after connecting", "a card is reported, and its ID is right"
CONNECT, UNPLUGGED = "usbConnect connects the reader", "polls fail after unplugging, and plugging in connects again"
SAME, BEEPS = "ReadCfg and each Get return the same twice", "two short beeps are heard"
LONG_BEEP, AMBER = "a long beep is heard", "the LED turns amber"
LENGTH, EXITS = "each text comes with its length", "each process exits with status 0"
INSIDE, RESET = "Get and Set write within the 16 bytes of a record", "ResetFactoryDflts succeeds and keeps the connection"
WRITE = "WriteCfg stores the configuration and keeps the connection"
# A run each: how, and by the library's faults the rows that must fail, with a part of the detail.
RUNS = (
    ("write", {
        "has no error number": {"GetLastLibErr returns a number after a failure": "0 after"},
        "connects slowly": {"usbConnect takes less than 1 s": "ms: commands wait"},
        "lets the part number fade": {"the part number stays valid until the next call": "became"},
        "leaks descriptors": {"the reader connects again 10 times, and no descriptor stays open": "10 descriptors"},
        "gives an empty ID a length": {ZEROS: "0/26"}, "fails one poll in a hundred": {MANY: "2 of 200 fail"},
        "prints": {"nothing is printed on standard output": "connecting"},
        "says on another thread": {"texts come during calls, on the caller's thread": "says thread"},
        "says a level for the length": {LENGTH: "goes on after its 2 bytes"},
        "starts a helper": {"no process of the library stays behind": "kept"},
        "says after removal": {"no text comes once the marker function is removed": "late"},
        "writes 18 bytes": {INSIDE: "GetFlags wrote 2 bytes after its record"}}),
    ("write", {
        "hangs when disconnected twice": {"USBDisconnect returns when nothing is connected": "did not return",
                                          EXITS: "USBDisconnect: did not return"},
        "keeps the reader taken": {"an exited process leaves the reader free": "usbConnect 0", UNPLUGGED: "usbConnect 0"},
        "says a length beyond the text": {LENGTH: "ends before its 9 bytes"},
        "fails the first polls": {FIRST_POLL: "GetQueuedID 0", ZEROS: "GetQueuedID", MANY: "2 of 200"},
        "polls slowly": {"a poll takes less than 250 ms": "median"},
        "writes before a record": {INSIDE: "SetFlags wrote 2 bytes before its record"}}),
    ("", {
        "crashes when the marker function is set again": {
            "SetMarkerFunction sets, removes and sets again": "SetMarkerFunction: crashed: SIGABRT"},
        "returns 8 bits": {"calls fail while no reader is connected": "0x4100: 0 if the library returns 8 bits"},
        "hangs at exit": {EXITS: "exiting: did not return"},
        "needs ReadCfg for the LED": dict.fromkeys((
            "the LED turns red", "the LED turns green", AMBER, "the LED turns off", "the reader controls the LED again"),
            "SetLEDCtrl 0")}),
    ("unplugged", {
        "crashes at exit": {EXITS: "exiting: crashed: SIGABRT"},
        "connects without a reader": {CONNECT: "no poll succeeds", FIRST_POLL: "", ZEROS: "", MANY: "",
                                      SAME: "", BEEPS: "", LONG_BEEP: ""}}),
    ("write", {
        "forgets fields": {"Get returns what Set was given, without WriteCfg": "byte 10 is 0 instead of 110",
                           "the configuration is restored": "byte 10"},
        "does not reset": {RESET: "ResetFactoryDflts 0"},
        "drops the connection at WriteCfg": {WRITE: "WriteCfg drops the connection"}}),
    ("write", {"does not write": {WRITE: "byte 14"},
               "drops the connection at a reset": {RESET: "ResetFactoryDflts drops the connection"}}),
    ("person", {
        "beeps shortly only": {LONG_BEEP: "not heard"}, "knows no amber": {AMBER: "not seen"},
        "puts the most significant byte first": {CARD: "only with the bytes reversed"},
        "reports a held card once": {"a card that stays is reported at every poll": "of 12 polls"},
        "polls an unplugged reader": {UNPLUGGED: "still succeed"}}),
    ("person", {"counts bytes": {CARD: "the ID has 26 bits"}, "reads another value once": {SAME: "GetTimeParms"},
                "reports a card without end": {"a card that was removed is no longer reported": "still"}}),
    ("person", {"reports no card": {CARD: "no card"},
                "connects without a reader": {"usbConnect returns 0 when no reader is plugged in": "still connects"}}),
    ("person", {"returns 0 without a card": {CONNECT: "no poll succeeds", FIRST_POLL: "", ZEROS: "", MANY: "",
                                             CARD: "returned 0", UNPLUGGED: "after plugging in"}}),
    ("person", {"never connects": {CONNECT: "usbConnect 0 (error"}}),
)


class Run:
    """A virtual reader, a check and its person."""

    def __init__(self, library, how, faults=""):
        self.folder = tempfile.TemporaryDirectory()
        self.person = "person" in how
        self.reader = VirtualReader(BUILD / "virtual-reader", plugged=not ({"person", "unplugged"} & {how}))
        self.reader.execute('say SetLEDCtrl "led" always')
        self.env = {**self.reader.env, "BROKEN": faults.replace(", ", ";") + ";", "WHOLE_LIBRARY": WHOLE, "TMPDIR": self.folder.name}
        self.report_file, self.backup = f"{self.folder.name}/report", f"{self.folder.name}/backup"
        options = ["--timeout", "5", "--report", self.report_file]
        options += [] if self.person else ["--non-interactive"]
        options += ["--write", self.backup] if "write" in how else []
        self.process = self.start(*options, library)

    def start(self, *arguments):
        return subprocess.Popen([CHECK, *arguments], env=self.env, stdin=subprocess.PIPE, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT)

    def finish(self):
        """Answers all questions. Returns the exit status and all output."""
        output, answered = "", 0
        while text := self.process.stdout.read(1):
            output += text
            if not self.person or not output.endswith("repeat] "):
                continue
            question, answered = output[answered:].splitlines()[-1], len(output)
            action = next(value for key, value in PERSON.items() if key in question)
            answer = action if action in ("no", PERSON["Type number"]) else "go"
            if action.startswith(("led", "beeps")):
                answer = "Y" if action in self.reader.execute("led") + self.reader.execute("beeps") else "n"
            elif answer == "go" and action:
                self.reader.execute(action)
            self.process.stdin.write(answer + "\n")
            self.process.stdin.flush()
        return self.process.wait(20), output

    def report(self):
        return json.loads(pathlib.Path(self.report_file).read_text(encoding="utf-8"))

    def configuration(self):
        return self.reader.execute("config"), self.reader.execute("led").replace("dark", "auto")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.communicate()
        self.reader.close()
        self.folder.cleanup()


def outcomes(report, outcome):
    return {each["name"]: each["detail"] for each in report["checks"] if each["outcome"] == outcome}


def run(how, faults):
    with Run(BROKEN, how, faults) as check:
        before = check.configuration()
        status, output = check.finish()
        return status, output, check.report(), before == check.configuration()


TROUBLES = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGKILL, "hang", "crash")
MOMENTS = ("usbConnect at 1", "GetQueuedID at 3", "ReadCfg at 2", "GetFlags at 2", "SetLEDCtrl at 1", "SetLEDCtrl at 4",
           "SetIDBitCnts at 1", "SetFlags at 1", "SetTimeParms at 2", "SetFlags2 at 1", "WriteCfg at 6", "WriteCfg at 14",
           "ResetFactoryDflts at 1", "SetLEDCtrl at 6")


def disturb(trouble, moment):
    """Makes trouble at a call. Returns whether the reader was restored, the output, and whether the
    line in the output restores it.
    """
    with Run(BROKEN, "write", "stores at each Set") as check:
        before = check.configuration()
        check.reader.execute("hang " + moment)
        check.reader.execute(f"expect enter {moment.split()[0]} within 60000")
        if trouble == "crash":
            row = subprocess.run(["pgrep", "-P", str(check.process.pid)], stdout=subprocess.PIPE, text=True).stdout
            os.kill(int(row), signal.SIGKILL)
        elif trouble != "hang":
            check.process.send_signal(trouble)
            check.reader.release()
        _, output = check.finish()
        check.reader.execute("expect agent detached within 20000")
        is_restored = before == check.configuration()
        line = re.search(r"-check (--restore .*)", output)
        if not is_restored and line:
            check.start("--timeout", "3", *shlex.split(line[1])).communicate()
        return is_restored, output, before == check.configuration()


class LibraryCheck(unittest.TestCase):
    def test_each_fault_fails_its_row(self):
        with concurrent.futures.ThreadPoolExecutor(6) as pool:
            running = [(faults, pool.submit(run, how, ", ".join(faults))) for how, faults in RUNS]
        for faults, future in running:
            with self.subTest(", ".join(faults)):
                status, output, report, is_restored = future.result()
                rows = {row: detail for rows in faults.values() for row, detail in rows.items()}
                failed = outcomes(report, "fail")
                self.assertEqual((status, sorted(failed)), (1, sorted(rows)), failed)
                for row in failed:
                    self.assertIn(rows[row], failed[row])
                self.assertTrue(is_restored or "NOT restored" in output, output)
                if "writes 18 bytes" in faults:
                    self.assertNotRegex("\n".join(report["recording"]), "Set(ID|Flags|Time|LED)")

    def test_whole_library_leaves_nothing_unchecked(self):
        with Run(WHOLE, "person write") as check:
            status, output = check.finish()
            report = check.report()
            check.reader.execute('part "OTHER"')
            check.reader.replug()
            before = check.configuration()
            refused = check.start("--timeout", "2", "--restore", check.backup, WHOLE).communicate()[0]
            self.assertIn('is of reader "VR-1", but "OTHER" is connected', refused)
            self.assertEqual(before, check.configuration())
        self.assertEqual((status, outcomes(report, "fail"), outcomes(report, "skip")), (0, {}, {}), output)
        path = pathlib.Path(TEMPORARY.name, "recording")
        path.write_text("\n".join(report["recording"]) + "\n", encoding="utf-8")
        verbs = subprocess.run([BUILD / "virtual-reader", "--to-scenario", path], stdout=subprocess.PIPE, text=True)
        self.assertEqual(verbs.returncode, 0)
        self.assertIn("3AB1234/32", verbs.stdout)

    def test_wrong_library_or_file_ends_with_one_line(self):
        folder = pathlib.Path(TEMPORARY.name)
        (folder / "text").write_text("no library", encoding="utf-8")
        for faults, arguments, message in (
                ("crashes while loading", [BROKEN], "loading the library: crashed: SIGABRT"),
                ("exits while loading", [BROKEN], "loading the library: exited with status 3"),
                ("", [folder / "text"], "text: "), ("", [folder / "none"], "none: cannot read: no such file"),
                ("", ["--write", folder / "none/backup", WHOLE], "none/backup: cannot create: No such file"),
                ("", ["--report", folder / "text", WHOLE], "text: cannot create: File exists"),
                ("", ["--restore", folder / "text", WHOLE], "text: expected a configuration saved by --write")):
            with self.subTest(message):
                env = {**os.environ, "BROKEN": faults + ";", "WHOLE_LIBRARY": WHOLE}
                result = subprocess.run([CHECK, *arguments], env=env, stdin=subprocess.DEVNULL, text=True,
                                        capture_output=True)
                self.assertEqual((result.returncode, result.stdout), (2, ""), result)
                self.assertRegex(result.stderr, f"^library-check: [^\n]*{re.escape(message)}[^\n]*\n$")
        with VirtualReader(BUILD / "virtual-reader") as reader:
            result = subprocess.run([CHECK, "--non-interactive", NEEDY], stdin=subprocess.DEVNULL, text=True,
                                    stdout=subprocess.PIPE, env={**reader.env, "WHOLE_LIBRARY": WHOLE})
            self.assertIn("fail  the library loads from another folder\n        put what it needs", result.stdout)

    def test_reader_is_restored_or_the_output_says_how(self):
        cases = [(trouble, moment) for trouble in TROUBLES for moment in MOMENTS]
        if "--all-moments" not in sys.argv:
            cases = cases[4::17]
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for case, result in zip(cases, pool.map(lambda case: disturb(*case), cases)):
                with self.subTest(case):
                    is_restored, output, is_restored_by_hand = result
                    if "--all-moments" in sys.argv:
                        print(*case, "restored" if is_restored else "restored by the line", sep=": ")
                    self.assertTrue(is_restored or is_restored_by_hand, output)
                    if case[0] in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
                        self.assertTrue(is_restored, output)

    def test_person_at_a_terminal(self):
        # Output goes to a file, questions to the terminal; a card is typed, input is typed ahead,
        # an end of input skips one step, and a step is repeated.
        with VirtualReader(BUILD / "virtual-reader") as reader:
            report = pathlib.Path(TEMPORARY.name, "terminal-report")
            pid, terminal = pty.fork()
            if pid == 0:
                os.dup2(os.open(os.devnull, os.O_WRONLY), 1)
                os.execve(CHECK, [CHECK, "--timeout", "1", "--report", report, WHOLE], reader.env)
            answers = iter(["04A1B2C3\n", "repeat\n", "\x04", "yes\ngo\n"])
            shown, seen = "", 0
            try:
                while data := os.read(terminal, 4096):
                    shown += data.decode(errors="replace")
                    if shown[seen:].endswith("repeat] "):
                        seen = len(shown)
                        os.write(terminal, next(answers, "skip\n").encode())
            except OSError:  # the terminal's end
                pass
            os.close(terminal)
            self.assertEqual(os.waitpid(pid, 0)[1], 0, shown)
            found = json.loads(report.read_text(encoding="utf-8"))
        self.assertEqual(found["typed"], ["04a1b2c3", "yes"])
        self.assertEqual(shown.count("Unplug the reader, if"), 3)  # asked, asked after the card, repeated
        self.assertIn("usbConnect connects the reader", outcomes(found, "pass"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
