'use strict';
// The control channel: one command per line in, one answer line per
// command out, and the browser's events as they happen. Read on standard
// input / written to standard output, and on a UNIX socket when one is
// given (every client of the socket gets every event).
//
// Commands:
//   key NAME             a remote-control key (VK_RED, red, OK, 5, ...)
//   screenshot FILE      a PNG of the page
//   cookie URL NAME=VALUE
//   eval EXPRESSION      the value of a JavaScript expression in the page, as JSON
//   status               the state as JSON
//   kill-chromium        ends Chromium as a crash would (it is started again)
//   quit                 closes everything and ends the process
// Answers: "ok COMMAND ..." or "error COMMAND reason". Events: "event NAME ...".

const net = require('net');
const fs = require('fs');
const readline = require('readline');

const MAX_LINE = 64 * 1024;

class Control {
  constructor(browser, { onQuit }) {
    this.browser = browser;
    this.onQuit = onQuit;
    this.outputs = new Set();
    this.server = null;
    browser.on('event', (line) => this.broadcast(`event ${line}`));
  }

  broadcast(line) {
    for (const out of this.outputs) out(line);
  }

  // Serves commands from a readable stream, answering through `write`.
  attach(input, write) {
    const out = (line) => write(`${line.replace(/[\r\n]+/g, ' ')}\n`);
    this.outputs.add(out);
    const rl = readline.createInterface({ input, crlfDelay: Infinity });
    // Commands of one stream run one after another, in order.
    let chain = Promise.resolve();
    rl.on('line', (line) => {
      if (line.length > MAX_LINE) { out('error line too long'); return; }
      chain = chain.then(() => this.run(line.trim(), out));
    });
    rl.on('close', () => this.outputs.delete(out));
    return rl;
  }

  listen(socketPath) {
    try { fs.unlinkSync(socketPath); } catch (ignore) { /* not there */ }
    this.server = net.createServer((socket) => {
      socket.on('error', () => {});
      this.attach(socket, (text) => { if (!socket.destroyed) socket.write(text); });
    });
    return new Promise((resolve, reject) => {
      this.server.once('error', reject);
      this.server.listen(socketPath, resolve);
    });
  }

  close() {
    if (this.server) this.server.close();
  }

  async run(line, out) {
    if (!line) return;
    const space = line.indexOf(' ');
    const cmd = space < 0 ? line : line.substring(0, space);
    const arg = space < 0 ? '' : line.substring(space + 1).trim();
    try {
      switch (cmd) {
        case 'key': {
          const { key, result } = await this.browser.pressKey(arg);
          out(`ok key ${key.name} ${result}`);
          break;
        }
        case 'screenshot':
          if (!arg) throw new Error('screenshot needs a file name');
          out(`ok screenshot ${await this.browser.screenshot(arg)}`);
          break;
        case 'cookie': {
          const m = /^(\S+)\s+([^=\s]+)=(.*)$/.exec(arg);
          if (!m) throw new Error('cookie URL NAME=VALUE');
          await this.browser.setCookie(m[1], m[2], m[3]);
          out(`ok cookie ${m[2]}`);
          break;
        }
        case 'eval': {
          const value = await this.browser.evaluate(arg);
          out(`ok eval ${JSON.stringify(value === undefined ? null : value)}`);
          break;
        }
        case 'status':
          out(`ok status ${JSON.stringify(await this.browser.status())}`);
          break;
        case 'kill-chromium':
          this.browser.chromium.stop();
          out('ok kill-chromium');
          break;
        case 'quit':
          out('ok quit');
          this.onQuit();
          break;
        default:
          throw new Error('unknown command');
      }
    } catch (err) {
      out(`error ${cmd} ${err.message}`);
    }
  }
}

module.exports = { Control };
