"""The time clock, without a reader on the desk. $SDK is the folder of the SDK."""

import os
import subprocess
import sys
import unittest

from card_reader_agent.testing import VirtualReader
from time_clock import TimeClock

SDK = os.environ["SDK"]
CLOCK = [sys.executable, "time_clock.py", f"{SDK}/CardReaderAgent.app"]


class TimeClockTest(unittest.TestCase):
    def test_bookings(self):
        clock = TimeClock()
        cards = "3AB1234", "0FAB1234", "3AB1234", "00"
        expected = ["Ada comes", "Grace comes", "Ada leaves", None]
        self.assertEqual([clock.booked(card) for card in cards], expected)

    def test_a_card_and_a_loose_plug(self):
        with VirtualReader(f"{SDK}/bin/virtual-reader") as reader:
            clock = subprocess.Popen(CLOCK, env=reader.env, stdout=subprocess.PIPE, text=True)
            self.addCleanup(clock.communicate)
            self.addCleanup(clock.kill)
            reader.expect("config tsCfgFlags2.bBeepID=0")
            reader.hold("3AB1234/26")
            reader.expect("led green")
            reader.expect("beep short 1")
            self.assertEqual(clock.stdout.readline(), "Ada comes\n")
            reader.remove()
            reader.expect("led auto")
            reader.replug()
            reader.expect("config tsCfgFlags2.bBeepID=0")
            reader.queue("DEADBEEF/32")
            reader.expect("led red")
            reader.expect("beep long 1")
            reader.expect_no("led green")


if __name__ == "__main__":
    unittest.main()
