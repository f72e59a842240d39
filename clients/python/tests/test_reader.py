"""`CardReader` where conformance.txt does not reach: Python's own ways, and what it costs."""

import asyncio
import gc
import logging
import os
import signal
import subprocess
import sys
import time
import unittest
from unittest import mock

from bench import AGENT, PACKAGE, ends, output, script
from card_reader_agent import Card, CardReader, CardRemoved, NoReaderError, ReaderChangedError, State
from card_reader_agent.testing import AsyncVirtualReader, StubReader

TIMEOUT = 20  # seconds, for what must happen
ANSWERS_ONCE = 'read -r ping && read -r token && echo Ok: && echo "Ok: ${token#*Ping}"; exit 3'

# Sends a command when it is interrupted, and exits without closing the reader. Its worker lives on.
APPLICATION = """if True:
    import asyncio, os, sys, time
    from card_reader_agent import CardReader
    async def main():
        async with CardReader(sys.argv[1]) as reader:
            await reader.wait_for("ready")
            worker = os.fork()
            if not worker:
                os.close(1), os.close(2), os.setsid(), time.sleep(60)
            loop = asyncio.get_running_loop()
            loop.call_soon(lambda: print(reader.pid, worker, flush=True))
            try:
                await asyncio.sleep(60)
            finally:
                print(await reader.ping("off"), flush=True)
                os._exit(0)
    asyncio.run(main())
"""


