"""The door list, tested without a reader on the desk. The agent is $AGENT."""

import os
import subprocess
import sys
import unittest
from pathlib import Path

from card_reader_agent.testing import VirtualReader

DOOR_LIST = [sys.executable, Path(__file__).with_name("door_list.py"), os.environ["AGENT"]]


class DoorListTest(unittest.TestCase):
    def test_only_listed_cards_open(self):
        with VirtualReader() as reader:
            application = subprocess.Popen(DOOR_LIST, env=reader.env, stdout=subprocess.DEVNULL)
            self.addCleanup(application.wait)
            self.addCleanup(application.kill)
            reader.expect("led red")
            reader.queue("3AB1234/26")
            reader.expect("led green")
            reader.expect("beep short 1")
            reader.queue("00/8")
            reader.expect("beep short 2")
            reader.expect_no("led green")
            reader.replug()
            reader.expect("led red")
