import { spawn } from 'node:child_process';
import { once } from 'node:events';
import { mkdtempSync } from 'node:fs';
import { createInterface } from 'node:readline';

export class VirtualReader {
  static async start() {
    const self = new VirtualReader();
    self.env = { ...process.env, VIRTUAL_READER_SOCKET: `${mkdtempSync(`${process.env.TMPDIR ?? '/tmp'}/`)}/socket` };
    self.process = spawn(process.env.VIRTUAL_READER, { env: self.env, stdio: ['pipe', 'pipe', 'inherit'] });
    self.lines = createInterface({ input: self.process.stdout })[Symbol.asyncIterator]();
    await self.tell('');
    return self;
  }
  async tell(verb) {
    this.process.stdin.write(`${verb}\necho "-- done"\n`);
    const told = [];
    for (let line; (line = (await this.lines.next()).value) !== '= -- done'; ) told.push(line);
    return told.join('\n');
  }
  async close() {
    this.process.stdin.end();
    const [status] = await once(this.process, 'close');
    if (status) throw new Error(`a verb was wrong: status ${status}`);
  }
}
