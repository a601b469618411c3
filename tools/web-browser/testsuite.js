#!/usr/bin/env node
'use strict';
// appmgr-testsuite: serves a writable copy of the public HbbTV test suite's
// pages and reports the steps its groups report, one line each. Whoever
// runs the receiver (the emulator, a test) signals a group's page as the
// AUTOSTART application, sets the cookie in the browser and says "end"
// when the group is over. See docs/web-browser.md.

const fs = require('fs');
const readline = require('readline');
const { TestSuite, COOKIE, groupsOf, stepLine } = require('./lib/testsuite');

const USAGE = `usage: appmgr-testsuite --pages DIR [--group NAME]... [--port N] [--pin N] [--run N] [--verbose]
Prints, as they happen:
  serving ORIGIN DIR            the copy's origin and directory
  cookie ${COOKIE}=PIN.RUN      the cookie that makes the pages run themselves
  index URL                     the suite's start page (a group's last step returns there)
  group NAME URL                each group's page (all groups with an index.php without --group)
  step NAME.STEP PASS|FAIL|MANUAL note   each reported step
Standard input: "end" (or its end) prints "N passed, M failed, K manual" and stops.`;

function parseArgs(argv) {
  const o = { groups: [] };
  for (let i = 0; i < argv.length; i++) {
    const a = argv[i];
    const value = () => {
      if (i + 1 >= argv.length) throw new Error(`${a} needs a value`);
      return argv[++i];
    };
    switch (a) {
      case '--pages': o.pages = value(); break;
      case '--group': o.groups.push(value()); break;
      case '--port': o.port = Number(value()); break;
      case '--pin': o.pin = Number(value()); break;
      case '--run': o.run = Number(value()); break;
      case '--verbose': o.verbose = true; break;
      case '-h': case '--help': o.help = true; break;
      default: throw new Error(`unknown option ${a}`);
    }
  }
  if (!o.help && !o.pages) throw new Error('--pages is required');
  if (o.port !== undefined && !(Number.isInteger(o.port) && o.port >= 1 && o.port <= 65535)) throw new Error('--port takes a port number');
  for (const n of ['pin', 'run']) {
    if (o[n] !== undefined && !(Number.isInteger(o[n]) && o[n] >= 1)) throw new Error(`--${n} takes a positive integer`);
  }
  return o;
}

async function main() {
  let o;
  try {
    o = parseArgs(process.argv.slice(2));
  } catch (err) {
    process.stderr.write(`appmgr-testsuite: ${err.message}\n${USAGE}\n`);
    process.exit(2);
  }
  if (o.help) {
    process.stdout.write(`${USAGE}\n`);
    return;
  }
  const groups = o.groups.length > 0 ? o.groups : groupsOf(o.pages);
  for (const g of groups) {
    if (!fs.existsSync(`${o.pages}/${g}/index.php`)) {
      process.stderr.write(`appmgr-testsuite: no group ${g} in ${o.pages}\n`);
      process.exit(2);
    }
  }
  const suite = new TestSuite({
    pages: o.pages, port: o.port, pin: o.pin, run: o.run, log: (m) => { if (o.verbose) process.stderr.write(`php: ${m}\n`); },
  });
  const out = (line) => process.stdout.write(`${line}\n`);
  suite.on('step', (s) => out(stepLine(s)));
  let ended = false;
  const end = async () => {
    if (ended) return;
    ended = true;
    await suite.stop();
    out(suite.summary());
    process.exit(0);
  };
  process.on('SIGTERM', end);
  process.on('SIGINT', end);
  try {
    await suite.start();
  } catch (err) {
    process.stderr.write(`appmgr-testsuite: ${err.message}\n`);
    await suite.stop().catch(() => {});
    process.exit(1);
  }
  out(`serving ${suite.origin} ${suite.copy}`);
  out(`cookie ${COOKIE}=${suite.cookieValue}`);
  out(`index ${suite.indexUrl}`);
  for (const g of groups) out(`group ${g} ${suite.groupUrl(g)}`);
  const rl = readline.createInterface({ input: process.stdin });
  rl.on('line', (line) => { if (line.trim() === 'end') end(); });
  rl.on('close', end);
}

main();
