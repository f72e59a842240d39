// For the type checker alone: what must be accepted, and under @ts-expect-error what must not.

import {
  AgentEndedError,
  AgentStartError,
  CardReader,
  CardReaderAgent,
  CardReaderError,
  ReaderFailedError,
  UnknownSettingsError,
} from 'card-reader-agent';
import type { ReaderEvent, ReaderState, Settings } from 'card-reader-agent';
import { VirtualReader } from 'card-reader-agent/testing';

const options = { cardRemovedAfter: 500, onConnect: (reader: CardReader) => reader.setLed('green') };
const reader = new CardReader(new URL('file:///agent'), options);
reader.on('state', (state: ReaderState, previous: ReaderState, reason: string | null) => {
  if (state === 'ready') console.log(previous, reason?.length);
});
reader.once('card', (id) => id.toUpperCase()).off('hang', () => {});
reader.start();

const [id]: [id: string] = await CardReader.once(reader, 'card');
for await (const event of reader) {
  const known: ReaderEvent = event;
  if (event.type === 'state') console.log(event.state, event.reason?.length);
  else if (event.type === 'card') console.log(id === event.id, known);
}
const settings: Settings = { tsCfgFlags: { bHaltKBSnd: true }, tsTimeParms: { iIDHoldTO: 20 } };
try {
  await reader.configure(settings, { timeout: 100, signal: new AbortController().signal });
  (await reader.ping('text')).length;
} catch (error) {
  if (error instanceof UnknownSettingsError) error.names.join();
  else if (error instanceof ReaderFailedError) error.number?.toFixed();
  else if (error instanceof AgentStartError) error.code.length;
  else if (error instanceof AgentEndedError) error.signal?.length;
  else if (error instanceof CardReaderError) error.message.length;
}
await reader[Symbol.asyncDispose]();

const agent = new CardReaderAgent('agent', { certain: true, stderr: (text) => text.length });
const [name]: [reader: string] = await CardReaderAgent.once(agent, 'attached');
const text: string = await agent.beep(name, 2, 'long');
agent.on('end', ({ code, reason }) => console.log(code?.toFixed(), reason?.length, text));

const virtual = await VirtualReader.start({ plugged: false });
await virtual.fail('BeepNow', { error: 3, when: 'always' });
await virtual.expect('led green', { within: 100 });
new CardReader('agent', { env: virtual.env });

// @ts-expect-error There is no such color,
await reader.setLed('blue');
// @ts-expect-error no such option,
new CardReader('agent', { restartDelays: 1 });
// @ts-expect-error no such event,
reader.on('cards', () => {});
// @ts-expect-error no such argument of it,
CardReader.once(reader, 'card').then(([, second]) => second);
// @ts-expect-error no settings without a type,
await reader.configure({ bHaltKBSnd: 1 });
// @ts-expect-error and a state is not changed from outside.
reader.state = 'ready';
