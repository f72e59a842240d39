'use strict';
// The agent's line protocol: bytes and text, commands and answers. Nothing here has a state.
//
// Text is UTF-8 in both directions. Bytes that are not valid UTF-8 become lone surrogates, U+DC80
// to U+DCFF, so that a reader's name returns to the agent unchanged.

const { NoReaderError, ReaderChangedError, ReaderFailedError, RejectedError } = require('./errors.js');

const LINE_LIMIT = 1023; // bytes before the newline
const ESCAPE = 0xdc00;
const ANSWER = /^(Ok|Error):(?: ([^\0]+))?$/;
const READER = String.raw`Dev(\d{1,15})(?:-[^\0\t-\r ]+)?`;
const EVENT = new RegExp(`^(?:Reader: (Global|${READER})|Card: ([\\dA-F]{1,64})|Log: (.*))$`, 's');
const ELSEWHERE = new RegExp(
  `^Action was for reader .*, but (?:there is no reader attached|the current reader is (${READER}))$`,
  's',
);
const FEEDBACK =
  /^(?:Beeping|(?:Sett|Clear)ing LED state|Resetting card reader) failed with error (-?\d+)$/;
const CONFIGURATION = /^(?:Failed to (?:read|write) reader config|Call to [GS]et\w+ failed; .*)$/;
const UNKNOWN = 'Ignoring unexpected setting ';

const isUtf8 = (bytes) => Buffer.from(bytes.toString()).equals(bytes);

function decode(bytes) {
  if (isUtf8(bytes)) return bytes.toString();
  let text = '';
  for (let start = 0, end; start < bytes.length; start = end) {
    end = Math.min(start + 4, bytes.length); // no character has more than four bytes
    while (end > start && !isUtf8(bytes.subarray(start, end))) end--;
    if (end > start) text += bytes.toString('utf8', start, end);
    else text += String.fromCharCode(ESCAPE + bytes[end++]);
  }
  return text;
}

// The bytes of a command, with its newline.
function encode(line) {
  if (/[\n\0]/.test(line)) throw new TypeError('invalid command: contains a newline or a NUL byte');
  if (/[\ud800-\udc7f\udd00-\udfff]/u.test(line)) {
    throw new TypeError('invalid command: contains a lone surrogate that stands for no byte');
  }
  const unescape = (byte) => Buffer.of(byte.charCodeAt(0) - ESCAPE);
  const pieces = `${line}\n`.split(/([\udc80-\udcff])/u); // every second one is an escaped byte
  const bytes = Buffer.concat(pieces.map((s, i) => (i % 2 ? unescape(s) : Buffer.from(s))));
  if (bytes.length > LINE_LIMIT + 1) {
    throw new RangeError(`invalid command: ${bytes.length - 1} bytes, more than ${LINE_LIMIT}`);
  }
  return bytes;
}

// An answer, or null: its kind, "Ok" or "Error", and its text.
function parseAnswer(line) {
  const [, kind, text = ''] = ANSWER.exec(line) ?? [];
  return kind ? { line, kind, text } : null;
}

// What a line that is no answer reports: a reader's name and its number, a card's ID, or a text.
function parseEvent(line) {
  const [, name, number, id, text = line] = EVENT.exec(line) ?? [];
  return { name, number: Number(number), id, text };
}

// The reader that is attached as an answer tells, null for none; undefined if the answer does not.
function attachedReader({ kind, text }) {
  const match = kind === 'Error' && ELSEWHERE.exec(text);
  return match ? { name: match[1] ?? null, number: Number(match[2]) } : undefined;
}

function errorOf(text) {
  const number = FEEDBACK.exec(text)?.[1];
  if (number) return new ReaderFailedError(text, Number(number));
  if (CONFIGURATION.test(text)) return new ReaderFailedError(text, null);
  const match = ELSEWHERE.exec(text);
  if (!match) return new RejectedError(text);
  return match[1] ? new ReaderChangedError(text) : new NoReaderError(text);
}

// Settings as [type, name, value].
const entries = (settings) =>
  Object.entries(settings).flatMap(([type, values]) =>
    Object.entries(values).map(([name, value]) => [type, name, value]),
  );

function configCommand(settings) {
  let command = 'ReaderConfig';
  for (const [type, name, value] of entries(settings)) {
    if (!/^[^\s.=]+$/.test(type) || !/^[^\s.=]+$/.test(name)) {
      throw new TypeError(`invalid setting name '${type}.${name}'`);
    }
    const number = typeof value === 'boolean' ? Number(value) : value;
    if ((number | 0) !== number) {
      throw new RangeError(`invalid ${type}.${name}: expected a 32-bit integer, got ${value}`);
    }
    command += ` ${type}.${name}=${number}`;
  }
  return command;
}

// Those of the settings that the agent does not know, as its log texts say.
function unknownSettings(settings, logs) {
  const unknown = entries(settings).filter(([type, name]) =>
    logs.some((text) => text === `${UNKNOWN}type ${type}` || text.startsWith(`${UNKNOWN}${type}.${name}=`)),
  );
  return unknown.map(([type, name]) => `${type}.${name}`).sort();
}

Object.assign(exports, { decode, encode, parseAnswer, parseEvent, attachedReader, errorOf });
Object.assign(exports, { configCommand, unknownSettings });
