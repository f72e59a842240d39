// A door list: a card on it gets a green light and one beep, any other a red light and two beeps.
//   node door-list.mjs AGENT
import { CardReader } from 'card-reader-agent';

const doorList = new Map([
  ['3AB1234', 'Ada'],
  ['CDAB1234', 'Grace'],
]);
const onConnect = (reader, { signal }) => reader.setLed('red', { signal });
const reader = new CardReader(process.argv[2], { onConnect });
process.once('SIGINT', async () => {
  await reader.clearLed().catch(() => {}); // there may be no reader
  await reader.close();
});
reader.on('state', (state, previous, reason) => console.log(state, reason ?? ''));
reader.on('error', () => (process.exitCode = 1)); // the state has said why
reader.on('cardRemoved', () => reader.setLed('red').catch(() => {})); // the reader may be gone
reader.on('card', async (id) => {
  const name = doorList.get(id);
  console.log(name ? `${name}, come in` : `${id}: not listed`);
  try {
    await reader.setLed(name ? 'green' : 'red');
    await reader.beep(name ? 1 : 2);
  } catch (error) {
    console.error(error.message); // the next state says more
  }
});
reader.start();
