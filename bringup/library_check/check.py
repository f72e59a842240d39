"""The program: its options, the order of the rows, the backup and the report."""

import argparse
import hashlib
import json
import os
import platform
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from . import rows
from .parent import Interrupted, LoadError, Parent, Repeat, interpreter
from .person import Person, write

DESCRIPTION = """\
Checks that a reader library behaves as the agent expects. Prompts you to present cards and to plug and
unplug the reader; any step can be skipped or repeated."""
STATUSES = "Exit status: 0 no check failed; 1 a check failed; 2 usage error or library not loadable."
BACKUP_FORM, REPORT_FORM = "library-check backup 1", "library-check report 2"


class UsageError(Exception):
    """A wrong option or file."""


def parse_options():
    parser = argparse.ArgumentParser("library-check", description=DESCRIPTION, epilog=STATUSES,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    add = parser.add_argument
    add("library", metavar="LIBRARY")
    add("--non-interactive", action="store_true", help="skip every step that needs a person")
    add("--report", metavar="FILE", help="write a JSON report to FILE, which must not exist")
    add("--write", metavar="BACKUP", help="also run checks that write to the reader. Saves its configuration "
        "to BACKUP (which must not exist) first; restores it at the end or on Ctrl-C")
    add("--restore", metavar="BACKUP", help="only restore a saved configuration")
    add("--timeout", metavar="SECONDS", type=float, default=10, help="per call and per prompt (default 10)")
    add("--device-type", metavar="N", type=int, default=0, help="search for this type of reader (default 0)")
    options = parser.parse_args()
    if not 0.1 <= options.timeout <= 3600:
        parser.error("invalid --timeout: expected seconds from 0.1 to 3600")
    if not -32768 <= options.device_type <= 32767:
        parser.error("invalid --device-type: expected a 16-bit number")
    if options.restore and (options.write or options.report):
        parser.error("--restore can be combined only with --timeout and --device-type")
    return options


def try_file(path):
    """Makes and removes a file, so that a wrong name shows before an afternoon's work."""
    try:
        open(path, "x", encoding="utf-8").close()
        os.unlink(path)
    except OSError as error:
        raise UsageError(f"{path}: cannot create: {error.strerror}") from None


def replace_file(path, value):
    """Writes the whole file or leaves the old one, whatever happens meanwhile."""
    with open(path + ".part", "w", encoding="utf-8") as file:
        json.dump(value, file, indent=1)
        file.flush()
        os.fsync(file.fileno())
    os.replace(path + ".part", path)


def load_backup(path):
    try:
        with open(path, encoding="utf-8") as file:
            saved = json.load(file)
        good = saved["backup"] == BACKUP_FORM and "reader" in saved and all(
            len(saved["records"][kind]) == 8 and all(-32768 <= field <= 32767 for field in saved["records"][kind])
            for kind in rows.RECORDS)
    except OSError as error:
        raise UsageError(f"{path}: cannot read: {error.strerror}") from None
    except (ValueError, KeyError, TypeError):
        good = False
    if not good:
        raise UsageError(f"{path}: expected a configuration saved by --write")
    return saved


def say(text):
    return write(1, text + "\n")


class Check:
    """One run."""

    def __init__(self, options):
        self.options = options
        self.person = Person(not options.non_interactive and not options.restore, lambda: self.parent.cancelled)
        self.parent = Parent(options, self.person)
        self.findings = []
        self.backup = options.write
        self.saved = None  # the configuration, once it is saved
        self.is_changed = False  # a row has begun that changes the reader
        with open(options.library, "rb") as file:
            self.digest = hashlib.sha256(file.read()).hexdigest()
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, self._cancel)

    def _cancel(self, *_):
        self.parent.cancelled = True

    def restore_command(self):
        words = [sys.argv[0], "--restore", self.backup, self.options.library]
        words += ["--device-type", str(self.options.device_type)] * (self.options.device_type != 0)
        return " ".join(shlex.quote(word) for word in words)

    def run(self):
        """Runs all rows. Returns the exit status."""
        try:
            for previous, row in zip((rows.ROWS[0], *rows.ROWS), rows.ROWS):
                if previous.sets and not row.sets and self.is_changed and not self.parent.cancelled:
                    self.add("the configuration is restored", *self.restore())
                self.run_row(row)
                if row is rows.ROWS[0]:
                    self.add("the library loads from another folder", *self.load_elsewhere())
        finally:
            if self.is_changed:
                self.add("the configuration is restored", *self.restore())
        if not self.parent.cancelled and "reader" in self.parent.facts:
            self.add("an exited process leaves the reader free", *self.leave_connected())
        self.judge_all_processes()
        if self.saved and not self.options.write and not self.is_changed:
            shutil.rmtree(os.path.dirname(self.backup))
        outcomes = [each["outcome"] for each in self.findings]
        say("\n{} passed, {} failed, {} skipped".format(*map(outcomes.count, ("pass", "fail", "skip"))))
        return int("fail" in outcomes or self.parent.cancelled)

    def run_row(self, row):
        reason = self.reason_to_skip(row)
        if reason:
            return self.add(row.name, "skip", reason)
        try:
            self.add(row.name, *self.attempt(row))
        except Interrupted:
            self.add(row.name, "skip", "interrupted")

    def reason_to_skip(self, row):
        if self.parent.cancelled:
            return "interrupted"
        if row.write and not self.options.write:
            return "only with --write"
        if row.needs not in ("", *self.parent.facts):
            return f"no {row.needs} was found"
        if row.sets and self.parent.overruns:
            return "a call wrote outside its record, so nothing is set"
        return self.save() if row.sets and not self.saved else ""

    def attempt(self, row):
        """Runs the row, as often as the person wants to."""
        while True:
            self.is_changed |= row.sets
            self.person.was_asked = False
            try:
                outcome, detail = self.parent.run(row)
            except Repeat:
                continue
            if outcome != "fail" or not self.person.was_asked or self.parent.cancelled:
                return outcome, detail
            try:
                if self.person.ask(f"Failed: {detail}. Repeat this step?", ("yes", "no")) != "yes":
                    return outcome, detail
            except Repeat:
                pass
            except Interrupted:
                return outcome, detail

    def save(self):
        """Saves the reader's configuration before the first change. Returns why that is impossible."""
        outcome, detail = self.parent.run(rows.SAVE)
        if outcome != "pass":
            return f"the configuration cannot be saved: {detail}"
        if self.parent.overruns:
            return "a call wrote outside its record, so nothing is set"
        if not self.backup:
            self.backup = os.path.join(tempfile.mkdtemp(prefix="library-check-"), "configuration")
        saved = {"backup": BACKUP_FORM, "reader": self.parent.part, "records": self.parent.records,
                 "saved": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())}
        replace_file(self.backup, saved)
        if not say(f"The configuration of reader {self.parent.part} is saved in {self.backup}\n"
                   f"If this check cannot restore it: {self.restore_command()}"):
            return "nobody can read how to restore the reader"
        self.saved = saved
        return ""

    def restore(self):
        outcome, detail = self.parent.run(rows.RESTORE, self.saved, interruptible=False)
        if outcome == "pass":
            outcome, detail = self.parent.run(rows.VERIFY, self.saved, interruptible=False)
        self.is_changed = outcome != "pass"
        if self.is_changed:
            say(f"\nThe reader's configuration is NOT restored: {detail}\n"
                f"With the reader plugged in: {self.restore_command()}\n")
        return outcome, detail

    def judge_all_processes(self):
        """Adds what concerns all processes."""
        parent, heard = self.parent, self.parent.texts
        late = [each["event"] for each in heard if each["was_removed"]]
        removal = next(each for each in self.findings if each["name"].startswith("no text comes once"))
        if late and removal["outcome"] == "pass":
            removal.update(outcome="fail", detail="; ".join(late))
            say(f"fail  {removal['name']}\n        {removal['detail']}")
        others = [each["event"] for each in heard if not each["was_removed"] and
                  (not each["during_call"] or "says thread" in each["event"])]
        wrong = [f"{each['event']}: {each['wrong_length']}" for each in heard if each["wrong_length"]]
        for name, problems in (
                ("texts come during calls, on the caller's thread", others),
                ("each text comes with its length", wrong),
                ("Get and Set write within the 16 bytes of a record", parent.overruns),
                ("nothing is printed on standard output", parent.printed),
                ("each process exits with status 0", parent.exits),
                ("no process of the library stays behind", parent.helpers)):
            self.add(name, "fail" if problems else "pass", "; ".join(sorted(set(problems))))

    def leave_connected(self):
        outcome, detail = self.parent.run(rows.LEAVE)
        return self.parent.run(rows.FIND) if outcome == "pass" else ("skip", detail)

    def load_elsewhere(self):
        """Loads the library as in a bundle: without what lies beside it, but for a recorded library."""
        folder, name = os.path.split(os.path.abspath(self.options.library))
        if os.path.basename(folder) == "Frameworks":
            return "skip", "it lies in a bundle"
        with tempfile.TemporaryDirectory() as elsewhere:
            for file in (name, "-recorded".join(os.path.splitext(name))):
                if os.path.exists(os.path.join(folder, file)):
                    shutil.copy(os.path.join(folder, file), elsewhere)
            try:
                self.parent.run(rows.ROWS[0], path=os.path.join(elsewhere, name))
                return "pass", ""
            except LoadError as error:
                return "fail", f"put what it needs beside it in the bundle, or the agent cannot start: {error}"

    def add(self, name, outcome, detail=""):
        self.findings.append({"name": name, "outcome": outcome, "detail": detail})
        say(f"{outcome}  {name}" + (f"\n        {detail}" if detail else ""))
        self.write_report()

    def write_report(self):
        options, parent = self.options, self.parent
        if not options.report:
            return
        name = os.path.basename(options.library)
        try:
            replace_file(options.report, {
                "report": REPORT_FORM, "library": name, "sha256": self.digest,
                "system": platform.platform(), "rosetta": interpreter()[0] == "arch",
                "device_type": options.device_type, "checks": self.findings, "typed": self.person.typed,
                "recording": ["# card reader recording 1", f"# library {name}", *parent.recording]})
        except OSError as error:
            say(f"{options.report}: cannot write: {error.strerror}")
            options.report = None


def prepare(options):
    """Raises UsageError for what cannot be used."""
    if not os.path.isfile(options.library):
        raise UsageError(f"{options.library}: cannot read: no such file")
    for path in filter(None, (options.report, options.write)):
        try_file(path)
    command = interpreter()
    if subprocess.run([*command, "-c", ""], stderr=subprocess.DEVNULL, check=False).returncode:
        raise UsageError(f"{sys.executable}: cannot run x86-64 code, which the agent and its library are; "
                         "install Rosetta, and use /usr/bin/python3")
    if command[0] == "arch":
        say("Running under Rosetta, as the agent does.")


def main():
    options = parse_options()
    try:
        saved = load_backup(options.restore) if options.restore else None
        prepare(options)
        check = Check(options)
        if not saved:
            return check.run()
        check.saved, check.backup = saved, options.restore
        outcome, _ = check.restore()
        if outcome == "pass":
            say("The configuration is restored.")
        return int(outcome != "pass")
    except (UsageError, LoadError) as error:
        print(f"library-check: {error}", file=sys.stderr)
        return 2
