'use strict';
// The requests a page's objects may send, per connection: only ids the
// library answers, so that every request gets its reply (an id without
// one would leave the connection waiting until its time-out). Rows with a
// longer time-out are those the library may serve through a network
// transfer (an HTTP probe, an XML stream-event description).

const range = (a, b) => Array.from({ length: b - a + 1 }, (_, i) => a + i);

const DTV = new Set([
  0, 1, 2, 3, 4, 8, 9, 20, 22, 23, ...range(30, 35), ...range(41, 47), 50, 51, ...range(53, 58),
  70, 71, 72, 78, 90, ...range(91, 96), ...range(98, 105), ...range(106, 129), 401,
]);
const MEDIA = new Set([200, 201, ...range(203, 208), ...range(210, 213), 230, 231, 234, 235, ...range(240, 245), ...range(300, 315)]);
for (const id of MEDIA) DTV.add(id);
const DSMCC = new Set([130, 131, 132, 133]);

const TABLE = {
  dtvPlugins: DTV,
  vodPlugins: MEDIA,
  DSMCC,
};

const SLOW = new Set([46, 47, 50]);
const DEFAULT_TIMEOUT_MS = 3000;
const SLOW_TIMEOUT_MS = 25000;
const MAX_FIELDS = 80;
const MAX_FIELD_BYTES = 1024;

// Checks a page's request. Returns { options } for the connection's
// request call, or { error } saying why it is refused.
function check(connection, id, fields) {
  const ids = TABLE[connection];
  if (!ids) return { error: `no requests on ${connection}` };
  if (!Number.isInteger(id) || !ids.has(id)) return { error: `${connection} does not serve id ${id}` };
  if (!Array.isArray(fields) || fields.length > MAX_FIELDS) return { error: 'bad field list' };
  for (const f of fields) {
    if (typeof f !== 'string') return { error: 'fields must be texts' };
    if (Buffer.byteLength(f, 'utf8') > MAX_FIELD_BYTES) return { error: 'field too long' };
  }
  return {
    options: {
      content: connection === 'DSMCC' && id !== 130,
      timeoutMs: SLOW.has(id) ? SLOW_TIMEOUT_MS : DEFAULT_TIMEOUT_MS,
    },
  };
}

module.exports = { check, TABLE };
