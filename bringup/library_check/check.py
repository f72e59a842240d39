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
from contextlib import suppress

from . import rows
from .parent import OVERALL, Parent, interpreter
from .person import Person, write

DESCRIPTION = """\
Checks that a reader library behaves as the agent expects. Prompts you to present cards and to plug and
unplug the reader; any step can be skipped or repeated."""
STATUSES = "Exit status: 0 no check failed; 1 a check failed; 2 usage error or library not loadable."


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


def prepare(options):
    """Raises UsageError for what cannot be used."""
    if not os.path.isfile(options.library):
        raise UsageError(f"{options.library}: cannot read: no such file")
    for path in filter(None, (options.report, options.write)):
        try:
            open(path, "x").close()  # a wrong name must show before an afternoon's work
            os.unlink(path)
        except OSError as error:
            raise UsageError(f"{path}: cannot create: {error.strerror}") from None
    if subprocess.run([*interpreter(), "-c", ""], stderr=subprocess.DEVNULL).returncode:
        raise UsageError(f"{sys.executable}: cannot run x86-64 code, which the agent and its library are; "
                         "install Rosetta, and use /usr/bin/python3")
    if interpreter()[0] == "arch":
        say("Running under Rosetta, as the agent does.")


def say(text):
    return write(1, text + "\n")


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
        records = [saved["records"][kind] for kind in rows.RECORDS]
        if isinstance(saved["reader"], str) and all(len(fields) == 8 for fields in records) and all(
                isinstance(field, int) and -32768 <= field <= 32767 for fields in records for field in fields):
            return saved
    except OSError as error:
        raise UsageError(f"{path}: cannot read: {error.strerror}") from None
    except (ValueError, KeyError, TypeError):
        pass
    raise UsageError(f"{path}: expected a configuration saved by --write")


