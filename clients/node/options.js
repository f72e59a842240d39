'use strict';
// The options of a CardReader: their defaults, and what is accepted.

const TIME = [(value) => value >= 0 && value < Infinity, 'a finite number from 0'];
const TIMEOUT = [(value) => value > 0 && value < Infinity, 'a finite number above 0'];
const LIMIT = [(value) => value > 0, 'a number above 0, or Infinity'];
const isCount = (value) => value >= 1 && (value === Infinity || Number.isInteger(value));
const COUNT = [isCount, 'a whole number from 1, or Infinity'];
const isFunction = (value) => typeof value === 'function';
const FUNCTION = [(value) => value === null || isFunction(value), 'a function'];
const isStandardError = (value) => ['inherit', 'ignore'].includes(value) || isFunction(value);
const STDERR = [isStandardError, "'inherit', 'ignore' or a function"];
const isObject = (value) => value !== null && typeof value === 'object' && !Array.isArray(value);
const OBJECT = [isObject, 'an object'];

const OPTIONS = {
  env: [process.env, ...OBJECT],
  restartDelay: [500, ...TIME],
  restartDelayLimit: [30_000, ...TIME],
  giveUpAfter: [5, ...COUNT],
  commandTimeout: [10_000, ...LIMIT],
  watchdogInterval: [5_000, ...TIME],
  watchdogTimeout: [15_000, ...TIMEOUT],
  cardRemovedAfter: [600, ...TIME],
  onConnect: [null, ...FUNCTION],
  closeTimeout: [2_000, ...TIME],
  stderr: ['inherit', ...STDERR],
  trace: [null, ...FUNCTION],
};

const quote = (value) => (typeof value === 'string' ? `'${value}'` : String(value));

function check(name, value, isNumber, isValid, expected) {
  if (isNumber ? typeof value === 'number' && isValid(value) : isValid(value)) return value;
  const ErrorType = isNumber && typeof value === 'number' ? RangeError : TypeError;
  throw new ErrorType(`invalid ${name}: expected ${expected}, got ${quote(value)}`);
}

function checkNames(options, names) {
  const unknown = Object.keys(options).find((name) => !names.includes(name));
  if (unknown !== undefined) throw new TypeError(`unknown option '${unknown}'`);
}

// The options with their defaults. Throws a TypeError or a RangeError.
function checkOptions(options) {
  checkNames(options, Object.keys(OPTIONS));
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

// The limits of one call, with its default timeout.
function checkLimits(limits, byDefault) {
  checkNames(limits, ['timeout', 'signal']);
  const { timeout = byDefault, signal } = limits;
  check('timeout', timeout, true, (value) => value >= 0, 'a number from 0');
  return { timeout, signal };
}

module.exports = { checkOptions, checkLimits, quote };
