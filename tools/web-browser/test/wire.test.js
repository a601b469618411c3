'use strict';
// The browser's side of the wire format: frames as the library sends them
// (including the ambiguous all-digit prefixes), replies, requests.
const test = require('node:test');
const assert = require('node:assert');
const wire = require('../lib/wire');

test('frames with a blank-padded prefix, whole and in pieces', () => {
  let r = wire.decodeFrame('  4160|');
  assert.strictEqual(r.status, wire.OK);
  assert.deepStrictEqual([r.frame.id, r.frame.fields, r.rest], [160, [], '']);
  r = wire.decodeFrame(' 17141|UTC+01:00:00|  351|');
  assert.deepStrictEqual([r.frame.id, r.frame.fields, r.rest], [141, ['UTC+01:00:00'], '  351|']);
  for (const part of ['', ' ', '  ', ' 17', ' 17141|UTC+01']) {
    assert.strictEqual(wire.decodeFrame(part).status, wire.INCOMPLETE, JSON.stringify(part));
  }
  for (const bad of ['   4160|', ' 07141|', '  4x60|', '  3|ab', 'abc']) {
    assert.strictEqual(wire.decodeFrame(bad).status, wire.MALFORMED, JSON.stringify(bad));
  }
});

test('all-digit prefixes: three digits, and four for bodies of 1000 bytes and more', () => {
  const body3 = `50|${'x'.repeat(120)}|`;
  let r = wire.decodeFrame(`${body3.length}${body3}`);
  assert.strictEqual(r.status, wire.OK);
  assert.strictEqual(r.frame.fields[0].length, 120);
  const body4 = `66|${'y'.repeat(1200)}|a|`;
  const framed = `${body4.length}${body4}  351|`;
  r = wire.decodeFrame(framed);
  assert.strictEqual(r.status, wire.OK);
  assert.deepStrictEqual([r.frame.id, r.frame.fields.length, r.rest], [66, 2, '  351|']);
  // Cut anywhere inside, the frame is not yet complete.
  for (const cut of [2, 3, 10, framed.length - 7]) {
    assert.strictEqual(wire.decodeFrame(framed.slice(0, cut)).status, wire.INCOMPLETE, String(cut));
  }
});

test('replies: plain, with empty fields, and carousel content with binary payload', () => {
  let r = wire.decodeReply('ACK|\0rest', false);
  assert.deepStrictEqual([r.reply.fields, r.rest], [['ACK'], 'rest']);
  r = wire.decodeReply('0|ccid|1||\0', false);
  assert.deepStrictEqual(r.reply.fields, ['0', 'ccid', '1', '']);
  assert.strictEqual(wire.decodeReply('0|cc', false).status, wire.INCOMPLETE);
  const payload = 'a\0b|\n';
  r = wire.decodeReply(`0|0|${payload.length}|${payload}\0`, true);
  assert.strictEqual(r.status, wire.OK);
  assert.deepStrictEqual(r.reply.payload, Buffer.from(payload, 'latin1'));
  assert.strictEqual(wire.decodeReply(`0|0|${payload.length}|a\0`, true).status, wire.INCOMPLETE);
  assert.strictEqual(wire.decodeReply('0|0|2|abX', true).status, wire.MALFORMED);
  assert.deepStrictEqual(wire.decodeReply('NOT_AVAILABLE|\0', true).reply, { fields: ['NOT_AVAILABLE'], payload: null });
});

test('requests end at the first empty field and refuse "|"', () => {
  assert.strictEqual(wire.buildRequest(33, ['1', '2', '3']), '33|1|2|3|');
  assert.strictEqual(wire.buildRequest(20, ['0', 'ccid', '', '9']), '20|0|ccid|');
  assert.strictEqual(wire.buildRequest(401, []), '401|');
  assert.throws(() => wire.buildRequest(46, ['a|b', 'go']));
  assert.throws(() => wire.buildRequest(46, ['x'.repeat(5000)]));
});
