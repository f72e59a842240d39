"""`CardReaderAgent` against the agent and a virtual reader; for `clients/run-tests` to run."""

import asyncio
import faulthandler
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

from bench import AGENT, ends, runs
from card_reader_agent import Attached, CardReaderAgent, Log, Replaced
from card_reader_agent.testing import VirtualReader

NOT_RUNNING = "AgentEndedError: the agent is not running"
faulthandler.dump_traceback_later(300, exit=True)  # a test that hangs fails


async def outcome(command):
    try:
        return await command
    except Exception as error:
        return f"{type(error).__name__}: {error}"


def outcomes(*commands):
    return asyncio.gather(*map(outcome, commands))


def script(text):
    """An agent that is a shell script."""
    path = Path(tempfile.mkdtemp()) / "agent"
    path.write_text(f"#!/bin/sh\n{text}\n")
    path.chmod(0o700)
    return path


class AgentTest(unittest.IsolatedAsyncioTestCase):
    def setUp(self):
        self.bench = VirtualReader()
        self.addCleanup(self.bench.close)

    async def asyncSetUp(self):
        asyncio.get_running_loop().set_debug(False)

    async def start(self, *verbs, **options):
        """An agent whose reader has carried out the verbs, and the events to its part number."""
        for verb in verbs:
            self.bench.execute(verb)
        agent = CardReaderAgent(AGENT, env=self.bench.env, **options)
        await agent.start()
        self.addAsyncCleanup(agent.close)
        events = []
        while "part number" not in str(events):
            events.append(await agent.__anext__())
        return agent, events

    async def test_commands(self):
        verbs = ['part "caf\\xe9"', "fail BeepNow error 3", 'say usbConnect "one\\nOk: two"']
        trace = []
        agent, events = await self.start(*verbs, trace=lambda *line: trace.append(line[1:]))
        name = agent.reader
        self.assertRegex(name, r"^Dev\d+-caf\udce9$")  # its bytes are kept, or no command finds it
        two_lines = "ValueError: a command must not hold a line feed or a zero byte"
        no_name = "ValueError: a reader name must be neither empty nor hold a colon: "
        no_setting = "ValueError: not the name of a setting: "
        no_integer = "ValueError: not a 32-bit integer: "
        settings = {"tsCfgFlags": {"bHaltKBSnd": True, "bSndOnRx": -2}, "tsRecord": {"iField": 1}}
        cases = [
            (agent.beep(name), "ReaderFailedError: Beeping failed with error 3"),
            (agent.ping("  é 17 "), "  é 17"),
            (agent.beep(name, 2, "long"), None),
            (agent.clear_led(name), None),
            (agent.set_led(name, "amber"), None),
            (agent.configure(name, settings), ["tsRecord.iField"]),
            (agent.configure(name, {}), []),
            (agent.ping("a\nGlobal:Ping b"), two_lines),
            (agent.ping("a\0b"), two_lines),
            (agent.ping("é" * 506), "ValueError: command line of 1024 bytes, more than 1023"),
            (agent.ping("x" * 1011), "x" * 1011),
            (agent.beep(""), f"{no_name}''"),
            (agent.beep("Dev1-A:B"), f"{no_name}'Dev1-A:B'"),
            (agent.configure(name, {"a": {"b c": 1}}), f"{no_setting}'a.b c'"),
            (agent.configure(name, {"tsCfgFlags.x": {"b": 1}}), f"{no_setting}'tsCfgFlags.x.b'"),
            (agent.configure(name, {"a": {"=b": 1}}), f"{no_setting}'a.=b'"),
            (agent.configure(name, {"a": {"b": 1.5}}), f"{no_integer}a.b=1.5"),
            (agent.configure(name, {"a": {"b": 2**31}}), f"{no_integer}a.b=2147483648"),
            (agent.reset_config(name), None),
            (agent.close(), 0),  # all before it is answered
            (agent.ping(), "AgentEndedError: the agent is not running"),
        ]
        self.assertEqual(await outcomes(*(case[0] for case in cases)), [case[1] for case in cases])
        effects = "beep long 2", "led auto", "led amber", "call SetFlags -2 1 -> 1", "config", "reset"
        for effect in effects:
            self.bench.expect(effect)
        said = [Log("pcProxAPI says one"), Log("Ok: two")]
        part = Log("Reader part number is 'caf\udce9'")
        unknown = Log("Ignoring unexpected setting type tsRecord")
        events += [event async for event in agent]
        self.assertEqual(events, [*said, Attached(name), part, unknown])
        self.assertEqual(trace[:2], [("<", "Log: pcProxAPI says one"), ("<", "Ok: two")])
        self.assertIn((">", f"{name}:SetLED amber"), trace)

    async def test_replugging_amid_10_000_commands(self):
        agent, _ = await self.start("hang BeepNow")
        old = agent.reader
        for wait in agent.beep(old), agent.__anext__():  # what comes later is not lost
            with self.assertRaises(asyncio.TimeoutError):
                await asyncio.wait_for(wait, 0.01)
        texts = [str(i).ljust(50, ".") for i in range(10_000)]
        pings = outcomes(*map(agent.ping, texts))
        await asyncio.sleep(0.01)  # they are sent
        self.bench.expect("enter BeepNow")
        self.bench.replug()
        self.bench.release()
        self.assertEqual(await pings, texts)
        self.assertEqual(await agent.__anext__(), Replaced(agent.reader, old))
        stale = f"Action was for reader {old}, but the current reader is {agent.reader}"
        self.assertEqual(await outcomes(agent.beep(old)), [f"ReaderChangedError: {stale}"])

    async def test_a_killed_agent(self):
        agent, _ = await self.start("hang BeepNow")
        pending = outcomes(agent.beep(agent.reader), agent.ping())
        await asyncio.sleep(0.01)  # they are sent
        self.bench.expect("enter BeepNow")
        os.kill(agent.pid, signal.SIGKILL)
        killed = "AgentEndedError: the agent was ended by SIGKILL"
        self.assertEqual(await pending, [killed] * 2)
        self.assertEqual(await outcomes(agent.__anext__(), agent.ping()), [killed] * 2)
        self.assertEqual((agent.reader, agent.pid, agent.end.status), (None, None, -9))

    async def test_starts_that_fail_or_are_cut_off(self):
        path = Path(tempfile.mkdtemp()) / "agent"
        agent = CardReaderAgent(path, env=self.bench.env)
        missing = f"AgentStartError: cannot start {path}: ENOENT, No such file or directory"
        self.assertEqual(await outcomes(agent.start(), agent.ping()), [missing, NOT_RUNNING])
        path.symlink_to(AGENT)  # a second try may be luckier
        task = asyncio.ensure_future(agent.start())
        await asyncio.sleep(0)
        self.assertEqual(await agent.close(), 0)
        await task
        self.assertIsNone(agent.pid)
        cut = CardReaderAgent(AGENT, env=self.bench.env)
        task = asyncio.ensure_future(cut.start())
        await asyncio.sleep(0)
        task.cancel()
        with self.assertRaises(asyncio.CancelledError):
            await task
        self.assertIsNone(cut.pid)

    async def test_ends_that_are_bounded(self):
        agents = {  # what they do, and the status of their end
            "exec sleep 600": -9,  # deaf to the end of its input
            "exec >&-; exec sleep 600": -9,  # alive without its output
            "sleep 60 & exit 5": 5,  # its output in the hands of another
        }
        for text, status in agents.items():
            with self.subTest(text):
                began = time.monotonic()
                agent = CardReaderAgent(script(text), close_timeout=1.2)
                async with agent:
                    pid = agent.pid
                self.assertLess(time.monotonic() - began, 4)
                self.assertEqual(agent.end.status, status)
                self.assertTrue(ends(pid))

        async def use(agent):
            async with agent:
                await agent.ping()

        hung = CardReaderAgent(script("exec sleep 600"), close_timeout=0.3)
        task = asyncio.ensure_future(use(hung))
        while not hung.busy:
            await asyncio.sleep(0.01)
        pid = hung.pid
        task.cancel()
        _, late = await asyncio.wait({task}, timeout=3)
        self.assertFalse(late)
        self.assertTrue(task.cancelled() and ends(pid))

    async def test_standard_error(self):
        heard = []
        path = script("echo caf\xe9 >&2; echo no library >&2; exit 3")
        async with CardReaderAgent(path, stderr=heard.append) as agent:
            await agent.wait()
            said = "the agent ended with status 3: café\nno library"
            self.assertEqual(await outcomes(agent.ping()), [f"AgentEndedError: {said}"])
        self.assertEqual("".join(heard), "café\nno library\n")

    async def test_a_listener_that_fails_costs_no_line(self):
        seen, complaints = [], []
        loop = asyncio.get_running_loop()
        loop.set_exception_handler(lambda _, context: complaints.append(context["exception"]))

        def listen(event):
            seen.append(event)
            raise RuntimeError(len(seen))

        path = script(r"printf 'Log: one\nLog: two\nhalf'; read end; exit 0")
        async with CardReaderAgent(path, on_event=listen) as agent:
            while len(seen) < 2:
                await asyncio.sleep(0.01)
        self.assertEqual(await agent.close(), 0)
        self.assertEqual(seen, [Log("one"), Log("two")])
        self.assertEqual([error.args for error in complaints], [(1,), (2,)])

    async def test_a_forked_worker_does_not_keep_the_agent_alive(self):
        host = """if True:
            import asyncio, os, sys, time
            from card_reader_agent import CardReaderAgent
            async def main():
                agent = CardReaderAgent(sys.argv[1])
                await agent.start()
                worker = os.fork()
                if not worker:
                    os.close(1)
                    time.sleep(60)
                print(agent.pid, worker, flush=True)
                os._exit(0)
            asyncio.run(main())"""
        command = [sys.executable, "-c", host, AGENT]
        told = subprocess.run(command, env=self.bench.env, stdout=subprocess.PIPE, timeout=10).stdout
        agent, worker = map(int, told.split())
        try:
            self.assertTrue(ends(agent))
            self.assertTrue(runs(worker))
        finally:
            os.kill(worker, signal.SIGKILL)

    def test_all_that_is_exported(self):
        names = {}
        exec("from card_reader_agent import *", names)
        self.assertIn("CardReader", names)
        self.assertFalse({"os", "sys", "asyncio", "agent"} & set(names))
