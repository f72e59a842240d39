// For the type checker alone: what must be accepted, and under @ts-expect-error what must not.

import { AgentEndedError, AgentStartError, CardReader, CardReaderError, UnknownSettingsError } from 'card-reader-agent';
import type { ReaderEvent, ReaderState, Settings } from 'card-reader-agent';
import { StubReader, VirtualReader } from 'card-reader-agent/testing';

const { signal } = new AbortController();
const onConnect = (reader: CardReader, limits: { signal: AbortSignal }) => reader.setLed('green', limits);
const reader = new CardReader(new URL('file:///agent'), { cardRemovedAfter: 500, onConnect });
reader.on('state', (state: ReaderState, previous: ReaderState, reason) => console.log(state, previous, reason?.length));
reader.once('card', async (id) => console.log(id.toUpperCase())).off('poll', () => {});
reader.start();
const name: string = await reader.waitForConnection({ timeout: 100, signal });
await reader.waitFor('ready');
await reader.beep(2, 'long');
await reader.beep({ count: 2, length: 'long', timeout: 100, signal });

const [id]: [id: string] = await CardReader.once(reader, 'card');
for await (const [text] of CardReader.on(reader, 'log', { signal })) console.log(text.length, name);
for await (const event of reader) {
  const known: ReaderEvent = event;
  if (event.type === 'state') console.log(event.state, event.reason?.length);
  else if (event.type === 'card') console.log(id === event.id, known);
}
const settings: Settings = { tsCfgFlags: { bHaltKBSnd: true }, tsTimeParms: { iIDHoldTO: 20 } };
try {
  await reader.configure(settings, { timeout: 100, signal });
} catch (error) {
  if (error instanceof UnknownSettingsError) error.names.join();
  else if (error instanceof AgentStartError) error.systemCode.length;
  else if (error instanceof AgentEndedError) error.signal?.length ?? error.status?.toFixed();
  else if (error instanceof CardReaderError) error.code === 'REJECTED';
}
await reader.close({ signal });

const virtual = await VirtualReader.start({ plugged: false });
await virtual.fail('BeepNow', { error: 3, when: 'always' });
await virtual.expect('led green', { within: 100 });
new CardReader('agent', { env: virtual.env });
const stub: CardReader = new StubReader({ onConnect });

// @ts-expect-error There is no such color,
await stub.setLed('blue');
// @ts-expect-error no such option,
new CardReader('agent', { restartDelays: 1 });
// @ts-expect-error no such event,
reader.on('cards', () => {});
// @ts-expect-error no such argument of it,
CardReader.once(reader, 'card').then(([, second]) => second);
// @ts-expect-error no such state,
await reader.waitFor('open');
// @ts-expect-error no settings without a type,
await reader.configure({ bHaltKBSnd: 1 });
// @ts-expect-error and a state is not changed from outside.
reader.state = 'ready';
