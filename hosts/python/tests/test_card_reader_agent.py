"""The client against the agent and the virtual reader in BUILD_DIR."""

import asyncio
import os
import signal
import subprocess
import sys
import time
import unittest
from pathlib import Path

PYTHON = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(PYTHON))

from card_reader_agent import (
    AgentEnded, Attached, CardReaderAgent, CommandError, Gone, Log, Replaced
)
from virtual_reader import AGENT, VirtualReader


class ClientTest(unittest.IsolatedAsyncioTestCase):
    def setUp(self):
        self.reader = VirtualReader()
        self.addCleanup(self.reader.end)
        self.seen = []  # the events so far

    async def start(self, *verbs):
        """Starts an agent; returns it and its events, past the one of its reader."""
        asyncio.get_running_loop().set_debug(False)
        self.reader.tell(*verbs)
        agent = CardReaderAgent(AGENT, env=self.reader.env)
        await agent.start()
        self.addAsyncCleanup(agent.close)
        events = agent.__aiter__()
        self.assertEqual(await self.next(events, Attached), Attached(agent.reader))
        return agent, events

    async def next(self, events, kind):
        while True:
            self.seen.append(await asyncio.wait_for(events.__anext__(), 15))
            if isinstance(self.seen[-1], kind):
                return self.seen[-1]

    async def test_commands(self):
        verbs = ['part "caf\\xe9"', "fail BeepNow error 3", 'say usbConnect "one\\nOk: two"']
        agent, events = await self.start(*verbs, "fail ResetFactoryDflts error 4")
        name = agent.reader
        self.assertRegex(name, r"^Dev\d+-caf\udce9$")  # its bytes are kept, or no command finds it
        beep = asyncio.ensure_future(agent.beep(name))
        self.assertEqual(await agent.ping("  é 17 "), "  é 17")
        with self.assertRaisesRegex(CommandError, "^Beeping failed with error 3$"):
            await beep
        self.assertEqual(await agent.beep(name, 2, "long"), "")
        self.assertEqual(await agent.clear_led(name), "")
        with self.assertRaisesRegex(CommandError, "^Resetting .* error 4$"):
            await agent.reset_config(name)
        self.assertEqual(await agent.set_led(name, "amber"), "")
        settings = {"tsCfgFlags": {"bHaltKBSnd": True, "bSndOnRx": -2}, "tsRecord": {"iField": 1}}
        self.assertEqual(await agent.reader_config(name, settings), "")
        effects = r"led amber\n(?s:.*)bSndOnRx=-2 bHaltKBSnd=1\n(?s:.*)beeps 0 short, 2 long"
        self.assertRegex(self.reader.tell("led", "config"), effects)

        answer = asyncio.ensure_future(agent.ping())
        await asyncio.sleep(0)  # it is sent, and the end comes right behind it
        self.assertEqual(await agent.close(), 0)
        self.assertEqual(await answer, "")
        with self.assertRaises(AgentEnded):
            await agent.ping()
        self.seen += [event async for event in events]
        logs = [event.text for event in self.seen if isinstance(event, Log)]
        number = "Reader part number is 'caf\udce9'"
        unknown = "Ignoring unexpected setting type tsRecord"
        self.assertEqual(logs, ["pcProxAPI says one", "Ok: two", number, unknown])

    async def test_what_no_line_can_tell_is_not_sent(self):
        agent, _ = await self.start()
        for command, message in [
            (agent.ping("a\nGlobal:Ping b"), "line feed"),
            (agent.ping("a\0b"), "zero byte"),
            (agent.ping("é" * 506), "1024 bytes"),
            (agent.beep(""), "reader name"),
            (agent.beep("Dev1-A:B"), "reader name"),
            (agent.reader_config("R", {"a b": {"c": 1}}), "White space"),
            (agent.reader_config("R", {"a": {"b": 1.5}}), "float"),
        ]:
            with self.assertRaisesRegex(ValueError, message):
                await command
        self.assertEqual(await agent.ping("x" * 1011), "x" * 1011)  # a line of 1023 bytes
        with self.assertRaisesRegex(FileNotFoundError, "/nowhere/agent"):
            await CardReaderAgent("/nowhere/agent").start()

    async def test_replugging_in_the_middle_of_10_000_commands(self):
        agent, events = await self.start("hang BeepNow")
        old = agent.reader
        texts = [str(i).ljust(50, ".") for i in range(10_000)]
        beep = asyncio.gather(agent.beep(old), return_exceptions=True)  # the others wait behind it
        pings = asyncio.gather(*map(agent.ping, texts))
        await asyncio.sleep(0)  # they are sent
        self.reader.tell("expect BeepNow", "replug", "release")
        time.sleep(0.3)  # the agent can't write on
        self.assertEqual([str(error) for error in await beep], ["Beeping failed with error 1"])
        self.assertEqual(await pings, texts)
        self.assertEqual(await self.next(events, Replaced), Replaced(name := agent.reader, old))
        message = f"^Action was for reader {old}, but the current reader is {name}$"
        with self.assertRaisesRegex(CommandError, message):
            await agent.beep(old)
        self.reader.tell("unplug")
        self.assertEqual((await self.next(events, Gone), agent.reader), (Gone(name), None))

    async def test_an_answer_that_nobody_waits_for_keeps_the_others_in_step(self):
        agent, _ = await self.start("hang BeepNow")
        with self.assertRaises(asyncio.TimeoutError):
            await asyncio.wait_for(agent.beep(agent.reader), 0.01)
        self.reader.tell("release")
        self.assertEqual(await agent.ping("17"), "17")

    async def test_a_killed_agent_fails_all_that_is_pending(self):
        agent, events = await self.start("hang BeepNow")
        pending = asyncio.gather(agent.beep(agent.reader), agent.ping(), return_exceptions=True)
        await asyncio.sleep(0)  # they are sent
        self.reader.tell("expect BeepNow")
        os.kill(agent.pid, signal.SIGKILL)
        self.assertEqual([error.status for error in await pending], [-signal.SIGKILL] * 2)
        with self.assertRaisesRegex(AgentEnded, "status -9"):
            await self.next(events, Gone)
        with self.assertRaises(AgentEnded):
            await agent.ping()

    def test_the_door_list(self):
        command = [sys.executable, PYTHON / "examples/door_list.py", AGENT]
        pipe = {"stdout": subprocess.PIPE, "env": self.reader.env, "text": True}
        with subprocess.Popen(command, **pipe) as example:
            self.addCleanup(example.kill)
            self.assertRegex(example.stdout.readline(), r"^Reader Dev\d+-VR-1 is ready$")
            told = self.reader.tell("card queue 3AB1234/26", "expect BeepNow", "led")
            self.assertIn("led green\nbeeps 1 ", told)
            told = self.reader.tell("card queue 00", "expect BeepNow", "led")
            self.assertIn("led red\nbeeps 3 ", told)
            example.terminate()
            self.assertEqual(example.stdout.read(), "Ada, come in\nCard 00 is not on the list\n")
