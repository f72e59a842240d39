// For the type checker alone: what must be accepted, and under @ts-expect-error what must not.

import { AgentEndedError, CardReader, CardReaderError, UnknownSettingsError } from 'card-reader-agent';
import type { ReaderState } from 'card-reader-agent';
import { StubReader, VirtualReader } from 'card-reader-agent/testing';

const { signal } = new AbortController();
const onConnect = (reader: CardReader, limits: { signal: AbortSignal }) => reader.setLed('green', limits);
const virtual = await VirtualReader.start({ plugged: false });
const reader = new CardReader(new URL('file:///agent'), { env: virtual.env, onConnect });
reader.on('state', (state: ReaderState, previous, reason) => console.log(state, previous, reason?.length));
await reader.beep({ count: 2, length: 'long', timeout: 100, signal });
const [id]: [id: string] = await CardReader.once(reader, 'card');
for await (const [text] of CardReader.on(reader, 'log', { signal })) console.log(text.length);
for await (const event of reader) if (event.type === 'card') console.log(id === event.id);
await reader.configure({ tsCfgFlags: { bHaltKBSnd: true } }, { signal }).catch((error) => {
  if (error instanceof UnknownSettingsError) error.names.join();
  else if (error instanceof AgentEndedError) error.status?.toFixed();
  else if (error instanceof CardReaderError) error.code === 'REJECTED';
});
await virtual.expect('led green', { within: 100 });
const stub: CardReader = new StubReader({ onConnect });
// @ts-expect-error There is no such color,
await stub.setLed('blue');
// @ts-expect-error no such option,
new CardReader('agent', { restartDelays: 1 });
// @ts-expect-error no such event,
reader.on('cards', () => {});
// @ts-expect-error and a state is not changed from outside.
reader.state = 'ready';
