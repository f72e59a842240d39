"""The client against the agent and the virtual reader in BUILD_DIR; for `hosts/test` to run."""

import asyncio
import faulthandler
import os
import signal
import subprocess
import tempfile
import unittest

from card_reader_agent import Attached, CardReaderAgent, Log, Replaced

BUILD = os.environ["BUILD_DIR"]
AGENT = f"{BUILD}/CardReaderAgent.app/Contents/MacOS/card-reader-agent"
PIPES = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE}
faulthandler.dump_traceback_later(60, exit=True)  # a test that hangs fails


async def outcome(command):
    try:
        return await command
    except Exception as error:
        return f"{type(error).__name__}: {error}"


def outcomes(*commands):
    return asyncio.gather(*map(outcome, commands))


class ClientTest(unittest.IsolatedAsyncioTestCase):
    def setUp(self):
        self.env = {**os.environ, "VIRTUAL_READER_SOCKET": tempfile.mkdtemp() + "/socket"}
        self.reader = subprocess.Popen([f"{BUILD}/virtual-reader"], env=self.env, **PIPES)
        self.addCleanup(self.unplug)
        self.tell()

    def unplug(self):
        self.reader.communicate(timeout=10)
        self.assertEqual(self.reader.returncode, 0)  # no verb was wrong, all expected calls came

    def tell(self, *verbs):
        """Has the verbs carried out and returns what is printed, up to the number of beeps."""
        self.reader.stdin.write("\n".join([*verbs, "beeps\n"]).encode())
        self.reader.stdin.flush()
        told = ""
        while "beeps " not in told and (line := self.reader.stdout.readline()):
            told += line.decode()
        return told

    async def start(self, *verbs):
        """An agent whose reader has carried out the verbs, and the events to its part number."""
        asyncio.get_running_loop().set_debug(False)
        self.tell(*verbs)
        agent = CardReaderAgent(AGENT, env=self.env)
        await agent.start()
        self.addAsyncCleanup(agent.close)
        events = []
        while "part number" not in str(events):
            events.append(await agent.__anext__())
        return agent, events

    async def test_commands(self):
        verbs = ['part "caf\\xe9"', "fail BeepNow error 3", 'say usbConnect "one\\nOk: two"']
        agent, events = await self.start(*verbs)
        name = agent.reader
        self.assertRegex(name, r"^Dev\d+-caf\udce9$")  # its bytes are kept, or no command finds it
        two_lines = "ValueError: A command must not hold a line feed or a zero byte"
        no_name = "ValueError: A reader name must be neither empty nor hold a colon: "
        white_space = "ValueError: White space in setting a.b c"
        no_integer = "ValueError: Unknown format code 'd' for object of type 'float'"
        settings = {"tsCfgFlags": {"bHaltKBSnd": True, "bSndOnRx": -2}, "tsRecord": {"iField": 1}}
        cases = [
            (agent.beep(name), "CommandError: Beeping failed with error 3"),
            (agent.ping("  é 17 "), "  é 17"),
            (agent.beep(name, 2, "long"), ""),
            (agent.clear_led(name), ""),
            (agent.set_led(name, "amber"), ""),
            (agent.reader_config(name, settings), ""),
            (agent.ping("a\nGlobal:Ping b"), two_lines),
            (agent.ping("a\0b"), two_lines),
            (agent.ping("é" * 506), "ValueError: Command line of 1024 bytes, more than 1023"),
            (agent.ping("x" * 1011), "x" * 1011),
            (agent.beep(""), f"{no_name}''"),
            (agent.beep("Dev1-A:B"), f"{no_name}'Dev1-A:B'"),
            (agent.reader_config(name, {"a": {"b c": 1}}), white_space),
            (agent.reader_config(name, {"a": {"b": 1.5}}), no_integer),
            (agent.reset_config(name), ""),
            (agent.close(), 0),  # all before it is answered
            (agent.ping(), "AgentEnded: The agent is not running"),
        ]
        self.assertEqual(await outcomes(*(case[0] for case in cases)), [case[1] for case in cases])
        told = self.tell("calls")
        self.assertIn("beep long 2\nled own\nled amber\nconfig written\nconfig reset\n", told)
        self.assertRegex(told, "SetFlags .* -2 1 -> 1")
        said = [Log("pcProxAPI says one"), Log("Ok: two")]
        part = Log("Reader part number is 'caf\udce9'")
        unknown = Log("Ignoring unexpected setting type tsRecord")
        events += [event async for event in agent]
        self.assertEqual(events, [*said, Attached(name), part, unknown])

    async def test_replugging_amid_10_000_commands(self):
        agent, _ = await self.start("hang BeepNow")
        old = agent.reader
        for wait in agent.beep(old), agent.__anext__():  # what comes later is not lost
            with self.assertRaises(asyncio.TimeoutError):
                await asyncio.wait_for(wait, 0.01)
        texts = [str(i).ljust(50, ".") for i in range(10_000)]
        pings = outcomes(*map(agent.ping, texts))
        await asyncio.sleep(0)  # they are sent
        self.tell("expect BeepNow", "replug", "release")
        self.assertEqual(await pings, texts)
        self.assertEqual(await agent.__anext__(), Replaced(agent.reader, old))
        stale = f"Action was for reader {old}, but the current reader is {agent.reader}"
        self.assertEqual(await outcomes(agent.beep(old)), [f"CommandError: {stale}"])

    async def test_a_killed_agent(self):
        agent, _ = await self.start("hang BeepNow")
        pending = outcomes(agent.beep(agent.reader), agent.ping())
        await asyncio.sleep(0)  # they are sent
        self.tell("expect BeepNow")
        os.kill(agent.pid, signal.SIGKILL)
        killed = "AgentEnded: The agent ended with status -9"
        self.assertEqual(await pending, [killed] * 2)
        self.assertEqual(await outcomes(agent.__anext__(), agent.ping()), [killed] * 2)
        self.assertEqual((agent.reader, agent.pid), (None, None))
        with self.assertRaisesRegex(FileNotFoundError, "/nowhere/agent"):
            await CardReaderAgent("/nowhere/agent").start()

    def test_the_door_list_in_each_language(self):
        known, unknown, expect = "card queue 3AB1234/26", "card queue 00", "expect BeepNow"
        effects = "3AB1234/26\nled green\nbeep short 1\ncard 00/8\nled red\nbeep short 2\n"
        output = r"^Reader (.+) is ready\nAda, come in\nCard 00 is not .*\nReader \1 has gone\n$"
        for program in "python3 python/examples/door_list.py", "node node/examples/door-list.mjs":
            self.tell("plug", known)
            example = subprocess.Popen([*program.split(), AGENT], env=self.env, **PIPES)
            self.addCleanup(example.communicate)
            self.addCleanup(example.kill)
            told = self.tell(expect, unknown, expect, "unplug")
            self.assertIn(effects, told)
            seen = b"".join(example.stdout.readline() for _ in range(4))
            self.assertRegex(seen.decode(), output)
            example.kill()
