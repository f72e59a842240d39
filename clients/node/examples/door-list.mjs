// A door list: whose card is on it gets a green light and one beep, others two beeps.
//   node door-list.mjs AGENT
import { CardReader } from 'card-reader-agent';

const doorList = new Map([
  ['3AB1234', 'Ada'],
  ['CDAB1234', 'Grace'],
]);
const reader = new CardReader(process.argv[2], { onConnect: () => reader.setLed('red') });
process.once('SIGINT', async () => {
  await reader.clearLed().catch(() => {}); // there may be no reader
  await reader.close();
});
reader.start();
for await (const event of reader) {
  try {
    if (event.type === 'state') {
      console.log(event.state, event.reason ?? '');
      if (event.state === 'failed') process.exitCode = 1;
    } else if (event.type === 'card') {
      const name = doorList.get(event.id);
      console.log(name ? `${name}, come in` : `${event.id}: not listed`);
      await reader.setLed(name ? 'green' : 'red');
      await reader.beep(name ? 1 : 2);
    } else if (event.type === 'cardRemoved') await reader.setLed('red');
  } catch (error) {
    console.error(error.message); // the next state tells more
  }
}
