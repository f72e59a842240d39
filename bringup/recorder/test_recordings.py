#!/usr/bin/env python3
"""Recordings: made by the recorder of the virtual reader's library, and played back.

    bringup/recorder/test_recordings.py BUILD_FOLDER

The agents are those of Quick.app, which search and poll more often than others.
"""

import concurrent.futures
import glob
import os
import pathlib
import queue
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest

BUILD = pathlib.Path(sys.argv[1]).resolve()
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "clients/python"))
from card_reader_agent.testing import VirtualReader  # noqa: E402

SCENARIOS = pathlib.Path(__file__).resolve().parents[2] / "virtual_reader/scenarios"
PATIENCE = 30
RECORDER = glob.glob(f"{BUILD}/bringup/recorder/libpcProxAPI-recorder.*")[0]
WHOLE = glob.glob(f"{BUILD}/CardReaderAgent.app/Contents/Frameworks/libpcProxAPI.*")[0]
PIPES = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "encoding": "latin-1"}

# A held card reported once, a slow connection, texts from another thread, a failure: no verb made it.
BY_HAND = """\
# card reader recording 1
0.001000 1 call SetMarkerFunction 1 (0.100 ms)
0.002000 1 call USBDisconnect (0.100 ms)
0.003000 1 call SetDevTypeSrch 0 (0.100 ms)
0.702000 1 says thread "enumerating"
1.202000 1 call usbConnect -> 5 (1200.000 ms)
1.203000 1 call getPartNumberString -> "RDR-7" (0.100 ms)
1.204000 1 call GetQueuedID 1 0 -> 1 (8.000 ms)
1.454000 1 says thread "field on"
1.462000 1 call GetQueuedID 1 0 -> 1 (8.000 ms)
1.463000 1 call GetQueuedID_index 32 -> 26 (0.001 ms)
1.463100 1 call GetQueuedID_index 3 -> 3 (0.001 ms)
1.463200 1 call GetQueuedID_index 2 -> 171 (0.001 ms)
1.463300 1 call GetQueuedID_index 1 -> 18 (0.001 ms)
1.463400 1 call GetQueuedID_index 0 -> 52 (0.001 ms)
1.712000 1 call GetQueuedID 1 0 -> 1 (8.000 ms)
2.100000 1 call BeepNow 2 0 -> 0 (30.000 ms)
2.101000 1 call GetLastLibErr -> -7 (0.001 ms)
2.300000 1 call GetQueuedID 1 0 -> 0 (0.100 ms)
2.301000 1 call USBDisconnect (0.100 ms)
2.302000 1 call SetDevTypeSrch 0 (0.100 ms)
2.303000 1 call usbConnect -> 0 (0.100 ms)
2.350000 1 call GetQueu"""
BY_HAND_LINES = ["Log: pcProxAPI says enumerating", "Reader: Dev-RDR-7",
                 "Log: Reader part number is 'RDR-7'", "Log: pcProxAPI says field on",
                 "Card: 3AB1234"]


def environment(recording):
    named = {"CARD_READER_RECORDING": str(recording)} if recording else {}
    return {**os.environ, "SEARCH_MS": "20", "POLL_MS": "10", **named}


def agent(folder, with_library=True):
    """An agent in a bundle with the recorder, made in the folder if it is not there."""
    contents = pathlib.Path(folder) / "Agent.app/Contents"
    if not contents.exists():
        for part in ("MacOS", "Frameworks"):
            (contents / part).mkdir(parents=True)
        shutil.copy(BUILD / "Quick.app/Contents/MacOS/quick-agent", contents / "MacOS")
        name, ending = os.path.splitext(os.path.basename(WHOLE))
        shutil.copy(RECORDER, contents / "Frameworks" / (name + ending))
        if with_library:
            shutil.copy(WHOLE, contents / "Frameworks" / f"{name}-recorded{ending}")
    return contents / "MacOS/quick-agent"


def without_number(line):
    return re.sub(r"Dev\d+", "Dev", line)


