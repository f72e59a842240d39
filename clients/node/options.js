'use strict';
// The options of a CardReader: their defaults, and what is accepted.

const isTime = [(value) => Number.isFinite(value) && value >= 0, 'a finite number from 0'];
const isTimeout = [(value) => Number.isFinite(value) && value > 0, 'a finite number above 0'];
const isLimit = [(value) => value > 0, 'a number above 0, or Infinity'];
const isCount = [
  (value) => value >= 1 && (Number.isInteger(value) || value === Infinity),
  'a whole number from 1, or Infinity',
];
const isFunction = [(value) => value === null || typeof value === 'function', 'a function'];

const OPTIONS = {
  env: [process.env, (value) => value !== null && typeof value === 'object', 'an object'],
  restartDelay: [500, ...isTime],
  restartDelayLimit: [30_000, ...isTime],
  giveUpAfter: [5, ...isCount],
  commandTimeout: [10_000, ...isLimit],
  watchdogInterval: [5_000, ...isTime],
  watchdogTimeout: [15_000, ...isTimeout],
  cardRemovedAfter: [600, ...isTime],
  onConnect: [null, ...isFunction],
  closeTimeout: [2_000, ...isTime],
  stderr: [
    'inherit',
    (value) => ['inherit', 'ignore'].includes(value) || typeof value === 'function',
    "'inherit', 'ignore' or a function",
  ],
  trace: [null, ...isFunction],
};

const quote = (value) => (typeof value === 'string' ? `'${value}'` : String(value));

function check(name, value, isNumber, isValid, expected) {
  if (isNumber ? typeof value === 'number' && isValid(value) : isValid(value)) return value;
  const ErrorType = isNumber && typeof value === 'number' ? RangeError : TypeError;
  throw new ErrorType(`invalid ${name}: expected ${expected}, got ${quote(value)}`);
}

// The options with their defaults. Throws a TypeError or a RangeError.
function checkOptions(options) {
  const unknown = Object.keys(options).find((name) => !Object.hasOwn(OPTIONS, name));
  if (unknown !== undefined) throw new TypeError(`unknown option '${unknown}'`);
  const checked = Object.fromEntries(
    Object.entries(OPTIONS).map(([name, [byDefault, isValid, expected]]) => {
      const { [name]: value = byDefault } = options;
      return [name, check(name, value, typeof byDefault === 'number', isValid, expected)];
    }),
  );
  const { restartDelay, restartDelayLimit } = checked;
  const isEnough = (value) => value >= restartDelay;
  const least = `a number from restartDelay, which is ${restartDelay}`;
  check('restartDelayLimit', restartDelayLimit, true, isEnough, least);
  return checked;
}

// The time limit of one call.
function checkTimeout(timeout) {
  return check('timeout', timeout, true, (value) => value >= 0, 'a number from 0');
}

module.exports = { checkOptions, checkTimeout, quote };