class Check:
    """One run."""

    def __init__(self, options):
        self.options, self.findings = options, []
        self.person = Person(not options.non_interactive)
        self.parent = Parent(options, self.person)
        self.backup, self.saved = options.write or options.restore, None
        with open(options.library, "rb") as file:
            self.digest = hashlib.sha256(file.read()).hexdigest()
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, lambda *_: setattr(self.person, "is_cancelled", True))

    def run(self):
        """Runs all rows. Returns the exit status."""
        first, *others = rows.ROWS
        outcome, detail = self.parent.run(first)
        if outcome == "unloadable":
            raise UsageError(detail)
        self.add(first.name, outcome, detail)
        self.add("the library loads from another folder", *self.load_elsewhere())
        try:
            for previous, row in zip(rows.ROWS, others):
                if self.saved and previous.sets and not row.sets:
                    self.add("the configuration is restored", *self.restore())
                reason = self.reason_to_skip(row)
                self.add(row.name, *(("skip", reason) if reason else self.attempt(row)))
        finally:
            if self.saved:
                self.add("the configuration is restored", *self.restore())
        for key, problems in self.parent.problems.items():
            self.add(OVERALL[key], "fail" if problems else "pass", "; ".join(sorted(problems)))
        outcomes = [each["outcome"] for each in self.findings]
        say("\n{} passed, {} failed, {} skipped".format(*map(outcomes.count, ("pass", "fail", "skip"))))
        return int("fail" in outcomes or self.person.is_cancelled)

    def reason_to_skip(self, row):
        if self.person.is_cancelled:
            return "interrupted"
        if row.write and not self.options.write:
            return "only with --write"
        if row.needs and row.needs not in self.parent.facts:
            return f"no {row.needs} was found"
        if not row.sets:
            return ""
        return self.overruns() or ("" if self.saved else self.save())

    def attempt(self, row):
        """Runs the row, as often as the person wants to."""
        while True:
            self.person.was_asked = False
            outcome, detail = self.parent.run(row)
            if outcome == "fail" and self.person.was_asked:
                again = self.person.ask(f"Failed: {detail}. Repeat this step?", ("yes", "no"))
                if again not in ("yes", "repeat"):
                    return outcome, detail
            elif detail != "repeat":
                return outcome, detail

    def overruns(self):
        return "a call wrote outside its record, so nothing is set" if self.parent.problems["record"] else ""

    def save(self):
        """Saves the reader's configuration before the first change. Returns why that is impossible."""
        outcome, detail = self.parent.run(rows.SAVE)
        if outcome != "pass" or self.overruns():
            return self.overruns() or f"the configuration cannot be saved: {detail}"
        if not self.backup:
            self.backup = os.path.join(tempfile.mkdtemp(prefix="library-check-"), "configuration")
        saved = self.parent.facts["configuration"]
        try:
            replace_file(self.backup, saved)
        except OSError as error:
            return f"{self.backup}: cannot write: {error.strerror}"
        if not say(f"The configuration of reader {saved['reader']} is saved in {self.backup}\n"
                   f"If this check cannot restore it: {self.restore_command()}"):
            return "nobody can read how to restore the reader"
        self.saved = saved
        return ""

    def restore_command(self):
        words = [sys.argv[0], "--restore", self.backup, self.options.library]
        words += ["--device-type", str(self.options.device_type)] * (self.options.device_type != 0)
        return " ".join(map(shlex.quote, words))

    def restore(self):
        for step in (rows.RESTORE, rows.VERIFY):  # in a process each
            outcome, detail = self.parent.run(step, self.saved, is_interruptible=False)
            if outcome != "pass":
                say(f"\nThe reader's configuration is NOT restored: {detail}\n"
                    f"With the reader plugged in: {self.restore_command()}\n")
                return "fail", detail
        if not self.options.write and not self.options.restore:
            shutil.rmtree(os.path.dirname(self.backup))
        self.saved = None
        return "pass", ""

    def load_elsewhere(self):
        """Loads the library as in a bundle: without what lies beside it, but for a recorded library."""
        folder, name = os.path.split(os.path.abspath(self.options.library))
        if os.path.basename(folder) == "Frameworks":
            return "skip", "it lies in a bundle"
        with tempfile.TemporaryDirectory() as elsewhere:
            for file in (name, "-recorded".join(os.path.splitext(name))):
                with suppress(FileNotFoundError):
                    shutil.copy(os.path.join(folder, file), elsewhere)
            outcome, detail = self.parent.run(rows.ROWS[0], path=os.path.join(elsewhere, name))
        if outcome == "unloadable":
            return "fail", f"put what it needs beside it in the bundle, or the agent cannot start: {detail}"
        return "pass", ""

    def add(self, name, outcome, detail=""):
        outcome = "fail" if outcome == "unloadable" else outcome
        self.findings.append({"name": name, "outcome": outcome, "detail": detail})
        say(f"{outcome}  {name}" + (f"\n        {detail}" if detail else ""))
        if self.options.report:
            self.write_report()

    def write_report(self):
        options, name = self.options, os.path.basename(self.options.library)
        try:
            replace_file(options.report, {
                "library": name, "sha256": self.digest, "system": platform.platform(),
                "rosetta": interpreter()[0] == "arch", "device_type": options.device_type,
                "checks": self.findings, "typed": self.person.typed,
                "recording": ["# card reader recording 1", f"# library {name}", *self.parent.recording]})
        except OSError as error:
            say(f"{options.report}: cannot write: {error.strerror}")
            options.report = None


def main():
    options = parse_options()
    try:
        saved = load_backup(options.restore) if options.restore else None
        prepare(options)
        check = Check(options)
        if not saved:
            return check.run()
        check.saved = saved
        outcome, _ = check.restore()
        if outcome == "pass":
            say("The configuration is restored.")
        return int(outcome != "pass")
    except UsageError as error:
        print(f"library-check: {error}", file=sys.stderr)
        return 2
