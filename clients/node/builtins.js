'use strict';
// The modules of Node.js that the client uses. Its entries fill them in, index.js with `require` and
// index.mjs with `import`: a bundle in the one format can't resolve the other's calls.
module.exports = {};
