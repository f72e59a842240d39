// A door list: whose card is on it gets a green light and one beep, others a red one and two.
//   node hosts/node/examples/door-list.mjs [AGENT]

import { fileURLToPath } from 'node:url';
import { CardReaderAgent } from '../index.js';

const bundle = '../../../build/CardReaderAgent.app/Contents/MacOS/card-reader-agent';
const path = process.argv[2] ?? fileURLToPath(new URL(bundle, import.meta.url));

const doorList = new Map([
  ['3AB1234', 'Ada'],
  ['CDAB1234', 'Grace'],
]);

const agent = new CardReaderAgent(path);
agent.on('attached', (reader) => console.log(`Reader ${reader} is ready`));
agent.on('replaced', (reader) => console.log(`Reader ${reader} is ready`));
agent.on('gone', (reader) => console.log(`Reader ${reader} has gone`));
agent.on('card', async (id, reader) => {
  const name = doorList.get(id);
  console.log(name ? `${name}, come in` : `Card ${id} is not on the list`);
  try {
    await agent.setLed(reader, name ? 'green' : 'red');
    await agent.beep(reader, name ? 1 : 2);
  } catch (error) {
    console.error(error.message);
  }
});
agent.on('end', ({ code, signal }) => console.log(`The agent has ended: ${signal ?? code}`));
await agent.start();
