'use strict';
// Starts Debian's chromium with the DevTools protocol on a loopback port
// and connects to its page. Chromium is the distribution's package; nothing
// here downloads a browser.

const fs = require('fs');
const os = require('os');
const path = require('path');
const { spawn } = require('child_process');
const CDP = require('chrome-remote-interface');

const DEFAULT_BINARIES = ['/usr/bin/chromium', '/usr/lib/chromium/chromium', '/usr/bin/chromium-browser'];
const START_TIMEOUT_MS = 20000;

function findBinary(given) {
  if (given) return given;
  if (process.env.APPMGR_CHROMIUM) return process.env.APPMGR_CHROMIUM;
  const found = DEFAULT_BINARIES.find((p) => fs.existsSync(p));
  if (!found) throw new Error('chromium not found (install Debian\'s chromium, or give --chromium PATH)');
  return found;
}

// Waits until chromium wrote the port of its DevTools endpoint.
async function waitForPort(profile, child, deadline) {
  const file = path.join(profile, 'DevToolsActivePort');
  for (;;) {
    if (child.exitCode !== null || child.signalCode !== null) {
      throw new Error(`chromium ended at start (${child.exitCode ?? child.signalCode})`);
    }
    try {
      const [port] = fs.readFileSync(file, 'latin1').split('\n');
      if (/^\d+$/.test(port)) return Number(port);
    } catch (ignore) {
      // not written yet
    }
    if (Date.now() > deadline) throw new Error('chromium did not open its DevTools port in time');
    await new Promise((r) => setTimeout(r, 25));
  }
}

// One running chromium: its process (in a process group of its own, so
// its helpers go with it), its profile directory and a DevTools client
// attached to its one page.
class Chromium {
  constructor({ binary, headed = false, width = 1280, height = 720, log = () => {} } = {}) {
    this.binary = findBinary(binary);
    this.headed = headed;
    this.width = width;
    this.height = height;
    this.log = log;
    this.child = null;
    this.client = null;
    this.profile = null;
    this.exited = null;
  }

  async start() {
    this.profile = fs.mkdtempSync(path.join(os.tmpdir(), 'appmgr-chromium-'));
    const args = [
      `--user-data-dir=${this.profile}`,
      '--remote-debugging-address=127.0.0.1',
      '--remote-debugging-port=0',
      '--no-first-run',
      '--no-default-browser-check',
      '--disable-background-networking',
      '--disable-component-update',
      '--disable-sync',
      '--disable-extensions',
      // Pages served through DevTools (the rewritten HbbTV documents, the
      // carousel) have no network address of their own; Chromium would take
      // them for public pages and refuse their requests to the loopback
      // endpoint of the page objects.
      '--disable-features=Translate,MediaRouter,OptimizationHints,LocalNetworkAccessChecks,'
        + 'BlockInsecurePrivateNetworkRequests,PrivateNetworkAccessSendPreflights',
      '--password-store=basic',
      '--use-mock-keychain',
      '--autoplay-policy=no-user-gesture-required',
      `--window-size=${this.width},${this.height}`,
      '--hide-scrollbars',
    ];
    if (!this.headed) args.push('--headless', '--disable-gpu');
    // Chromium's sandbox needs privileges a root process or a container
    // usually does not give it.
    if (process.getuid?.() === 0 || process.env.APPMGR_CHROMIUM_NO_SANDBOX) args.push('--no-sandbox');
    args.push('about:blank');
    const child = spawn(this.binary, args, { stdio: ['ignore', 'ignore', 'pipe'], detached: true });
    this.child = child;
    this.exited = new Promise((resolve) => child.once('exit', (code, signal) => resolve({ code, signal })));
    let stderrTail = '';
    child.stderr.on('data', (d) => { stderrTail = (stderrTail + d.toString()).slice(-2000); });
    child.once('error', (err) => this.log(`chromium: ${err.message}`));
    this.stderrTail = () => stderrTail;

    let port;
    try {
      port = await waitForPort(this.profile, child, Date.now() + START_TIMEOUT_MS);
    } catch (err) {
      // Chromium says why on its standard error: its last line comes along.
      const last = stderrTail.trim().split('\n').pop();
      throw new Error(last ? `${err.message}: ${last}` : err.message);
    }
    const targets = await CDP.List({ host: '127.0.0.1', port });
    const page = targets.find((t) => t.type === 'page');
    if (!page) throw new Error('chromium has no page');
    this.client = await CDP({ host: '127.0.0.1', port, target: page });
    return this.client;
  }

  get pid() { return this.child ? this.child.pid : null; }

  // Ends chromium (the process group it leads) and removes its profile.
  async stop() {
    const child = this.child;
    this.child = null;
    if (this.client) {
      const client = this.client;
      this.client = null;
      // A connection that is already closing may never confirm its close.
      await Promise.race([client.close().catch(() => {}), new Promise((r) => setTimeout(r, 1000))]);
    }
    if (child && child.exitCode === null && child.signalCode === null) {
      try { process.kill(-child.pid, 'SIGTERM'); } catch (ignore) { /* gone */ }
      const timer = setTimeout(() => { try { process.kill(-child.pid, 'SIGKILL'); } catch (ignore) { /* gone */ } }, 3000);
      await this.exited;
      clearTimeout(timer);
    }
    if (this.profile) {
      // Chromium's helpers may still be writing while they end.
      try {
        fs.rmSync(this.profile, { recursive: true, force: true, maxRetries: 5, retryDelay: 100 });
      } catch (err) {
        this.log(`profile ${this.profile} left behind: ${err.message}`);
      }
      this.profile = null;
    }
  }
}

module.exports = { Chromium, findBinary };
