'use strict';
// The errors of the package.

const BAD_ARCHITECTURE = -86; // macOS: EBADARCH

class CardReaderError extends Error {}

class NoReaderError extends CardReaderError {}

class ReaderChangedError extends CardReaderError {}

class ReaderFailedError extends CardReaderError {
  constructor(message, number) {
    super(message);
    this.number = number;
  }
}

class RejectedError extends CardReaderError {}

class UnknownSettingsError extends CardReaderError {
  constructor(names) {
    super(`unknown settings: ${names.join(', ')}`);
    this.names = names;
  }
}

class CommandTimeoutError extends CardReaderError {}

class AgentEndedError extends CardReaderError {
  constructor(message = 'the agent is not running', status = null, signal = null) {
    super(message);
    this.status = status;
    this.signal = signal;
  }
}

class AgentStartError extends CardReaderError {
  constructor(path, cause) {
    const lacksRosetta = process.platform === 'darwin' && cause.errno === BAD_ARCHITECTURE;
    const systemCode = lacksRosetta ? 'EBADARCH' : cause.code;
    const hint = lacksRosetta ? '; install Rosetta with softwareupdate --install-rosetta' : '';
    super(`cannot start ${path}: ${systemCode}${hint}`, { cause });
    this.systemCode = systemCode;
  }
}

Object.assign(exports, { CardReaderError, NoReaderError, ReaderChangedError, ReaderFailedError });
Object.assign(exports, { RejectedError, UnknownSettingsError, CommandTimeoutError });
Object.assign(exports, { AgentEndedError, AgentStartError });

// Bundlers rename classes, so the names are literal. Codes are derived: NoReaderError, NO_READER.
for (const [name, type] of Object.entries(exports)) {
  const code = name.replace(/Error$/, '').replace(/(?<=[a-z])[A-Z]/g, '_$&');
  Object.assign(type.prototype, { name, code: code.toUpperCase() });
}
