"""`CardReader` where the list of situations does not reach: Python's own ways, and what it costs."""

import asyncio
import gc
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

from bench import AGENT, child_of, ends
from card_reader_agent import Card, CardRemoved, CardReader, CardReaderError, State
from card_reader_agent.testing import VirtualReader

PACKAGE = Path(__file__).resolve().parents[1]

# Answers a ping and the one that follows it, and dies.
SHORT_LIVED = """#!/bin/sh
read ping && read proof && echo "Ok:" && echo "Ok: ${proof#*Ping}"
exit 3
"""

# Dims the light when it is interrupted.
CLEANS_UP = """if True:
    import asyncio, sys
    from card_reader_agent import CardReader
    async def main():
        async with CardReader(sys.argv[1]) as reader:
            await reader.wait_for_reader()
            print("ready", flush=True)
            try:
                await asyncio.sleep(60)
            finally:
                await reader.set_led("off")
                print(await reader.ping("dimmed"), flush=True)
    try:
        asyncio.run(main())
    except KeyboardInterrupt:
        print("interrupted")
"""


class ReaderTest(unittest.IsolatedAsyncioTestCase):
    async def asyncSetUp(self):
        asyncio.get_running_loop().set_debug(False)
        self.bench = VirtualReader()
        self.addCleanup(self.bench.close)

    async def test_each_who_iterates_gets_all_from_then_on(self):
        async def listen(reader, kinds, until):
            events = []
            async for event in reader:
                events += [event] if isinstance(event, kinds) else []
                if isinstance(event, until):
                    break
            return events

        reader = CardReader(AGENT, env=self.bench.env)
        early = asyncio.ensure_future(listen(reader, (State, Card, CardRemoved), ()))
        await asyncio.sleep(0)
        async with reader:
            await reader.wait_for_reader(timeout=5)
            late = asyncio.ensure_future(listen(reader, Card, CardRemoved))
            await asyncio.sleep(0)
            self.bench.queue("3AB1234/26")
            cards = await asyncio.wait_for(late, 5)
        events = await asyncio.wait_for(early, 5)
        self.assertEqual([event.id for event in cards], ["3AB1234"])
        told = [getattr(event, "state", type(event).__name__) for event in events]
        self.assertEqual(told, ["searching", "ready", "Card", "CardRemoved", "closed"])
        self.assertEqual([event async for event in reader], [])

    async def test_a_host_that_stands_still_loses_no_card(self):
        async with CardReader(AGENT, env=self.bench.env, card_removed_after=0.2) as reader:
            self.bench.hold("3AB1234/26")
            events = reader.__aiter__()
            while not isinstance(await events.__anext__(), Card):
                pass
            for _ in range(3):
                time.sleep(0.5)
                await asyncio.sleep(0.1)
            seen = [events.queue.get_nowait() for _ in range(events.queue.qsize())]
            self.assertFalse([event for event in seen if isinstance(event, (Card, CardRemoved))])

    async def test_a_cancelled_user_waits_for_no_agent(self):
        async def use(reader):
            async with reader:
                await reader.wait_for_reader()
                os.kill(reader.pid, signal.SIGSTOP)
                await reader.ping()

        for cancels in 1, 2:  # the second one does not even wait for the deadline
            reader = CardReader(AGENT, env=self.bench.env, close_timeout=0.3 if cancels == 1 else 60)
            task = asyncio.ensure_future(use(reader))
            await reader.wait_for_reader(timeout=5)
            await asyncio.sleep(0.1)
            pid = reader.pid
            for _ in range(cancels):
                task.cancel()
                await asyncio.sleep(0.05)
            await asyncio.wait({task}, timeout=3)
            self.assertTrue(task.cancelled())
            self.assertTrue(await asyncio.get_running_loop().run_in_executor(None, ends, pid))
            await asyncio.wait_for(reader.close(), 3)
            self.assertEqual(reader.state, "closed")

    async def test_on_connect_is_for_one_connection_and_close_for_all_who_ask(self):
        connections = []

        async def on_connect(reader):
            connections.append(reader.name)
            try:
                await asyncio.sleep(60 if len(connections) == 1 else 0)
            except asyncio.CancelledError:
                connections.append("cancelled")
                raise

        reader = CardReader(AGENT, env=self.bench.env, on_connect=on_connect)
        await reader.start()
        while not connections:
            await asyncio.sleep(0.01)
        self.bench.replug()
        await reader.wait_for_reader(timeout=5)
        self.assertEqual(connections[1:], ["cancelled", reader.name])
        self.bench.delay("BeepNow", 0.3)
        beep = asyncio.ensure_future(reader.beep())
        await asyncio.sleep(0.05)
        closing = asyncio.ensure_future(reader.close())
        await asyncio.sleep(0.05)
        await reader.close()
        await asyncio.gather(closing, beep)  # it is carried out, however often one closes

    async def test_ctrl_c_lets_the_host_clean_up_first(self):
        command = [sys.executable, "-c", CLEANS_UP, AGENT]
        pipes = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "text": True}
        env = {**self.bench.env, "PYTHONPATH": str(PACKAGE)}
        host = subprocess.Popen(command, env=env, start_new_session=True, **pipes)
        self.addCleanup(host.kill)
        self.assertEqual(host.stdout.readline(), "ready\n")
        agent = child_of(host.pid)
        os.killpg(host.pid, signal.SIGINT)
        self.assertEqual(host.communicate(timeout=10), ("dimmed\ninterrupted\n", ""))
        self.assertTrue(ends(agent))

    async def test_restarts_leave_nothing_behind(self):
        path = Path(tempfile.mkdtemp()) / "agent"
        path.write_text(SHORT_LIVED)
        path.chmod(0o700)
        left = []
        async with CardReader(path, restart_delay=0.01, restart_delay_limit=0.01) as reader:
            async for event in reader:
                if event.state == "restarting":
                    gc.collect()
                    files = len(os.listdir("/dev/fd"))
                    left.append((files, len(asyncio.all_tasks()), len(gc.get_objects())))
                if len(left) == 40:
                    break
        self.assertEqual(left[9][:2], left[39][:2])  # open files, tasks
        self.assertLess(left[39][2], left[9][2] + 300)  # objects: less than 10 a restart
        with self.assertRaises(CardReaderError):
            await reader.ping()
