#!/usr/bin/env python3
"""The virtual reader's command line: verdicts about applications, and what a run leaves behind.

    tests/test_command_line.py BUILD_DIR

AGENT in the environment names the agent that the applications here start.
"""
import json
import os
import pty
import re
import select
import signal
import subprocess
import sys
import tempfile
import termios
import time
import unittest
import xml.etree.ElementTree
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parents[1] / "clients/python"))
from card_reader_agent.testing import VirtualReader, VirtualReaderError  # noqa: E402

BUILD = Path(sys.argv.pop(1)).resolve()
READER = BUILD / "virtual-reader"
AGENT = os.environ["AGENT"]
PIPES = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE}

# An application: starts the agent, prints "ready", and sends the commands for a card.
APP = """
import os, subprocess, sys, threading
threading.Thread(target=lambda: (sys.stdin.read(), os._exit(0)), daemon=True).start()
pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "text": True}
agent = subprocess.Popen([os.environ["AGENT"]], **pipes)
for line in agent.stdout:
    word, _, rest = line.strip().partition(": ")
    if word == "Reader":
        name = rest
        print("ready", flush=True)
    if word == "Card":
        for command in %r:
            agent.stdin.write(f"{name}:{command}\\n")
        agent.stdin.flush()
"""
RIGHT = APP % ["SetLED green", "Beep short 1"]
START = 'print("ready", flush=True)'
SEND = "agent.stdin.write(f'{name}:SetLED green\\n{name}:Beep short 1\\n'); agent.stdin.flush()"
AT_START = (APP % []).replace(START, SEND)
# Reacts to the connection, late, and to no card; its agent polls rarely.
LATE = "import os\nos.environ['POLL_MS'] = '2000'" + AT_START.replace(
    SEND, SEND.replace("agent.stdin", "threading.Timer(0.8, lambda: (agent.stdin", 1)
    .replace("; agent.stdin.flush()", ", agent.stdin.flush())).start()"))
# Reacts to the first card twice, and to no other.
TWICE = "cards = 0\n" + (APP % []).replace('if word == "Card":', "cards += word == 'Card'\n"
                                          "    for _ in range(2 * (word == 'Card' and cards == 1)):\n"
                                          f"        {SEND}")
DENIES = RIGHT.replace(START, START + "; print('\\x1b[31maccess NOT granted\\x1b[0m\\r', flush=True)")
# One that ends as its code says; its agent ends with its own standard input.
BEGIN = """
import os, signal, subprocess, sys, time
agent = subprocess.Popen([os.environ["AGENT"]], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
agent.stdout.readline()
print(1, flush=True)
"""
ENDS_AGENT = BEGIN + "sys.stdin.read(); agent.communicate()\n"
FORK = "os.fork() or time.sleep(60)\n"
SESSION = "os.fork() or (os.setsid(), time.sleep(60))\n"


def script(led=20000, beep=20000, none=100):
    """What is expected of the right application, in milliseconds: short only where it must fail."""
    return f"""
expect connected within 20000
card queue 3AB1234/26
expect led green within {led}
expect beep short 1 within {beep}
expect no beep within {none}
"""


