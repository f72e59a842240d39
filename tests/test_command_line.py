#!/usr/bin/env python3
"""The virtual reader runs a host: what it says of each, and what it leaves behind.

    tests/test_command_line.py BUILD_DIR

AGENT in the environment names the agent that the hosts here start.
"""
import os
import pty
import select
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

BUILD = Path(sys.argv.pop(1)).resolve()
READER = BUILD / "virtual-reader"

# A host: starts the agent, and sends what `answer` has for a card.
HOST = """
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
RIGHT = HOST % ["SetLED green", "Beep short 1"]


def scenario(led=20000, beep=20000, none=100):
    """What is expected of that host, with times in milliseconds: short only where it must fail."""
    return f"""
expect connected within 20000
card queue 3AB1234/26
expect led green within {led}
expect beep short 1 within {beep}
expect no beep within {none}
"""



class Runs(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.env = {**os.environ, "TMPDIR": self.folder, "MARK": self.folder}
        self.addCleanup(self.nothing_is_left)

    def nothing_is_left(self):
        """No process that had this environment, and no folder of a run's."""
        deadline = time.monotonic() + 30
        while (left := self.left()) and time.monotonic() < deadline:
            time.sleep(0.05)
        self.assertEqual(left, [])

    def left(self):
        found = [name for name in os.listdir(self.folder) if name.startswith("virtual-reader-")]
        for process in Path("/proc").glob("[0-9]*"):
            try:
                mine = f"MARK={self.folder}\0".encode() in (process / "environ").read_bytes()
                command = (process / "cmdline").read_bytes()
            except OSError:
                continue
            if mine and command:
                found.append(command)
        return found

    def popen(self, *line, **how):
        process = subprocess.Popen(line, env=self.env, text=True, **how)
        self.addCleanup(process.__exit__, None, None, None)
        self.addCleanup(process.kill)
        return process

    def start(self, scenario, *command, options=()):
        path = f"{self.folder}/a scenario.txt"
        Path(path).write_text(scenario, encoding="utf-8")
        pipes = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE}
        line = [READER, *options, path, "--", *command]
        return self.popen(*line, **pipes)

    def run_host(self, scenario, program, options=()):
        """The status, the last line on standard error, and all of both outputs."""
        run = self.start(scenario, sys.executable, "-c", program, options=options)
        out, err = run.communicate(timeout=60)
        return run.returncode, err.splitlines()[-1].replace(f"{self.folder}/", ""), out, err

    def test_each_fault_of_a_host_has_its_verdict(self):
        say = "virtual-reader: "
        place = "a scenario.txt:"
        rows = [
            # scenario, host, status, verdict
            (scenario(), RIGHT, 0, say + "passed"),
            (scenario(led=500), HOST % ["SetLED red", "Beep short 1"], 1,
             say + f"FAILED: {place}4: expected led green within 500 ms"),
            (scenario(beep=500), HOST % ["SetLED green", "Beep short 5"], 1,
             say + f"FAILED: {place}5: expected beep short 1 within 500 ms"),
            (scenario(none=20000), HOST % ["SetLED green", "Beep short 1", "Beep short 1"], 1,
             say + f"FAILED: {place}6: expected no beep within 20000 ms"),
            (scenario(), "raise SystemExit(7)", 3,
             say + f"the HOST FAILED: the command exited with status 7 at {place}2, before all was "
             "played (no agent has come)"),
            (scenario(), "import os; os.abort()", 3,
             say + f"the HOST FAILED: the command exited with signal 6 at {place}2, before all was "
             "played (no agent has come)"),
            ("expect connected within 500", "import time; time.sleep(60)", 1,
             say + f"FAILED: {place}1: expected connected within 500 ms; nothing has happened "
             "since (no agent has come)"),
            ("wait 10\nexpect conected", RIGHT, 2, say + "wrong: nothing was run"),
            ("# expect connected\n\n", RIGHT, 2, say + "wrong: nothing was run"),
            ("wait 60000", RIGHT, 4, say + f"CUT OFF: timed out after 300 ms at {place}1"),
            ("plug", RIGHT, 4, say + "CUT OFF: timed out after 300 ms after all was played"),
        ]
        for played, program, status, verdict in rows:
            options = ["--stay", "--timeout", "0.3"] if status == 4 else []
            got = self.run_host(played, program, options)
            self.assertEqual(got[:2], (status, verdict), got[3])

    def test_the_host_is_given_what_it_needs_and_asked_to_end(self):
        begin = "import os, signal, sys, time; signal.signal(15, %s); print(1, flush=True); "
        usual, stubborn = begin % "signal.SIG_DFL", begin % "signal.SIG_IGN"
        runs = "expect received 1 within 20000"
        rows = [
            # scenario, host, status, verdict, output
            (runs, usual + "sys.stdin.read(); print('ended')", 0, "passed", "1\nended\n"),
            (runs, usual + "sys.stdin.read(); raise SystemExit(5)", 3,
             "the HOST FAILED: it ended with status 5", "1\n"),
            (runs, usual + "time.sleep(60)", 0,
             "passed: the host went on after the end of its input, up to SIGTERM", "1\n"),
            (runs, stubborn + "time.sleep(60)", 3,
             "the HOST FAILED: it did not end and was killed", "1\n"),
            # What it started ends with it.
            (runs, usual + "os.fork() or time.sleep(60); sys.stdin.read(); raise SystemExit(5)", 3,
             "the HOST FAILED: it ended with status 5", "1\n"),
            (runs, usual + "os.fork() or time.sleep(60); sys.stdin.read()", 0,
             "passed: what the host had started went on after it, up to SIGTERM", "1\n"),
            ("expect received \xe4 b within 20000",
             "import sys; sys.stdout.buffer.write(b'\\xc3\\xa4 b\\nrest'); sys.stdout.flush();"
             "sys.stdin.read()", 0, "passed", "\xe4 b\nrest"),
        ]
        for played, program, status, verdict, output in rows:
            got = self.run_host(played, program)
            verdict = "virtual-reader: " + verdict + " (no agent has come)" * (status != 0)
            self.assertEqual(got[:3], (status, verdict, output), got[3])

    def test_nothing_is_left_of_an_interrupted_run(self):
        for number in signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGKILL:
            run = self.start("expect connected within 20000\nwait 60000",
                             sys.executable, "-c", RIGHT)
            self.assertEqual(run.stdout.readline(), "ready\n")
            run.send_signal(number)
            _, err = run.communicate(timeout=20)
            if number == signal.SIGKILL:
                self.assertEqual(run.returncode, -signal.SIGKILL)
            else:
                self.assertEqual(run.returncode, 4, err)
                self.assertRegex(err, r"CUT OFF: interrupted at .*:[12]\n$")
            self.nothing_is_left()

    def test_a_run_ends_although_its_output_does_not(self):
        rows = [
            # What is in another session is none of the host's, but may hold on to the output.
            ("import os, sys, time\nif not os.fork():\n os.setsid()\n"
             " while not os.path.exists(os.environ['MARK'] + '/over'): time.sleep(0.05)\n"
             "sys.stdin.read()", "wait 300", [], 0),
            # which nobody reads
            ("while True: print('x' * 1000)", "wait 60000", ["--timeout", "2"], 4),
        ]
        for program, played, options, status in rows:
            run = self.start(played, sys.executable, "-c", program, options=options)
            self.assertEqual(run.wait(timeout=30), status)
            Path(self.folder, "over").touch()
            run.stdout.close()

    def test_without_a_file_the_run_ends_with_its_host(self):
        rows = [
            # the host, standard input, status, words of the verdict
            ("import time; time.sleep(3)", "", 0, "passed"),
            ("raise SystemExit(5)", "", 3, "the command exited with status 5"),
            ("import sys; sys.stdin.read(); raise SystemExit(5)", "echo \"x\"", 3, "status 5"),
            ("pass", "wait 60000\nexpect card", 3, "status 0, before standard input did"),
            ("import sys; sys.stdin.read()", "expect card within 10", 1, "expected card within"),
            ("import os, sys; os.chdir('/'); sys.exit(not os.path.exists("
             "os.environ['VIRTUAL_READER_SOCKET']))", "", 0, "passed"),
        ]
        for program, told, status, verdict in rows:
            run = subprocess.run([READER, "--socket", "r", "--", sys.executable, "-c", program],
                                 cwd=self.folder, env=self.env, input=told, capture_output=True,
                                 text=True, timeout=60, check=False)
            self.assertEqual(run.returncode, status, run.stderr)
            self.assertIn(verdict, run.stderr.splitlines()[-1])
        empty = subprocess.run([READER, "", "--", "true"], capture_output=True, check=False)
        self.assertEqual(empty.returncode, 2, "an empty name is no FILE that is missing")

    def test_a_file_that_is_cut_off_has_not_passed(self):
        socket, file = f"{self.folder}/r", Path(f"{self.folder}/file")
        for rest, told, status in (("wait 60000", "verb plug", 4), ("", "input ended", 0)):
            file.write_text('plug\necho "over"\n' + rest, encoding="ascii")
            run = self.popen(READER, "--socket", socket, "--stay", file, stdout=subprocess.PIPE)
            self.assertEqual(run.stdout.readline(), "= over\n")
            subprocess.check_call([READER, "--socket", socket, "--execute", "expect " + told])
            run.terminate()
            self.assertEqual(run.wait(timeout=30), status)

    def test_it_is_the_host_of_an_agent(self):
        rows = [
            ('send "Beep short 2" "Ok:"\nexpect beep short 2\nexpect received Ok:', 0, ""),
            ('send "Beep short 9" "Ok:"\nwait 5000', 1,
             "expected the answer 'Ok:' to 'Beep short 9', but it was "
             "'Error: Invalid number of beeps: '9''"),
            # What a library says passes for no answer, and moves none.
            ('say BeepNow "x\\nError: no\\nOk:"\nsend "Beep short 1" "Ok:"\n'
             'send "Global:Ping a" "Ok:  a"', 0, ""),
            ('fail BeepNow\nsay GetLastLibErr "x\\nOk:"\nsend "Beep short 1" "Ok:"\nwait 5000', 1,
             "'Error: Beeping failed with error 1'"),
            ('card raw 300 1\ncard queue 3/2\nexpect received Card: 3', 0, ""),
            ('send "Global:Ping gr\xfc\xdfe" "Ok:  gr\xfc\xdfe"', 0, ""),
            ("loop\nwait 1", 2, "without a `wait` before it"),
        ]
        for played, status, words in rows:
            run = self.start("expect connected\n" + played, os.environ["AGENT"])
            _, err = run.communicate(timeout=60)
            self.assertEqual(run.returncode, status, err)
            self.assertIn(words, err)
        run = self.start('send "Global:Ping" "Ok:"', "cat")  # which answers nothing
        _, err = run.communicate(timeout=60)
        self.assertEqual(run.returncode, 1, err)
        self.assertIn("`host` lines are for the agent itself", err)

    def test_an_agent_is_sent_what_several_tell_at_once(self):
        socket = f"{self.folder}/reader.sock"
        run = self.start("expect no reset within 60000", os.environ["AGENT"],
                         options=["--socket", socket])
        self.assertTrue(run.stdout.readline().startswith("Reader: "))
        tell = [READER, "--socket", socket, "--execute"]
        words = [f"word{number}" for number in range(12)]
        for each in [subprocess.Popen([*tell, f'send "Global:Ping {word}"']) for word in words]:
            self.assertEqual(each.wait(timeout=60), 0)
        subprocess.check_call([*tell, 'send "Beep short 1"\nexpect beep short 1'])
        answers = subprocess.check_output([*tell, "events 1000"], text=True)
        self.assertEqual(sorted(line.split()[-1] for line in answers.splitlines()
                                if "received Ok:  " in line), sorted(words))
        self.assertEqual(subprocess.run([*tell, 'send "ResetConfig" "Ok:"']).returncode, 0)
        _, err = run.communicate(timeout=20)
        self.assertIn("expected no reset", err)

    def test_a_file_alone_and_standard_input(self):
        def outcome(text, *options, path=True):
            file = f"{self.folder}/file"
            Path(file).write_text(text)
            line = [READER, "--socket", f"{self.folder}/s", *options, *([file] if path else [])]
            pipe = subprocess.PIPE
            run = self.popen(*line, stdin=pipe, stdout=pipe, stderr=pipe)
            out, err = run.communicate("" if path else text, timeout=60)
            return run.returncode, out, err.replace(file, "file")

        failed = "FAILED: expected reset within 0 ms; since then:\n  "
        wrong = "unknown verb 'fial', did you mean 'fail'?\n"
        rows = [
            (outcome('unplug\necho "x"\nled'), (0, "unplugged\n= x\n= led dark\n", "")),
            (outcome("show", "--unplugged")[1][:13], "= unplugged\n="),
            (outcome('echo "x"\nfial'), (2, "", f"file:2: {wrong}")),
            (outcome('send "a"')[0], 2),
            (outcome('fial\necho "x"', path=False), (1, "= x\n", f"line 1: {wrong}")),
            (outcome('plug\nquit\nbad', path=False), (0, "", "")),
            (outcome("expect reset within 0", "--stay")[0], 1),
            (outcome("", "--timeout", "0")[0], 2),
            (outcome("", "--execute", "plug")[0], 2),
        ]
        for number, (came, told) in enumerate(rows):
            self.assertEqual(came, told, number)
        long = 'echo "' + "x" * (4 << 20) + '"\necho "x"'
        said = ": the line is longer than 4 MiB\n"
        self.assertEqual(outcome(long), (2, "", "file:1" + said))
        self.assertEqual(outcome(long, path=False), (1, "= x\n", "line 1" + said))
        status, out, err = outcome('unplug\nexpect reset within 0\necho "x"')
        self.assertEqual((status, out), (1, "unplugged\n"))
        self.assertIn(f"file:2: {failed}", err)
        status, out, _ = outcome('expect reset within 0\necho "x"', "--keep-going")
        self.assertEqual((status, out), (1, "= x\n"))

    def test_a_running_reader_is_told(self):
        tell = [READER, "--socket", f"{self.folder}/s", "--execute"]

        def told(verbs):
            run = subprocess.run([*tell, verbs], capture_output=True, text=True, timeout=60)
            return run.returncode, run.stdout, run.stderr

        self.assertEqual(told("show")[0], 2)
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE}
        reader = self.popen(READER, *tell[1:3], **pipes)
        deadline = time.monotonic() + 30
        while told('echo "a"') != (0, "a\n", "") and time.monotonic() < deadline:
            time.sleep(0.01)
        self.assertEqual(os.stat(f"{self.folder}/s").st_mode & 0o777, 0o600)
        late = subprocess.run([*tell, "wait 60000", "--timeout", "0.1"], capture_output=True, check=False)
        self.assertEqual((late.returncode, late.stderr), (4, b"virtual-reader: timed out\n"))
        waiting = self.popen(*tell, "expect reset within 60000", stderr=subprocess.PIPE)
        told("plug")
        following = self.popen(*tell, "events follow 1", stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE)
        self.assertRegex(following.stdout.readline(), " - verb plug\n$")
        self.assertEqual(told("unplug\nexpect unplugged\nled"), (0, "led dark\n", ""))
        self.assertRegex(following.stdout.readline(), r"^\d+\.\d{6} - verb unplug\n$")
        self.assertRegex(following.stdout.readline(), r"^\d+\.\d{6} - unplugged\n$")
        status, out, err = told("expect unplugged within 0")  # the cursor of all is behind it
        self.assertEqual((status, out), (1, ""))
        self.assertRegex(err, "^FAILED: expected unplugged within 0 ms; nothing has happened since")
        self.assertEqual(told("plog")[::2], (1, "unknown verb 'plog', did you mean 'plug'?\n"))
        # Nobody reads what it prints, which holds up neither it nor who tells it.
        for _ in range(3):
            self.assertEqual(told("plug\n" + "replug\n" * 18_000), (0, "", ""))
        reader.stdin.write('echo "here"\n')
        reader.stdin.flush()
        printed = "".join(iter(reader.stdout.readline, "= here\n"))
        self.assertIn(" entries were left out)\n", printed)
        self.assertEqual(printed[-12:], "\nplugged in\n")
        reader.communicate(timeout=60)
        self.assertEqual([process.wait(60) for process in (reader, waiting)], [0, 1])
        _, err = following.communicate(timeout=60)  # too late, too
        self.assertEqual((following.returncode, err),
                         (2, "virtual-reader: the virtual reader has gone before it was done\n"))

    @unittest.skipUnless("MOST_KIB" in os.environ, "its memory is not its own alone")
    def test_its_memory_stays_small(self):
        self.env["VIRTUAL_READER_SOCKET"] = f"{self.folder}/s"
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE}
        reader = self.popen(READER, **pipes)
        text = '"' + r"\xFF" * 1_000_000 + '"'
        reader.stdin.write(f'part {text}\nfail GetQueuedID always\necho "ready"\n')
        reader.stdin.flush()
        self.assertEqual(reader.stdout.readline(), "= ready\n")
        agent = self.popen(os.environ["AGENT"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
        reader.stdin.write(("card queue" + " 3AB1234/26" * 1000 + "\n") * 1000)
        reader.stdin.write('expect fault\nshow\necho "done"\n')
        reader.stdin.flush()
        shown = [*iter(reader.stdout.readline, "= done\n")]
        self.assertIn("= cards queued behind these: 999900\n", shown)
        self.assertLess(max(map(len, shown)), 520)
        status = Path(f"/proc/{reader.pid}/status").read_text(encoding="ascii")
        most = int(status.partition("VmHWM:")[2].split()[0])
        self.assertLess(most, int(os.environ["MOST_KIB"]))
        for process in agent, reader:
            process.communicate(timeout=60)

    @unittest.skipUnless(list(Path("/usr/lib").glob("*/libedit.so.2")), "no line editing is here")
    def test_what_happens_appears_above_the_line_being_typed(self):
        socket = f"{self.folder}/s"
        child, screen = pty.fork()
        if child == 0:
            os.execve(READER, [READER, "--socket", socket], {**self.env, "TERM": "xterm"})
        self.addCleanup(os.close, screen)
        shown = ""

        def shows(*wanted):
            nonlocal shown
            for text in wanted:
                while text not in shown:
                    self.assertTrue(select.select([screen], [], [], 30)[0], (text, shown))
                    shown += os.read(screen, 4096).decode()
                shown = shown[shown.index(text) + len(text):]

        shows("plugged in.", "No agent is there yet", "reader> ")
        os.write(screen, b"card ho\t3AB")
        shows("ld ", "3AB")
        subprocess.check_call([READER, "--socket", socket, "--execute", "unplug"])
        shows("\x1b[J", "unplugged\r\n", "reader> card hold 3AB")
        os.write(screen, b"1234/26\nshow\n")
        shows("card held 3AB1234/26", "reader> ")  # what is typed before that is not edited
        os.write(screen, b"expect led a\t\x15card \t")
        shows("mber ", "drop  hold  queue  raw  remove", "reader> card ")
        os.write(screen, b"\x15\x1b[A")
        shows("show")
        os.write(screen, b"\x15exit\n")
        self.assertEqual(os.waitpid(child, 0)[1], 0)


if __name__ == "__main__":
    unittest.main()
