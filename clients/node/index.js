'use strict';
// The package for `require`. index.mjs exports the same classes.

Object.assign(require('./builtins.js'), {
  childProcess: require('node:child_process'),
  crypto: require('node:crypto'),
  events: require('node:events'),
  url: require('node:url'),
});
const { CardReader } = require('./reader.js');

module.exports = { CardReader, ...require('./errors.js') };
