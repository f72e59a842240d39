"""The door list of examples/, as it is, through all that can happen in a shift."""

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

from bench import AGENT, BUNDLE, child_of, ends
from card_reader_agent.testing import VirtualReader

PACKAGE = Path(__file__).resolve().parents[1]
EXAMPLE = PACKAGE / "examples/door_list.py"
README = PACKAGE.parent / "README.md"


class ShiftTest(unittest.TestCase):
    def start(self, agent, env, program=EXAMPLE):
        """The example, as the shell starts it: in a process group of its own."""
        example = subprocess.Popen(
            [sys.executable, program, agent],
            env={**env, "PYTHONPATH": str(PACKAGE)},
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            start_new_session=True,
        )
        self.addCleanup(example.communicate)
        self.addCleanup(example.kill)
        return example

    def test_a_shift(self):
        bundle = Path(tempfile.mkdtemp()) / "an agent.app"
        shutil.copytree(BUNDLE, bundle)
        shutil.rmtree(bundle / "Contents/Frameworks")
        without_library = self.start(bundle, os.environ)

        bench = VirtualReader()
        self.addCleanup(bench.close)
        example = self.start(AGENT, bench.env)

        def says(*lines):
            for line in lines:
                self.assertEqual(example.stdout.readline().strip(), line)

        says("searching", "ready")
        bench.expect("led red")
        bench.hold("3AB1234/26")
        says("Ada, come in")
        bench.expect("led green")
        bench.expect("beep short 1")
        bench.expect_no("beep", within=1.5)  # however long she holds it
        bench.remove()
        bench.expect("led red")

        bench.replug()
        says("searching the reader was connected anew", "ready")
        self.assertEqual(bench.execute("led"), "led red\n")  # again

        bench.unplug()
        says("searching the reader has gone")
        time.sleep(2)
        bench.plug()
        says("ready")

        os.kill(child_of(example.pid), signal.SIGKILL)
        says("restarting the agent was ended by SIGKILL", "starting", "searching", "ready")

        bench.hang("BeepNow")
        bench.queue("00")
        says("00: not listed")
        bench.expect("enter BeepNow")
        bench.release()
        bench.queue("CDAB1234")
        says("Grace, come in")
        bench.expect("led green")

        agent = child_of(example.pid)
        os.killpg(example.pid, signal.SIGINT)
        self.assertEqual(example.communicate(timeout=5), ("", ""))
        self.assertEqual(example.returncode, 0)
        self.assertTrue(ends(agent))

        output, errors = without_library.communicate(timeout=30)
        self.assertEqual(output.count("restarting the agent ended with status 127: "), 4)
        self.assertIn("libpcProxAPI", output)
        self.assertTrue(errors.splitlines()[-1].startswith("the agent ended with status 127: "))
        self.assertNotIn("Traceback", errors)
        self.assertEqual(without_library.returncode, 1)

    def test_the_program_that_hosts_readme_shows(self):
        [text] = re.findall("```python\n(.*?)```", README.read_text("utf-8"), re.DOTALL)
        program = Path(tempfile.mkdtemp()) / "cards.py"
        program.write_text(text)
        bench = VirtualReader()
        self.addCleanup(bench.close)
        bench.queue("3AB1234/26")
        cards = self.start(AGENT, {**bench.env, "PYTHONUNBUFFERED": "1"}, program)
        self.assertEqual(cards.stdout.readline(), "3AB1234\n")
        os.killpg(cards.pid, signal.SIGINT)
        self.assertEqual((cards.communicate(timeout=5), cards.returncode), (("", ""), 0))
        nowhere = self.start("/nowhere/agent", os.environ, program)
        message = "cannot start /nowhere/agent: ENOENT, No such file or directory\n"
        self.assertEqual((nowhere.communicate(timeout=5), nowhere.returncode), (("", message), 1))
