"""For the type checker, not to be run: each line that is to be ignored must be an error."""

from card_reader_agent import CardReader, LedColor, Settings, State


async def use(reader: CardReader, color: LedColor) -> str:
    settings: Settings = {"tsCfgFlags": {"bHaltKBSnd": True, "bSndOnRx": 0}, "tsTimeParms": {}}
    await reader.configure(settings, timeout=1)
    await reader.configure({"tsCfgFlags": {"bBeepID": 1}})  # type: ignore[typeddict-item]
    await reader.configure({"tsRecord": {}})  # type: ignore[typeddict-item]
    await reader.set_led(color)
    await reader.set_led("blue")  # type: ignore[arg-type]
    await reader.beep(2, "long")
    await reader.beep(2, "loud")  # type: ignore[arg-type]
    async for event in reader:
        if isinstance(event, State):
            return event.state
        event.state  # type: ignore[union-attr]
    return reader.name  # type: ignore[return-value]
