"""A door list: whose card is on it gets a green light and one beep, others a red one and two.

python3 hosts/python/examples/door_list.py [AGENT]
"""

import asyncio
import sys
from contextlib import suppress
from pathlib import Path

ROOT = Path(__file__).resolve().parents[3]
sys.path.insert(0, str(ROOT / "hosts/python"))

from card_reader_agent import Attached, Card, CardReaderAgent, CommandError, Gone, Replaced

AGENT = ROOT / "build/CardReaderAgent.app/Contents/MacOS/card-reader-agent"
DOOR_LIST = {"3AB1234": "Ada", "CDAB1234": "Grace"}


async def main(path):
    async with CardReaderAgent(path) as agent:
        async for event in agent:
            if isinstance(event, (Attached, Replaced)):
                print(f"Reader {event.reader} is ready", flush=True)
            elif isinstance(event, Gone):
                print(f"Reader {event.previous} has gone", flush=True)
            elif isinstance(event, Card):
                name = DOOR_LIST.get(event.id)
                text = f"{name}, come in" if name else f"Card {event.id} is not on the list"
                print(text, flush=True)
                try:
                    await agent.set_led(event.reader, "green" if name else "red")
                    await agent.beep(event.reader, 1 if name else 2)
                except CommandError as error:
                    print(error, file=sys.stderr)


with suppress(KeyboardInterrupt):
    asyncio.run(main(sys.argv[1] if len(sys.argv) > 1 else AGENT))
