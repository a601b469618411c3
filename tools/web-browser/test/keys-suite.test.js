'use strict';
// Key names and key-set groups; the test suite's report lines.
const test = require('node:test');
const assert = require('node:assert');
const keys = require('../lib/keys');
const suite = require('../lib/testsuite');

test('keys pass only the groups of the key set', () => {
  const red = keys.lookup('red');
  assert.deepStrictEqual([red.name, red.code], ['VK_RED', 403]);
  assert.strictEqual(keys.lookup('OK').code, 13);
  assert.strictEqual(keys.lookup('7').code, 55);
  assert.strictEqual(keys.lookup('nosuch'), null);
  assert.ok(keys.allowed(red, 0x1) && !keys.allowed(red, 0x1e));
  assert.ok(keys.allowed(keys.lookup('BACK'), 0x10));
  assert.ok(!keys.allowed(keys.lookup('5'), 0x1f) && keys.allowed(keys.lookup('5'), 0x100));
  assert.ok(keys.allowed(keys.lookup('PLAY'), 0x20));
});

test('report lines become steps; headers and junk are skipped', () => {
  assert.strictEqual(suite.parseReportLine(';127.0.0.1;1700000000;Mozilla/5.0 HbbTV/1.5.1'), null);
  assert.strictEqual(suite.parseReportLine('1700000001;x;7;;'), null);
  const s = suite.parseReportLine('1700000001;channels.get;1;null;channel=DVB triple(1.2.3); more');
  assert.deepStrictEqual([s.step, s.result, s.note, s.text], ['channels.get', 'FAIL', '', 'channel=DVB triple(1.2.3); more']);
  const m = suite.parseReportLine('1700000002;keyset.319;2;ignore;Please run it manually.');
  assert.strictEqual(suite.stepLine(m), 'step keyset.319 MANUAL Please run it manually.');
  const v = suite.parseReportLine('1700000003;appmanager.hide;0;visual;Application hidden.');
  assert.strictEqual(suite.stepLine(v), 'step appmanager.hide PASS [visual] Application hidden.');
  assert.strictEqual(suite.summaryLine([s, m, v, v]), '2 passed, 1 failed, 1 manual');
});