def record(path, folder):
    """Plays a scenario, and returns its status and what passed between host and agent."""
    copy = folder / "scenario"
    copy.write_text(path.read_text(encoding="utf-8") + "\nevents 1000000\n", encoding="utf-8")
    told = subprocess.run([BUILD / "virtual-reader", copy, "--", agent(folder)], check=False,
                          env=environment(folder / "first"), stdin=subprocess.DEVNULL,
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, encoding="latin-1")
    events = []
    for direction, text in re.findall(r"^= \S+ - (sent|received) (.*)", told.stderr, re.MULTILINE):
        # Equal entries in a row are one in the record.
        text, times = re.fullmatch(r"(.*?)(?: \((\d+) times\))?", text).groups()
        is_command = direction == "sent" and not text.startswith("Global:")
        text = text.partition(":")[2] if is_command else without_number(text)
        events += [(direction, text)] * int(times or 1)
    return told.returncode, events


class Bench:
    """A virtual reader, an agent with the recorder, and a host that notes what passes."""

    def __init__(self, folder, *options, recording=None, with_library=True):
        self.reader = VirtualReader(BUILD / "virtual-reader", arguments=options)
        self.execute = self.reader.execute
        env = environment(recording) | {"VIRTUAL_READER_SOCKET": self.reader.socket}
        self.agent = subprocess.Popen([agent(folder, with_library)], env=env,
                                      stderr=subprocess.PIPE, **PIPES)
        self.name, self.lines = "Global", queue.Queue()
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self):
        for line in self.agent.stdout:
            if line.startswith("Reader: "):
                self.name = line[len("Reader: ") : -1]
            self.lines.put(without_number(line[:-1]))
        self.lines.put("(end)")

    def next_line(self):
        return self.lines.get(timeout=PATIENCE)

    def answer(self):
        while not (line := self.next_line()).startswith(("Ok", "Error", "(end)")):
            pass
        return line

    def send(self, command):
        name = "" if command.startswith("Global:") else self.name + ":"
        self.agent.stdin.write(f"{name}{command}\n")
        self.agent.stdin.flush()

    def play_host(self, events):
        """Sends what was sent, each once the lines have come that came before it then."""
        for index, (direction, text) in enumerate(events):
            if direction == "sent":
                self.send(text)
            elif (line := self.next_line()) != text:
                return f"event {index}: {line} instead of {text}"
        return ""

    def end(self):
        """The statuses of reader and agent, and what the agent said on standard error."""
        _, error = self.agent.communicate(timeout=PATIENCE)
        self.reader.close()
        return self.reader.process.returncode, self.agent.returncode, error


def calls(recording):
    """How the calls ended that were recorded, but for times and polls that found nothing."""
    kept, poll = [], []
    for line in [*pathlib.Path(recording).read_text(encoding="latin-1").splitlines(), "end"]:
        if line.startswith("#"):
            continue
        text = re.sub(r" \([0-9.]+ ms\)$", "", line.partition(" ")[2])
        if text.startswith("1 enter "):
            continue
        if "GetQueuedID_index" in text:
            poll.append(text)
            continue
        if any(not each.endswith("-> 0") for each in poll[1:]):
            kept += poll
        poll = [text] if text.endswith("GetQueuedID 1 0 -> 1") else []
        kept += [] if poll else [text]
    return kept


