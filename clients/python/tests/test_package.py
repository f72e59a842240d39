"""The package as pip installs it, and the programs that its users read first."""

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from bench import AGENT, PACKAGE, ends, output
from card_reader_agent.testing import VirtualReader

README = PACKAGE.parent / "README.md"


class PackageTest(unittest.TestCase):
    def setUp(self):
        self.folder = Path(tempfile.mkdtemp())
        self.bench = VirtualReader()
        self.addCleanup(self.bench.close)

    def start(self, agent):
        command = [sys.executable, "-u", self.folder / "cards.py", agent]
        env = {**self.bench.env, "PYTHONPATH": str(PACKAGE)}
        pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True}
        application = subprocess.Popen(command, env=env, start_new_session=True, **pipes)
        self.addCleanup(application.communicate)
        self.addCleanup(application.kill)
        return application

    def assert_prints(self, application, *lines):
        self.assertEqual([application.stdout.readline().strip() for _ in lines], list(lines))

    def test_an_installation_is_typed_and_complete(self):
        shutil.copytree(PACKAGE, self.folder / "source")  # a build leaves files there
        needs = "import setuptools, wheel, pip"
        pythons = [p for p in (sys.executable, "/usr/bin/python3") if not subprocess.call([p, "-c", needs], stderr=-3)]
        if not pythons:
            self.skipTest("no Python here has setuptools, wheel and pip")
        install = "-m pip install --quiet --no-compile --no-build-isolation --no-index --target".split()
        subprocess.run([pythons[0], *install, self.folder / "target", self.folder / "source"], check=True)
        installed = {path.name for path in (self.folder / "target/card_reader_agent").iterdir()}
        files = {path.name for path in (PACKAGE / "card_reader_agent").iterdir()} - {"__pycache__"}
        self.assertEqual(files - installed, set())
        self.assertIn("py.typed", installed)

    def test_the_first_program_of_the_readme_prints_what_it_says(self):
        [text] = re.findall("```python\n(.*?)```", README.read_text("utf-8"), re.DOTALL)
        (self.folder / "cards.py").write_text(text)
        cards = self.start(AGENT)
        self.assert_prints(cards, "searching", "ready")
        self.bench.queue("3AB1234/26")
        self.bench.expect("beep short 1")
        self.bench.unplug()
        self.assert_prints(cards, "3AB1234", "searching the reader was disconnected")
        self.bench.plug()
        self.assert_prints(cards, "ready")
        agent = int(output("pgrep", "-P", cards.pid))
        os.killpg(cards.pid, signal.SIGINT)  # as a terminal does
        self.assertEqual((cards.communicate(timeout=5), cards.returncode), (("", ""), 0))
        self.assertTrue(ends(agent))
        failing = self.start("nowhere")
        printed = "".join(failing.communicate(timeout=5))
        self.assertIn(f"```text\n{printed}```", README.read_text("utf-8"))
