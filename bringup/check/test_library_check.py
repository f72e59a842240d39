#!/usr/bin/env python3
"""The check against the virtual reader's library, and against libraries with a fault each.

    bringup/check/test_library_check.py BUILD_FOLDER
"""

import concurrent.futures
import glob
import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import unittest

BUILD = pathlib.Path(sys.argv[1]).resolve()
PIPES = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "text": True}


def library(folder, name):
    return glob.glob(f"{BUILD}/{folder}/lib{name}.*")[0]


WHOLE = library("CardReaderAgent.app/Contents/Frameworks", "pcProxAPI")
BROKEN = library("bringup/broken_libraries", "broken_library")
LACKING = library("bringup/broken_libraries", "lacking_library")

# What the person who is asked does to the reader, or looks for in what it shows.
PERSON = {
    "Pull the reader out": "unplug",
    "Plug the reader in": "plug",
    "Hold a card up": "card hold 3AB1234/26",
    "Keep the card there": "",
    "Take the card away": "card remove",
    "Did it beep twice": "beeps 2 short, 0 long",
    "Did it beep once": "beeps 2 short, 1 long",
    "Is the LED red": "led red",
    "Is the LED green": "led green",
    "Is the LED amber": "led amber",
    "Is the LED off": "led off",
    "Is the LED as it is": "led auto",
}

# By fault: what else the run needs, and the only line that must not hold.
FAULTS = {
    "crashes when the marker function is set again": ("", "SetMarkerFunction sets, removes and sets again"),
    "hangs when disconnected twice": ("", "USBDisconnect returns when nothing is connected"),
    "connects nothing": ("person", "usbConnect gives 0 when no reader is plugged in"),
    "polls nothing": ("person", "calls fail while no reader is connected"),
    "has no error number": ("", "GetLastLibErr gives a number after a failure"),
    "never connects": ("person", "usbConnect connects the reader"),
    "lets the part number fade": ("", "the part number stays valid until the next call"),
    "connects once": ("person", "a reader that was disconnected connects again"),
    "gives an empty ID a length": ("", "a poll without a card succeeds, with an ID of zeros"),
    "polls slowly": ("", "a poll takes less than 250 ms"),
    "does not read": ("", "ReadCfg reads the configuration"),
    "gives another value at first": ("", "ReadCfg and each Get give the same twice"),
    "reads another value for once": ("", "ReadCfg and each Get give the same twice"),
    "forgets fields": ("", "Get gives what Set was given, without WriteCfg"),
    "crashes in a long beep": ("", "a long beep is heard"),
    "beeps shortly only": ("person", "a long beep is heard"),
    "knows no amber": ("person", "the LED turns amber"),
    "hangs at amber": ("", "the LED turns amber"),
    "reports no card": ("person", "a card that is held up is reported"),
    "reports a held card once": ("person", "a card that is kept there is reported at every poll"),
    "reports a card without end": ("person", "a card that was taken away is reported no more"),
    "does not write": ("write", "WriteCfg stores the configuration"),
    "does not reset": ("write", "ResetFactoryDflts succeeds and leaves a reader"),
    "writes once": ("write", "the configuration is put back"),
    "polls a reader that has gone": ("person", "a poll fails when the reader was pulled out"),
    "does not find the reader again": ("person", "a reader that was plugged in again connects"),
    "says on another thread": ("", "texts come during calls, on the caller's thread"),
    "says later": ("", "texts come during calls, on the caller's thread"),
    "says after removal": ("", "no text comes once the marker function is removed"),
    "writes 18 bytes": ("", "Get and Set write within the 16 bytes of a record"),
    "writes before a record": ("", "Get and Set write within the 16 bytes of a record"),
    "prints": ("", "nothing is printed on standard output"),
    "prints at its end": ("", "nothing is printed on standard output"),
}


