"""A door list: a card on it gets a green light and one beep, any other two beeps."""

import asyncio
import sys
from contextlib import suppress

from card_reader_agent import Card, CardReader, CardReaderError, CardRemoved, State

DOOR_LIST = {"3AB1234": "Ada", "CDAB1234": "Grace"}


async def main(agent):
    async with CardReader(agent, on_connect=lambda reader: reader.set_led("red")) as reader:
        async for event in reader:
            with suppress(CardReaderError):  # the next state says why
                if isinstance(event, State):
                    print(event.state, event.reason or "", flush=True)
                elif isinstance(event, Card):
                    name = DOOR_LIST.get(event.id)
                    print(f"{name}, come in" if name else f"{event.id}: not listed", flush=True)
                    await reader.set_led("green" if name else "red")
                    await reader.beep(1 if name else 2)
                elif isinstance(event, CardRemoved):
                    await reader.set_led("red")


try:
    asyncio.run(main(sys.argv[1]))
except (KeyboardInterrupt, CardReaderError) as end:
    sys.exit(str(end) or None)