class CommandLine(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.env = {**os.environ, "TMPDIR": folder.name, "MARK": folder.name}
        self.addCleanup(self.assert_nothing_is_left)

    def assert_nothing_is_left(self):
        """No process with this environment, and no private folder."""
        deadline = time.monotonic() + 30
        while (left := self.left()) and time.monotonic() < deadline:
            time.sleep(0.05)
        self.assertEqual(left, [])

    def left(self):
        found = [name for name in os.listdir(self.folder) if name.startswith("virtual-reader-")]
        for process in Path("/proc").glob("[0-9]*"):
            try:
                is_mine = f"MARK={self.folder}\0".encode() in (process / "environ").read_bytes()
                command = (process / "cmdline").read_bytes()
            except OSError:
                continue
            if is_mine and command:
                found.append(command)
        return found

    def popen(self, *line, **how):
        process = subprocess.Popen(line, **{"env": self.env, "text": True, **how})
        self.addCleanup(process.__exit__, None, None, None)
        self.addCleanup(process.kill)
        return process

    def file(self, text, name="a script.txt"):
        path = self.folder / name
        path.write_bytes(text if isinstance(text, bytes) else text.encode())
        return path

    def start(self, text, *command, options=()):
        return self.popen(READER, *options, self.file(text), "--", *command,
                          stdin=subprocess.DEVNULL, **PIPES)

    def run_reader(self, *line, told="", **how):
        """Status, standard output, standard error without this test's folder."""
        run = subprocess.run([READER, *line], env=self.env, input=told, capture_output=True,
                             text=True, timeout=60, check=False, cwd=self.folder, **how)
        return run.returncode, run.stdout, run.stderr.replace(f"{self.folder}/", "")

    def run_app(self, text, program, options=()):
        """Status, verdict without what leads to it, standard output, standard error."""
        status, out, err = self.run_reader(*options, self.file(text), "--", sys.executable, "-c",
                                           program)
        return status, err.splitlines()[-1].removeprefix("virtual-reader: "), out, err

    def assert_verdicts(self, rows):
        for text, program, status, verdict, *options in rows:
            with self.subTest(verdict=verdict, program=program[-60:]):
                got = self.run_app(text, program, *options)
                self.assertEqual(got[:2], (status, verdict), got[3])

    def test_each_wrong_application_has_its_verdict(self):
        place, nobody = "a script.txt:", " (no agent connected)"
        early = "before the script finished"
        stay = ["--stay", "--timeout", "1"]
        surplus = "expected no more in this step, got"
        two = script().replace("expect no beep within 100", "card queue 3AB1234/26\nexpect led green\nexpect beep short 1")
        chatty = APP.replace("for line", "print('x' * 99 + '\\n' * 60000)\nfor line") % []
        self.assert_verdicts([
            # script, application, status, verdict
            (script(), RIGHT, 0, "PASSED"),
            (script(led=500), APP % ["SetLED red", "Beep short 1"], 1,
             f"FAILED: {place}4: expected led green, got led red"),
            (script(beep=500), APP % ["SetLED green", "Beep short 5"], 1,
             f"FAILED: {place}5: expected beep short 1, got beep short 5"),
            (script(none=20000), APP % ["SetLED green", "Beep short 1", "Beep short 1"], 1,
             f"FAILED: {place}6: expected no beep, got beep short 1"),
            (script(), "raise SystemExit(255)", 3,
             f"COMMAND FAILED: {place}2: command exited with status 255 {early}{nobody}"),
            (script(), "import os; os.abort()", 3,
             f"COMMAND FAILED: {place}2: command exited with signal 6 {early}{nobody}"),
            ("expect connected within 500", "import time; time.sleep(60)", 1,
             f"FAILED: {place}1: expected connected within 500 ms, got no connected; nothing has "
             "happened since"
             + nobody),
            # Nothing was tested:
            ("expect connected within 20000\nquit\nexpect led green", RIGHT, 1,
             f"FAILED: {place}2: `quit` before the end of the script"),
            ("expect no led within 10", "import sys; sys.stdin.read()", 1,
             f"FAILED: nothing was tested{nobody}"),
            ("wait 300\nexpect no reset within 300", RIGHT, 1,
             "FAILED: nothing was tested: no `expect` held, but for `expect no`"),
            ("wait 10\nexpect conected", RIGHT, 2, "ERROR: nothing was run"),
            ("# expect connected\n\n", RIGHT, 2, "ERROR: nothing was run"),
            ("wait 60000", RIGHT, 4, f"TIMED OUT: {place}1: after 1000 ms", stay),
            ("plug", RIGHT, 4, "TIMED OUT: after 1000 ms, after the script finished", stay),
            # Its lines push the agent's events out of the log.
            ("expect connected\nwait 1500\nexpect led red within 100", chatty, 1,
             f"FAILED: {place}3: expected led red within 100 ms, got no led"),
            # Reactions that are not the card's.
            (script(), AT_START, 1, f"FAILED: {place}3: {surplus} led green"),
            (script(), LATE, 1,
             f"FAILED: {place}4: expected led green, got led green before the card was fetched"),
            (two, TWICE, 1, f"FAILED: {place}6: {surplus} led green"),
            (two, RIGHT, 0, "PASSED"),
            (script(), APP % ["SetLED green", "SetLED red", "Beep short 1"], 1,
             f"FAILED: {place}6: {surplus} led red"),
            ("expect received ready\nexpect received access granted within 100", DENIES, 1,
             f"FAILED: {place}2: expected received access granted within 100 ms, got received "
             "access NOT granted"),
            ("expect received ready\nexpect received /^access (NOT )?granted$/", DENIES, 0, "PASSED"),
        ])

    def test_command_gets_what_it_needs_and_is_asked_to_end(self):
        runs = "expect received 1 within 20000"
        stubborn = BEGIN + "signal.signal(15, signal.SIG_IGN); time.sleep(60)"
        left = "PASSED: command left child processes running; ended by SIGTERM"
        self.assert_verdicts([
            (runs, ENDS_AGENT, 0, "PASSED"),
            (runs, ENDS_AGENT + "raise SystemExit(5)", 3,
             "COMMAND FAILED: command exited with status 5"),
            (runs, BEGIN + "time.sleep(60)", 0, "PASSED"),
            (runs, stubborn, 3, "COMMAND FAILED: command did not exit; killed"),
            (runs, FORK.join(["import os, time\n", ENDS_AGENT]), 0, left),
            (runs, SESSION.join(["import os, time\n", ENDS_AGENT]), 0, left),
        ])

    def test_nothing_is_left_of_an_interrupted_run(self):
        for number in signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGKILL:
            run = self.start("expect connected within 20000\nwait 60000",
                             sys.executable, "-c", RIGHT)
            self.assertEqual(run.stdout.readline(), "ready\n")
            run.send_signal(number)
            err = run.communicate(timeout=20)[1].replace(f"{self.folder}/", "")
            is_kill = number == signal.SIGKILL
            self.assertEqual(run.returncode, -number if is_kill else 4, err)
            self.assertEqual("INTERRUPTED: a script.txt:" in err, not is_kill)
            self.assert_nothing_is_left()

    def test_without_a_script_the_run_ends_with_its_command(self):
        rows = [
            # command, standard input, status, words of the verdict
            ("import time; time.sleep(1)", "", 0, "PASSED"),
            ("raise SystemExit(5)", "", 3, "command exited with status 5"),
            ("import sys; sys.stdin.read(); raise SystemExit(5)", 'echo "x"', 3, "status 5"),
            ("pass", "wait 60000\nexpect card", 3, "status 0 before standard input ended"),
            ("import sys; sys.stdin.read()", "expect card within 10", 1, "expected card within"),
            ("import os, sys; os.chdir('/'); sys.exit(not os.path.exists("
             "os.environ['VIRTUAL_READER_SOCKET']))", "", 0, "PASSED"),
        ]
        for program, told, status, verdict in rows:
            got = self.run_reader("--socket", "r", "--", sys.executable, "-c", program, told=told)
            self.assertEqual((got[0], verdict in got[2]), (status, True), got)
        status, _, err = self.run_reader("--", "/no/such/program")
        self.assertEqual((status, err), (3, "virtual-reader: COMMAND FAILED: cannot run /no/such/"
                                            "program: No such file or directory (no agent "
                                            "connected)\n"))

    def test_a_replay_passes_only_if_it_is_played_to_its_end(self):
        recording = self.folder / "recording"
        lines = ("1 call SetMarkerFunction 1", "1 call USBDisconnect", "1 call SetDevTypeSrch 0",
                 "1 call usbConnect -> 1", "1 call getPartNumberString -> \"VR-1\"",
                 "1 call GetQueuedID 1 0 -> 0", "1 call BeepNow 1 0 -> 1",
                 "1 call GetQueuedID 1 0 -> 0")
        rows = [(lines[:6], 0, "PASSED"), (lines, 1, "diverged"), (lines, 0, "PASSED", "--lenient")]
        for played, status, words, *options in rows:
            text = "".join(f"0.{number:06} {line}\n" for number, line in enumerate(played))
            recording.write_text("# card reader recording 1\n" + text)
            got = self.run_reader(*options, "--replay", recording, "--", AGENT)
            self.assertEqual((got[0], words in got[2].splitlines()[-1]), (status, True), got)
        got = self.run_reader("--replay", recording, "--", "true")
        self.assertEqual(got[0], 3, got)
        self.assertIn("status 0 before the recording ended (no agent connected)", got[2])

    def test_several_scripts_have_a_reader_each_and_a_report(self):
        good = self.file(script(), "good.txt")
        bad = self.file("expect connected\nexpect led red within 10", "bad.txt")
        events, junit = self.folder / "events", self.folder / "junit"
        status, _, err = self.run_reader("--events", events, "--junit", junit, good, bad, good,
                                         "--", sys.executable, "-c", RIGHT)
        said = [line for line in err.splitlines() if line.startswith("virtual-reader: ")]
        failure = "FAILED: bad.txt:2: expected led red within 10 ms, got no led"
        self.assertEqual(status, 1)
        self.assertEqual([re.sub("; .*", "", line) for line in said], [
            "virtual-reader: good.txt: PASSED", f"virtual-reader: bad.txt: {failure}",
            "virtual-reader: good.txt: PASSED", "virtual-reader: FAILED: 2 of 3 scripts passed"])
        suite = xml.etree.ElementTree.parse(junit).getroot()
        self.assertEqual((suite.get("tests"), suite.get("failures")), ("3", "1"))
        self.assertIn("expected led red", suite[1][0].get("message"))
        logged = [json.loads(line) for line in events.read_text().splitlines()]
        self.assertEqual([(event["status"], event["path"] and Path(event["path"]).name, event["line"])
                          for event in logged if event["kind"] == "verdict"],
                         [(0, None, None), (1, "bad.txt", 2), (0, None, None)])
        self.assertEqual(sum(event["text"] == "agent attached" for event in logged), 3)

    def test_files_and_options_that_are_wrong_have_messages_of_their_own(self):
        long = 'echo "' + "x" * (4 << 20) + '"\necho "x"'
        rows = [
            # text of a script, options, status, message
            ('echo "x"\nfial', [], 2, "file:2: unknown verb 'fial'"),
            ("plug\r\n", ["--check"], 2, "file:1: line ends with CR LF"),
            (b"\xef\xbb\xbfplug", ["--check"], 2, "file:1: byte order mark"),
            ("plug", ["--check"], 0, ""),
            ("plug\nlop", ["--check"], 2, "file:2: unknown verb"),
            ("loop\nwait 1", [], 2, "file:1: `loop` needs an earlier `wait`"),
            ('send "a"', [], 2, "file:1: `send` needs a COMMAND"),
            (long, [], 2, "file:1: the line is longer than 4 MiB"),
            ("", ["--timeout", "0"], 2, "invalid --timeout '0'"),
            ("", ["--execute", "plug"], 2, "--execute can be combined only"),
            ("", ["--speed", "2"], 2, "unknown option '--speed'"),
            ("", [""], 2, "empty argument"),
            ("", ["/no/such"], 2, "cannot read /no/such: No such file or directory"),
            ("", ["/tmp"], 2, "cannot read /tmp: Is a directory"),
            ("", ["--"], 2, "missing COMMAND"),
            ("plug", ["--events", "/no/such"], 2, "cannot write /no/such: No such file"),
        ]
        for text, options, status, message in rows:
            options = [*options, "file"] if options != ["--"] else options
            self.file(text, "file")
            got = self.run_reader("--socket", "s", *options)
            self.assertEqual((got[0], message in got[2]), (status, True), got)
        recording = self.file("# card reader recording 1\n0.1 1 call usbConnect -> 1\n")
        with open("/dev/full", "w") as full:
            run = subprocess.run([READER, "--to-scenario", recording], stdout=full, stderr=subprocess.PIPE)
        self.assertEqual(run.returncode, 2, run)

    def test_a_script_or_standard_input_without_a_command(self):
        rows = [
            # verbs, options, is a script, status, output
            ('unplug\necho "x"\nled', [], True, 0, "unplugged\n= x\n= led dark\n"),
            ("led", ["--unplugged"], True, 0, "= led dark\n"),
            ('fial\necho "x"', [], False, 1, "= x\n"),
            ("plug\nquit\nbad", [], False, 0, ""),
            ("expect reset within 0", ["--stay"], True, 1, ""),
            ('unplug\nexpect reset within 0\necho "x"', [], True, 1, "unplugged\n"),
            ('expect reset within 0\necho "x"', ["--keep-going"], True, 1, "= x\n"),
        ]
        for text, options, is_script, *wanted in rows:
            name = [self.file(text)] if is_script else []
            got = self.run_reader("--socket", "s", *options, *name, told="" if name else text)
            self.assertEqual([*got[:2]], wanted, got)
        run = self.popen(READER, "--socket", "s", self.file('echo "x"\nwait 60000'),
                         cwd=self.folder, **PIPES)
        self.assertEqual(run.stdout.readline(), "= x\n")
        run.terminate()
        self.assertEqual((run.wait(30), run.stderr.read()), (4, ""))
        with VirtualReader(READER, arguments=["--stay", self.file("plug")]) as reader:
            reader.expect("input ended")
            reader.process.terminate()
            self.assertEqual(reader.process.wait(30), 0)

    def test_verbs_are_executed_on_a_running_reader(self):
        with VirtualReader(READER, plugged=False) as reader:
            line = [READER, "--socket", reader.socket, "--execute"]
            self.assertEqual(os.stat(reader.socket).st_mode & 0o777, 0o600)
            late = subprocess.run([*line, "wait 60000", "--timeout", "0.1"], capture_output=True)
            self.assertEqual((late.returncode, late.stderr), (4, b"virtual-reader: timed out\n"))
            both = subprocess.run([*line, 'echo "a"', "-e", 'echo "b"'], capture_output=True)
            self.assertEqual((both.returncode, both.stdout), (0, b"a\nb\n"))
            with open("/dev/full", "w") as full:
                lost = subprocess.run([*line, 'echo "a"'], stdout=full, stderr=subprocess.PIPE)
            self.assertEqual(lost.returncode, 2, lost)
            waiting = self.popen(*line, "expect reset within 60000", stderr=subprocess.PIPE)
            reader.plug()
            following = self.popen(*line, "events follow 1", **PIPES)
            self.assertRegex(following.stdout.readline(), " - plugged in\n$")
            self.assertEqual(reader.execute("unplug\nexpect unplugged\nled"), "led dark\n")
            self.assertRegex(following.stdout.readline(), r"^\d+\.\d{6} - verb unplug\n$")
            with self.assertRaisesRegex(VirtualReaderError, "^FAILED: expected unplugged within 0"):
                reader.expect("unplugged", within=0)  # behind the cursor of all clients
            with self.assertRaisesRegex(VirtualReaderError, "did you mean 'plug'"):
                reader.execute("plog")
        self.assertEqual(waiting.wait(60), 1)
        _, err = following.communicate(timeout=60)
        self.assertEqual((following.returncode, err), (1, "interrupted\n"))
        self.assertEqual(self.run_reader("--socket", "s", "-e", "show")[0], 2)

    def test_a_killed_agent_whose_call_hung_does_not_hold_the_reader(self):
        with VirtualReader(READER) as reader:
            start = lambda: self.popen(AGENT, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                       env={**self.env, "VIRTUAL_READER_SOCKET": reader.socket})
            reader.execute("hang GetQueuedID")
            killed = start()
            waiting = self.popen(READER, "--socket", reader.socket, "-e", "expect reset within 60000")
            reader.execute("expect connected\nexpect enter GetQueuedID")
            waiting.kill()
            killed.kill()
            reader.expect("agent detached", within=2000)  # not only at the call's end
            start()
            reader.expect("connected")
            self.assertIn('"holds_reader":true', reader.execute("show"))

    def test_nobody_is_held_up_by_output_that_nobody_reads(self):
        run = self.start("wait 60000", sys.executable, "-c", "while True: print('x' * 1000)",
                         options=["--timeout", "1"])
        self.assertEqual(run.wait(timeout=30), 4)
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE}
        reader = self.popen(READER, "--socket", self.folder / "s", **pipes)
        reader.stdin.write("unplug\n" + "replug\n" * 18_000 * 3 + 'echo "done"\n')
        reader.stdin.flush()
        line = [READER, "--socket", self.folder / "s", "--execute"]
        subprocess.check_call([*line, "expect verb replug within 20000"])
        printed = "".join(iter(reader.stdout.readline, "= done\n"))
        self.assertEqual(printed[-12:], "\nplugged in\n")
        reader.communicate(timeout=60)
        self.assertEqual(reader.returncode, 0)

    def test_an_agent_as_command_is_sent_lines(self):
        rows = [
            ('send "Beep short 2"\nexpect beep short 2\nexpect received Ok:', 0, ""),
            ('send "Beep short 9"\nexpect received "Ok:" within 500', 1, "Invalid number of beeps"),
            ("card raw 300 1\ncard queue 3/2\nexpect received Card: 3", 0, ""),
            ('send "Global:Ping gr\xfc\xdfe"\nexpect received "Ok:  gr\xfc\xdfe"', 0, ""),
        ]
        for text, status, words in rows:
            script = self.file("expect connected\nexpect received /^Reader: Dev/\n" + text)
            got = self.run_reader(script, "--", AGENT)
            self.assertEqual((got[0], words in got[2]), (status, True), got)

    @unittest.skipUnless("MOST_KIB" in os.environ, "its memory is not its own alone")
    def test_memory_stays_small(self):
        with VirtualReader(READER) as reader:
            text = '"' + r"\xFF" * 1_000_000 + '"'
            reader.process.stdin.write(f"part {text}\nfail GetQueuedID always\n".encode())
            reader.process.stdin.flush()
            reader.expect("verb fail")
            agent = self.popen(AGENT, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
            agent.communicate()
            reader.process.stdin.write(("card queue" + " 3AB1234/26" * 1000 + "\n").encode() * 10)
            reader.process.stdin.write(b'echo "done"\n')
            reader.process.stdin.flush()
            while "= done" not in reader.output:
                time.sleep(0.01)
            self.assertLess(max(map(len, reader.execute("show").splitlines())), 520)
            status = Path(f"/proc/{reader.process.pid}/status").read_text(encoding="ascii")
            most = int(status.partition("VmHWM:")[2].split()[0])
            self.assertLess(most, int(os.environ["MOST_KIB"]))

    def test_ctrl_c_ends_the_typed_line_not_the_reader(self):
        child, screen = pty.fork()
        if child == 0:
            os.execve(READER, [READER, "--socket", f"{self.folder}/s"], self.env)
        self.addCleanup(os.close, screen)
        attributes = termios.tcgetattr(screen)
        attributes[3] |= termios.NOFLSH
        termios.tcsetattr(screen, termios.TCSANOW, attributes)
        os.write(screen, b'expect reset within 60000\necho "after"\nexit\n')
        shown = b""
        while b"No agent connected" not in shown:
            shown += os.read(screen, 4096)
        while b"^Cafter\r\n" not in shown:
            os.write(screen, b"\x03")
            if select.select([screen], [], [], 0.05)[0]:
                shown += os.read(screen, 4096)
        self.assertEqual(os.waitpid(child, 0)[1], 0)


if __name__ == "__main__":
    unittest.main()
