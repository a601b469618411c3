#!/usr/bin/env node
'use strict';
// appmgr-web-browser: plays hbbtv-web-browser on a PC. Connects to the five
// sockets of libapp-mgr (or of a relay in front of it), reports the browser
// present, and runs the applications the library starts in Debian's
// chromium. See docs/web-browser.md.

const { WebBrowser } = require('./lib/browser');
const { Control } = require('./lib/control');

const USAGE = `usage: appmgr-web-browser [options]
  --socket-dir DIR     directory of the five sockets (default /tmp/)
  --control PATH       also serve the control channel on this UNIX socket
  --chromium PATH      the chromium binary (default: Debian's /usr/bin/chromium)
  --headed             show a window (for instance under Xvfb) instead of headless
  --user-agent TEXT    User-Agent until the library sends one
  --console            report the page's console messages as events
  --trace              log every message on the sockets to stderr
  -h, --help           this text
Commands on standard input (one per line): key NAME, screenshot FILE,
cookie URL NAME=VALUE, eval EXPRESSION, status, kill-chromium, quit.`;

function parseArgs(argv) {
  const o = { socketDir: '/tmp/' };
  for (let i = 0; i < argv.length; i++) {
    const a = argv[i];
    const value = () => {
      if (i + 1 >= argv.length) throw new Error(`${a} needs a value`);
      return argv[++i];
    };
    switch (a) {
      case '--socket-dir': o.socketDir = value(); break;
      case '--control': o.control = value(); break;
      case '--chromium': o.chromium = value(); break;
      case '--headed': o.headed = true; break;
      case '--user-agent': o.userAgent = value(); break;
      case '--console': o.console = true; break;
      case '--trace': o.trace = true; break;
      case '-h': case '--help': o.help = true; break;
      default: throw new Error(`unknown option ${a}`);
    }
  }
  return o;
}

async function main() {
  let options;
  try {
    options = parseArgs(process.argv.slice(2));
  } catch (err) {
    process.stderr.write(`appmgr-web-browser: ${err.message}\n${USAGE}\n`);
    process.exit(2);
  }
  if (options.help) {
    process.stdout.write(`${USAGE}\n`);
    return;
  }
  const log = (m) => process.stderr.write(`web-browser: ${m}\n`);
  const browser = new WebBrowser({ ...options, log });
  let ending = false;
  const end = async (status) => {
    if (ending) return;
    ending = true;
    // Whatever hangs on the way out, the process ends.
    setTimeout(() => process.exit(status), 5000).unref();
    control.close();
    await browser.stop().catch(() => {});
    process.exit(status);
  };
  const control = new Control(browser, { onQuit: () => end(0) });
  control.attach(process.stdin, (text) => process.stdout.write(text));
  process.stdin.on('end', () => { if (!options.control) end(0); });
  browser.on('close', () => end(0));
  browser.on('fatal', () => end(1));
  for (const sig of ['SIGINT', 'SIGTERM', 'SIGHUP']) process.on(sig, () => end(0));
  process.stdout.on('error', () => {});

  try {
    if (options.control) await control.listen(options.control);
    await browser.start();
  } catch (err) {
    log(err.message);
    await end(1);
    return;
  }
  control.broadcast(`event ready ${browser.server.origin}`);
}

main();