class Recordings(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def test_each_scenario_is_the_same_when_it_is_replayed(self):
        def record_and_replay(path):
            folder = self.folder / path.stem
            folder.mkdir()
            status, events = record(path, folder)
            replayed = Bench(folder, "--replay", folder / "first", recording=folder / "second")
            difference = replayed.play_host(events)
            return status, replayed.end(), difference, folder

        paths = sorted(SCENARIOS.glob("*.txt"))
        self.assertGreater(len(paths), 4)
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for path, result in zip(paths, pool.map(record_and_replay, paths)):
                with self.subTest(path.name):
                    status, ends, difference, folder = result
                    self.assertEqual((status, ends, difference), (0, (0, 0, ""), ""))
                    first = calls(folder / "first")
                    self.assertGreater(len(first), 20)
                    self.assertEqual(first, calls(folder / "second"))

    def test_a_call_that_never_returns_is_recorded_replayed_and_told(self):
        for call, cause in (("BeepNow", "Beep short 2"), ("GetQueuedID", "")):
            with self.subTest(call):
                folder = self.folder / call
                folder.mkdir()
                first = folder / "first"
                bench = Bench(folder, recording=first)
                greeting = [bench.next_line()[:12] for _ in range(2)]
                bench.execute("expect call GetQueuedID -> 1\nhang " + call)
                if cause:
                    bench.send(cause)
                bench.execute("expect enter " + call)
                bench.agent.kill()
                bench.end()
                lines = first.read_text(encoding="ascii").splitlines()
                self.assertRegex(lines[-1], fr"^\S+ 1 enter {call} [12] 0$")

                replayed = Bench(folder, "--replay", first)
                self.assertEqual([replayed.next_line()[:12] for _ in range(2)], greeting)
                if cause:
                    replayed.send(cause)
                replayed.execute("expect enter " + call)
                replayed.send("Global:Ping there")
                self.assertTrue(replayed.lines.empty())
                replayed.execute("release\nexpect replay ended")
                answers = ["Ok:"] * bool(cause) + ["Ok:  there"]
                self.assertEqual([replayed.answer() for _ in answers], answers)
                self.assertEqual(replayed.end(), (0, 0, ""))

                verbs = subprocess.run([BUILD / "virtual-reader", "--to-scenario", first], check=True,
                                       stdout=subprocess.PIPE, encoding="ascii").stdout
                self.assertIn(f"hang {call}" + (" at 1\n" if cause else "\n"), verbs)
                self.assertEqual(verbs.splitlines()[-1], f"expect enter {call} within 12000")

    def test_a_recording_of_a_library_that_behaves_otherwise_is_replayed(self):
        path = self.folder / "by-hand"
        path.write_text(BY_HAND, encoding="ascii")
        bench = Bench(self.folder, "--replay", path)
        self.assertEqual([bench.next_line() for _ in BY_HAND_LINES], BY_HAND_LINES)
        bench.send("SetLED red")  # not recorded
        self.assertEqual(bench.answer(), "Ok:")
        bench.send("Beep long 1")
        self.assertEqual(bench.answer(), "Error: Beeping failed with error -7")
        bench.execute("expect replay diverged: within 20000")
        bench.end()
        verbs = subprocess.run([BUILD / "virtual-reader", "--to-scenario", path], encoding="ascii",
                               stdout=subprocess.PIPE, check=True).stdout
        # A person adds what the application does.
        beep = ('expect received Card: 3AB1234\nsend "Beep short 2"\n'
                'expect received Error: Beeping failed with error -7')
        path.write_text(verbs.replace("expect card 3AB1234/26", "expect card 3AB1234/26\n" + beep), encoding="ascii")
        self.assertEqual(record(path, self.folder)[0], 0)

    def test_what_is_no_recording_is_refused(self):
        for text, complaint in (("", "is no recording"), ("0.1 1 call BeepNow\n", "is no recording"),
                                (BY_HAND.replace("GetLastLibErr", "GetLastError"), ":18: ")):
            path = self.folder / "bad"
            path.write_text(text, encoding="ascii")
            told = subprocess.run([BUILD / "virtual-reader", "--replay", path], encoding="ascii",
                                  stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False)
            self.assertEqual(told.returncode, 2)
            self.assertIn(complaint, told.stderr)
            self.assertEqual(told.stderr.count("\n"), 1)

    def test_the_recorder_never_stands_in_the_way(self):
        os.mkfifo(self.folder / "pipe")
        (self.folder / "mine").write_text("mine", encoding="ascii")
        for file, complaint in ((self.folder / "none/file", "No such file or directory\n"),
                                (self.folder / "pipe", "Operation not supported\n"),
                                ("/dev/full", "No space left on device\n"),
                                (self.folder / "mine", ""), (None, "")):
            with self.subTest(file):
                if file == "/dev/full" and not os.path.exists(file):
                    continue
                bench = Bench(self.folder, recording=file)
                bench.send("Global:Ping there")
                self.assertEqual(bench.answer(), "Ok:  there")
                reader, agent, error = bench.end()
                self.assertEqual((reader, agent), (0, 0))
                self.assertTrue(error.endswith(complaint) and error.count("\n") <= 1, error)
        self.assertEqual((self.folder / "mine").read_text(encoding="ascii"), "mine")
        self.assertEqual([file.name for file in self.folder.glob("**/*.2")], ["mine.2"])

    def test_without_the_library_it_ends_at_once(self):
        bench = Bench(self.folder, with_library=False)
        reader, agent, error = bench.end()
        self.assertEqual((reader, agent), (0, 127))
        self.assertIn("cannot load", error)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
