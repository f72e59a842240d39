import * as childProcess from 'node:child_process';
import * as crypto from 'node:crypto';
import * as events from 'node:events';
import * as url from 'node:url';
import builtins from './builtins.js';

Object.assign(builtins, { childProcess, crypto, events, url });
