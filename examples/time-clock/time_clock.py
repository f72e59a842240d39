"""A time clock: who is known comes in or leaves, with a green light and a beep; others get red.

python3 time_clock.py AGENT     AGENT is the path of CardReaderAgent.app
"""

import asyncio
import sys
from contextlib import suppress

from card_reader_agent import Card, CardRemoved, CardReader, CardReaderError

PEOPLE = {"3AB1234": "Ada", "0FAB1234": "Grace"}


class TimeClock:
    def __init__(self):
        self.present = set()

    def booked(self, card):
        """What to print for a card, or None for one that nobody has."""
        person = PEOPLE.get(card)
        if person is None:
            return None
        comes = person not in self.present
        self.present ^= {person}
        return f"{person} {'comes' if comes else 'leaves'}"

    async def run(self, agent):
        quiet = {"tsCfgFlags2": {"bBeepID": 0}}  # the beeps are the clock's own
        async with CardReader(agent, on_connect=lambda reader: reader.configure(quiet)) as reader:
            async for event in reader:
                with suppress(CardReaderError):  # the reader has gone, or comes back by itself
                    if isinstance(event, Card):
                        booking = self.booked(event.id)
                        print(booking or f"nobody has card {event.id}", flush=True)
                        await reader.set_led("green" if booking else "red")
                        await reader.beep(1, "short" if booking else "long")
                    elif isinstance(event, CardRemoved):
                        await reader.clear_led()


if __name__ == "__main__":
    with suppress(KeyboardInterrupt):
        asyncio.run(TimeClock().run(sys.argv[1]))
