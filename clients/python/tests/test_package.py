"""The package as pip installs it."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

PACKAGE = Path(__file__).resolve().parents[1]
USES = "import card_reader_agent as c; print(c.__version__, c.__file__)"


def run(*command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True, **options).stdout


def builder():
    """A Python that needs nothing from an index to build a package, or None."""
    for python in sys.executable, "/usr/bin/python3":
        if not subprocess.call([python, "-c", "import setuptools, wheel, pip"], stderr=subprocess.DEVNULL):
            return python
    return None


class PackageTest(unittest.TestCase):
    def test_installed_it_is_typed_and_complete(self):
        folder = Path(tempfile.mkdtemp())
        source = folder / "a source"
        shutil.copytree(PACKAGE, source)  # to build it leaves files there
        python = builder()
        pip_is_there = ["--system-site-packages", "--without-pip"] if python else []
        run(python or sys.executable, "-m", "venv", *pip_is_there, folder / "venv")
        pip = [folder / "venv/bin/python", "-m", "pip", "install", "--quiet", "--no-compile"]
        environment = {**os.environ, "PIP_DISABLE_PIP_VERSION_CHECK": "1"}
        environment.pop("PYTHONPATH", None)
        run(*pip, *(["--no-build-isolation", "--no-index"] if python else []), source, env=environment)
        told = run(folder / "venv/bin/python", "-c", USES, env=environment, cwd=folder).split()
        installed = Path(told[1]).parent
        self.assertTrue(installed.is_relative_to((folder / "venv").resolve()), installed)
        files = {path.name for path in (PACKAGE / "card_reader_agent").iterdir()} - {"__pycache__"}
        self.assertLessEqual(files, {path.name for path in installed.iterdir()})
        self.assertIn("py.typed", files)
        info = next(installed.parent.glob("card_reader_agent-*.dist-info"))
        self.assertEqual(info.name, f"card_reader_agent-{told[0]}.dist-info")
