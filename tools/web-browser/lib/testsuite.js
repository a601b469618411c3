'use strict';
// The public HbbTV test suite's pages, served so that they run themselves.
//
// A writable copy of the pages is served by PHP's built-in server on a
// loopback port. With the cookie mxphbbtvauto set to "PIN.RUN" a group's
// page runs its steps in turn and reports each one to report.php, which
// appends "time;step;result;note;text" (result 0 pass, 1 fail, 2 needs a
// person) to log/PIN-RUN-<hash>.report. Those lines are read back here as
// steps.

const fs = require('fs');
const os = require('os');
const net = require('net');
const path = require('path');
const { spawn } = require('child_process');
const { EventEmitter } = require('events');

const COOKIE = 'mxphbbtvauto';
const RESULTS = { 0: 'PASS', 1: 'FAIL', 2: 'MANUAL' };
const POLL_MS = 200;
const START_TIMEOUT_MS = 10000;

// The group folders of a pages directory: those with an index.php.
function groupsOf(pagesDir) {
  return fs.readdirSync(pagesDir, { withFileTypes: true })
    .filter((d) => d.isDirectory() && fs.existsSync(path.join(pagesDir, d.name, 'index.php')))
    .map((d) => d.name)
    .sort();
}

// One line of a report file, or null for the header line (";addr;time;ua")
// and lines that are not reports.
function parseReportLine(line) {
  if (!line || line.startsWith(';')) return null;
  const parts = line.split(';');
  if (parts.length < 5) return null;
  const [time, step, result, note] = parts;
  const text = parts.slice(4).join(';');
  if (!step || !(result in RESULTS)) return null;
  return { time: Number(time), step, result: RESULTS[result], note: note === 'null' ? '' : note, text };
}

// The output line of a step.
function stepLine(s) {
  const note = s.note && s.note !== 'ignore' ? `[${s.note}] ` : '';
  return `step ${s.step} ${s.result} ${note}${s.text}`.trimEnd();
}

function summaryLine(steps) {
  const count = (r) => steps.filter((s) => s.result === r).length;
  return `${count('PASS')} passed, ${count('FAIL')} failed, ${count('MANUAL')} manual`;
}

function freePort() {
  return new Promise((resolve, reject) => {
    const server = net.createServer();
    server.once('error', reject);
    server.listen(0, '127.0.0.1', () => {
      const { port } = server.address();
      server.close(() => resolve(port));
    });
  });
}

function waitForPort(port, deadline) {
  return new Promise((resolve, reject) => {
    const attempt = () => {
      const socket = net.createConnection({ host: '127.0.0.1', port });
      socket.once('connect', () => { socket.destroy(); resolve(); });
      socket.once('error', () => {
        socket.destroy();
        if (Date.now() > deadline) reject(new Error('php did not start serving'));
        else setTimeout(attempt, 50);
      });
    };
    attempt();
  });
}

// Events: 'step' ({ step, result, note, text }) for each reported step.
class TestSuite extends EventEmitter {
  constructor({ pages, port = 0, pin, run, php = 'php', log = () => {} }) {
    super();
    this.pages = pages;
    this.pin = pin || 1 + Math.floor(Math.random() * 9999);
    this.run = run || 1 + Math.floor(Math.random() * 999999);
    this.php = php;
    this.log = log;
    this.copy = null;
    this.child = null;
    this.port = port;
    this.steps = [];
    this.offsets = new Map();
    this.timer = null;
  }

  // As browsers write it: port 80 goes without saying.
  get origin() { return this.port === 80 ? 'http://127.0.0.1' : `http://127.0.0.1:${this.port}`; }
  get cookieValue() { return `${this.pin}.${this.run}`; }
  groupUrl(group) { return `${this.origin}/${encodeURIComponent(group)}/index.php`; }
  // The start page of the suite: a group's "exit" step returns there.
  get indexUrl() { return `${this.origin}/index.php`; }

  async start() {
    if (!fs.existsSync(path.join(this.pages, 'report.php'))) {
      throw new Error(`${this.pages} has no report.php: not the test suite's pages`);
    }
    this.copy = fs.mkdtempSync(path.join(os.tmpdir(), 'appmgr-testsuite-'));
    fs.cpSync(this.pages, this.copy, { recursive: true });
    // The directories the pages write into: the reports, and the results
    // of the user-agent group's video request.
    fs.mkdirSync(path.join(this.copy, 'log'), { recursive: true });
    if (fs.existsSync(path.join(this.copy, 'useragent'))) {
      fs.mkdirSync(path.join(this.copy, 'useragent', '_results'), { recursive: true });
    }
    if (!this.port) this.port = await freePort();
    this.child = spawn(this.php, ['-S', `127.0.0.1:${this.port}`, '-t', this.copy], {
      cwd: this.copy, stdio: ['ignore', 'ignore', 'pipe'],
    });
    this.child.stderr.on('data', (d) => this.log(d.toString().trimEnd()));
    this.exited = new Promise((resolve) => this.child.once('exit', resolve));
    this.child.once('error', (err) => this.log(`php: ${err.message}`));
    await waitForPort(this.port, Date.now() + START_TIMEOUT_MS);
    this.timer = setInterval(() => this.poll(), POLL_MS);
  }

  // Reads what report.php appended since the last look.
  poll() {
    const dir = path.join(this.copy, 'log');
    let names;
    try {
      names = fs.readdirSync(dir).filter((n) => n.startsWith(`${this.pin}-${this.run}-`) && n.endsWith('.report'));
    } catch (e) {
      return;
    }
    for (const name of names.sort()) {
      const file = path.join(dir, name);
      const from = this.offsets.get(file) || 0;
      let data;
      try {
        data = fs.readFileSync(file);
      } catch (e) {
        continue;
      }
      const end = data.lastIndexOf(0x0a) + 1;
      if (end <= from) continue;
      this.offsets.set(file, end);
      for (const line of data.subarray(from, end).toString('latin1').split('\n')) {
        const s = parseReportLine(line);
        if (!s) continue;
        this.steps.push(s);
        this.emit('step', s);
      }
    }
  }

  summary() { return summaryLine(this.steps); }

  async stop() {
    if (this.timer) {
      clearInterval(this.timer);
      this.poll();
      this.timer = null;
    }
    if (this.child && this.child.exitCode === null && this.child.signalCode === null) {
      this.child.kill('SIGTERM');
      await this.exited;
    }
    this.child = null;
    if (this.copy) {
      fs.rmSync(this.copy, { recursive: true, force: true });
      this.copy = null;
    }
  }
}

module.exports = { TestSuite, COOKIE, groupsOf, parseReportLine, stepLine, summaryLine };