class Run:
    """A virtual reader, a check and its person."""

    def __init__(self, checked, how, fault=""):
        self.folder = tempfile.TemporaryDirectory()
        path = self.folder.name
        self.env = {**os.environ, "VIRTUAL_READER_SOCKET": f"{path}/socket", "BROKEN": fault,
                    "WHOLE_LIBRARY": WHOLE}
        self.report_file, self.saved = f"{path}/report", f"{path}/saved"
        self.person = "person" in how
        plugged = ["--unplugged"] if self.person else []
        self.reader = subprocess.Popen([BUILD / "virtual-reader", *plugged], env=self.env, **PIPES)
        self.execute('say SetLEDCtrl "led" always')
        options = ["--timeout", "4", "--report", self.report_file]
        options += [] if self.person else ["--no-person"]
        options += ["--write", self.saved] if "write" in how else []
        self.check = subprocess.Popen([BUILD / "library-check", *options, checked], env=self.env,
                                      stderr=subprocess.DEVNULL, **PIPES)

    def execute(self, *verbs):
        """Has the verbs carried out, and returns what is printed meanwhile."""
        self.reader.stdin.write("\n".join([*verbs, "led", "beeps", ""]))
        self.reader.stdin.flush()
        told = ""
        while "beeps " not in told:
            line = self.reader.stdout.readline()
            if not line:
                raise AssertionError("the virtual reader has ended")
            told += line
        return told

    def tell_configuration(self):
        return [line for line in self.execute("config").splitlines() if "reserved" in line]

    def play(self):
        """Answers all questions. Returns the exit status and all that was printed."""
        printed, answered = "", 0
        while text := self.check.stdout.read(1):
            printed += text
            if not self.person or not printed.endswith("it out] "):
                continue
            question = printed[answered:]
            answered = len(printed)
            deed = next(value for key, value in PERSON.items() if key in question)
            is_look = deed.startswith(("led", "beeps"))
            answer = "" if not is_look else "y" if deed in self.execute() else "n"
            self.check.stdin.write(answer + "\n")
            self.check.stdin.flush()
            if deed and not is_look:
                self.execute(deed)
        return self.check.wait(20), printed

    def report(self):
        with open(self.report_file, encoding="utf-8") as file:
            return json.load(file)

    def end(self):
        self.configuration = self.tell_configuration()
        self.reader.communicate(timeout=10)
        self.check.kill()
        self.check.communicate()
        self.folder.cleanup()


def outcomes(report, outcome):
    return [each["name"] for each in report["expectations"] if each["outcome"] == outcome]


def run(checked, how, fault=""):
    running = Run(checked, how, fault)
    try:
        status, printed = running.play()
        return status, printed, running.report()
    finally:
        running.end()


class LibraryCheck(unittest.TestCase):
    def test_everything_holds_for_the_virtual_reader(self):
        status, printed, report = run(WHOLE, "person write")
        self.assertEqual((status, outcomes(report, "does not hold")), (0, []), printed)
        self.assertEqual(outcomes(report, "could not be tried"), [], printed)
        digest = subprocess.run(["cksum", "-a", "sha256", "--untagged", WHOLE], text=True,
                                stdout=subprocess.PIPE, check=False).stdout.split(" ")[0]
        self.assertIn(digest, report["sha256"])

    def test_each_fault_shows_in_its_line_alone(self):
        cases = {fault: (BROKEN, *case) for fault, case in FAULTS.items()}
        cases["lacks GetDevName"] = (LACKING, "", "every function is there")
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            runs = {fault: pool.submit(run, case[0], case[1], fault) for fault, case in cases.items()}
        for fault, running in runs.items():
            with self.subTest(fault):
                status, printed, report = running.result()
                self.assertEqual(outcomes(report, "does not hold"), [cases[fault][2]], printed)
                self.assertEqual(status, 1)

    def test_an_interrupted_check_puts_the_configuration_back(self):
        running = Run(WHOLE, "write")
        before = running.tell_configuration()
        running.execute("hang ResetFactoryDflts", "expect enter ResetFactoryDflts within 20000")
        running.check.send_signal(signal.SIGINT)
        running.execute("release")
        status, printed = running.play()
        report = running.report()
        running.end()
        self.assertIn("the configuration is put back", printed)
        self.assertEqual(running.configuration, before)
        self.assertEqual(status, 1)
        self.assertIn("the configuration is put back", outcomes(report, "could not be tried"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
