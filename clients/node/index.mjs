// The package for `import`. index.js exports the same classes.
import './builtins.mjs';
import errors from './errors.js';
import reader from './reader.js';

export const { CardReader } = reader;
export const { CardReaderError, NoReaderError, ReaderChangedError, ReaderFailedError } = errors;
export const { RejectedError, UnknownSettingsError, CommandTimeoutError } = errors;
export const { AgentEndedError, AgentStartError } = errors;
