'use strict';
// The names of the package. It is CommonJS, so that `import` and `require` give the same classes on
// every Node.js; the names stand here one by one, since that is how `import` finds them.

const agents = require('./agent.js');
const readers = require('./reader.js');

const { CardReaderAgent, CardReaderError, CommandError, AgentStartError, AgentEndedError } = agents;
const { CardReader, NoReaderError, ReaderChangedError, ReaderFailedError } = readers;
const { RejectedError, UnknownSettingsError, CommandTimeoutError } = readers;

module.exports = {
  CardReader,
  CardReaderAgent,
  CardReaderError,
  AgentStartError,
  AgentEndedError,
  CommandError,
  NoReaderError,
  ReaderChangedError,
  ReaderFailedError,
  RejectedError,
  UnknownSettingsError,
  CommandTimeoutError,
};