class ReaderTest(unittest.IsolatedAsyncioTestCase):
    async def asyncSetUp(self):
        asyncio.get_running_loop().set_debug(False)
        self.bench = AsyncVirtualReader()
        self.addAsyncCleanup(self.bench.close)

    async def start(self, path=AGENT, **options):
        reader = CardReader(path, env=self.bench.env, **options)
        self.addAsyncCleanup(reader.close)
        events = reader.__aiter__()
        reader.start()
        return reader, events

    async def card(self, events):
        while not isinstance(await asyncio.wait_for(events.__anext__(), TIMEOUT), Card):
            pass

    async def test_each_iteration_yields_all_events_from_then_on(self):
        reader, early = await self.start(close_timeout=60)
        await reader.wait_for("ready", timeout=TIMEOUT)
        late = reader.__aiter__()
        await self.bench.hold("3AB1234/26")
        await self.card(late)
        self.assertEqual(reader.card, "3AB1234")
        await asyncio.wait_for(reader.close(), TIMEOUT)
        kinds = [getattr(event, "state", "") async for event in early if isinstance(event, (Card, CardRemoved, State))]
        self.assertEqual(kinds, ["searching", "ready", "", "", "closed"])
        self.assertEqual([event async for event in reader], [])

    async def test_a_blocked_event_loop_loses_no_card_and_no_answer(self):
        reader, events = await self.start(card_removed_after=0.2)
        await self.bench.hold("3AB1234/26")
        await self.card(events)
        await self.bench.delay("BeepNow", 0.1)
        for blocked, written in (0.15, True), (0.25, True), (0.5, True), (1, False):
            beep = reader.beep(timeout=0.3)
            await asyncio.sleep(0) if written else None
            time.sleep(blocked)
            await beep
        seen = [events.queue.get_nowait() for _ in range(events.queue.qsize())]
        self.assertFalse([event for event in seen if isinstance(event, (Card, CardRemoved))])

    async def test_a_cancelled_close_kills_the_agent_and_reports_all(self):
        reader, events = await self.start(close_timeout=60)
        await self.bench.hold("3AB1234/26")
        await self.card(events)
        pid = reader.pid
        os.kill(pid, signal.SIGSTOP)
        closing = asyncio.ensure_future(reader.close())
        await asyncio.sleep(0)
        closing.cancel()
        self.assertEqual([e async for e in events if isinstance(e, (CardRemoved, State))][0], CardRemoved("3AB1234"))
        self.assertEqual((reader.state, ends(pid), closing.cancelled()), ("closed", True, True))

    async def test_on_connect_may_close_the_reader_and_never_acts_on_another(self):
        started, outcomes = asyncio.Event(), []

        async def on_connect(reader):
            if not started.is_set():
                started.set()
                try:
                    await asyncio.sleep(60)
                finally:
                    await asyncio.sleep(0.2)  # it takes its time
                    outcomes.extend(await asyncio.gather(reader.beep(), return_exceptions=True))
            beep = reader.beep()
            await reader.close()
            outcomes.append(await beep)

        reader, _ = await self.start(on_connect=on_connect)
        await started.wait()
        await self.bench.replug()
        await reader.wait_for("closed", timeout=TIMEOUT)
        await asyncio.sleep(0)
        self.assertEqual([type(outcomes[0]), *outcomes[1:]], [ReaderChangedError, None])

    async def test_ends_are_bounded_and_leave_nothing(self):
        with mock.patch("card_reader_agent.process.Process.kill"):  # it survives
            reader, _ = await self.start(script("exec sleep 5"), close_timeout=0.1)
            await asyncio.sleep(0.1)
            beep = reader.ping()
            await asyncio.wait_for(reader.close(), 4)
            self.assertEqual(str(beep.exception()), "the agent is not responding")
        reader, _ = await self.start(script("exec >&-; exec sleep 600"))
        await reader.wait_for("restarting", timeout=4)
        await reader.close()
        left = []
        reader, events = await self.start(script(ANSWERS_ONCE), restart_delay=0.01, restart_delay_limit=0.01)
        async for event in events:
            if isinstance(event, State) and event.state == "restarting":
                gc.collect()
                files = len(os.listdir("/dev/fd"))
                left.append((files, len(asyncio.all_tasks()), len(gc.get_objects())))
            if len(left) == 40:
                break
        self.assertEqual(left[9][:2], left[39][:2])  # open files, tasks
        self.assertLess(left[39][2], left[9][2] + 300)  # objects: less than 10 a restart

    async def test_faults_are_logged_and_cost_no_line(self):
        async def on_connect(reader):
            raise RuntimeError("no such lamp")

        faults, lines = [], []
        asyncio.get_running_loop().set_exception_handler(lambda _, context: faults.append(context["exception"]))
        with self.assertLogs("card_reader_agent", logging.WARNING) as logs:
            reader, events = await self.start(on_connect=on_connect, trace=lambda *line: [lines.append(line), 1 / 0])
            while "no such lamp" not in str(await events.__anext__()):
                pass
            os.kill(reader.pid, signal.SIGKILL)
            await reader.wait_for("restarting", timeout=TIMEOUT)
        self.assertIn("Traceback", logs.output[0])
        self.assertIn("killed by SIGKILL; restarting it", logs.output[1])
        self.assertEqual([len(lines), {ZeroDivisionError}], [len(faults), set(map(type, faults))])

    async def test_the_delay_doubles_and_only_agents_in_a_row_count(self):
        # The first agent answers, the third runs for longer than the limit.
        agent = script(f'echo >>"$0.n"; case $(wc -l <"$0.n") in *1) {ANSWERS_ONCE};; *3) sleep 2.5;; esac; exit 3')
        with self.assertLogs("card_reader_agent", logging.WARNING) as logs:
            reader, _ = await self.start(agent, restart_delay=0.05, restart_delay_limit=2)
            await reader.wait_for("failed", timeout=TIMEOUT)
        delays = [line.split()[-2] for line in logs.output if "restarting" in line]
        self.assertEqual(delays, ["0.05", "0.1", "0.05", "0.1", "0.2"])
        self.assertIn("giving up: the agent exited with status 3", logs.output[-1])

    async def test_ctrl_c_leaves_time_for_a_command_and_a_fork_holds_no_agent(self):
        command = [sys.executable, "-c", APPLICATION, AGENT]
        env = {**self.bench.env, "PYTHONPATH": str(PACKAGE)}
        application = subprocess.Popen(command, env=env, start_new_session=True, stdout=subprocess.PIPE, text=True)
        agent, worker = map(int, application.stdout.readline().split())
        self.addCleanup(os.kill, worker, signal.SIGKILL)
        os.kill(application.pid, signal.SIGINT)
        self.assertEqual(application.communicate(timeout=10)[0], "off\n")
        self.assertTrue(ends(agent))
        self.assertNotEqual(output("ps", "-o", "stat=", "-p", worker)[:1], "Z")

    async def test_the_stub_reader_needs_no_agent(self):
        async with StubReader(restart_delay=0.01) as reader:
            events = reader.__aiter__()
            reader.connect()
            reader.present("3AB1234")
            reader.fail(NoReaderError())
            results = await asyncio.gather(reader.beep(2), reader.ping("x"), return_exceptions=True)
            self.assertEqual([type(results[0]), results[1]], [NoReaderError, "x"])
            self.assertEqual(reader.commands, ["Beep short 2", "Ping x"])
            reader.crash()
            await reader.wait_for("searching", timeout=TIMEOUT)
        texts = [getattr(event, "state", getattr(event, "id", event)) async for event in events]
        expected = ["searching", "ready", *["3AB1234"] * 3, "restarting", "starting", "searching", "closed"]
        self.assertEqual(texts, expected)
