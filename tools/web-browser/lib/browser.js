'use strict';
// The browser process: the library's commands act on Chromium's page, the
// page's objects speak to the library, the library's callbacks become page
// events, and remote-control keys reach the page through the key set.
//
// What this process remembers comes from the library's own commands (the
// key set, the boundary, visibility, time zone, User-Agent): it decides
// nothing about applications itself.

const fs = require('fs');
const path = require('path');
const { EventEmitter } = require('events');
const { LibraryLink } = require('./connections');
const { Chromium } = require('./chromium');
const { PageServer, decodeText } = require('./page-server');
const keys = require('./keys');

const OBJECTS_SCRIPT = fs.readFileSync(path.join(__dirname, '..', 'page', 'hbbtv-objects.js'), 'utf8');
const DEFAULT_USER_AGENT = 'Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) '
  + 'Chrome/120 Safari/537.36 HbbTV/1.5.1 (+DL+PVR; libapp-mgr; web-browser; 1.0; 1.0;)';
// Content types of HbbTV and CE-HTML documents: a desktop browser would
// download them; a receiver renders them as XHTML.
const TV_DOCUMENT_TYPES = ['application/vnd.hbbtv.xhtml+xml', 'application/ce-html+xml'];
const NAVIGATE_TIMEOUT_MS = 5000;
const RETRY_NAVIGATE_TIMEOUT_MS = 3000;
const MAX_DSMCC_FILE_BYTES = 16 * 1024 * 1024;

const withTimeout = (promise, ms, what) => Promise.race([
  promise,
  new Promise((_, reject) => setTimeout(() => reject(new Error(`${what} took longer than ${ms} ms`)), ms)),
]);

function contentTypeFor(url, body) {
  const ext = path.extname(url.replace(/[?#].*$/, '')).toLowerCase();
  const head = body.subarray(0, 512).toString('latin1');
  switch (ext) {
    case '.html': case '.htm': case '.xhtml': case '.cehtml': case '':
      // A carousel has no content types. A document that declares the
      // XHTML namespace is read as XHTML, as a receiver reads HbbTV pages.
      return /xmlns\s*=\s*["']http:\/\/www\.w3\.org\/1999\/xhtml["']/.test(head) || head.startsWith('<?xml')
        ? 'application/xhtml+xml' : 'text/html';
    case '.js': return 'text/javascript';
    case '.css': return 'text/css';
    case '.png': return 'image/png';
    case '.jpg': case '.jpeg': return 'image/jpeg';
    case '.gif': return 'image/gif';
    case '.svg': return 'image/svg+xml';
    case '.xml': case '.aitx': return 'application/xml';
    case '.json': return 'application/json';
    case '.txt': return 'text/plain';
    default: return 'application/octet-stream';
  }
}

class WebBrowser extends EventEmitter {
  constructor(options = {}) {
    super();
    this.options = options;
    this.socketDir = options.socketDir || '/tmp/';
    this.log = options.log || (() => {});
    this.link = new LibraryLink(this.socketDir, { log: (m) => this.log(m) });
    this.server = new PageServer({ send: (c, id, f, o) => this.link.request(c, id, f, o), log: this.log });
    this.chromium = null;
    this.client = null;
    this.stopping = false;
    this.restarting = false;
    // Mirrors of the library's commands.
    this.keyset = 0;
    this.visible = true;
    this.boundary = null;
    this.userAgent = options.userAgent || DEFAULT_USER_AGENT;
    this.acceptLanguage = null;
    this.applicationUrl = null;   // the URL the library started (its own form: dvb: or http:)
    this.activated = false;
    this.mainFrameId = null;
    this.documentStatus = new Map();
  }

  get dvbOrigin() { return `${this.server.origin}/dvb/`; }

  // The page-side form of a receiver URL (dvb: URLs live on the loopback
  // origin) and back.
  pageUrl(url) {
    return /^dvb:\/\//i.test(url) ? this.dvbOrigin + url.substring(6) : url;
  }

  receiverUrl(url) {
    return url.startsWith(this.dvbOrigin) ? `dvb://${url.substring(this.dvbOrigin.length)}` : url;
  }

  event(name, ...rest) {
    this.emit('event', [name, ...rest].join(' '));
  }

  async start() {
    await this.server.listen();
    this.link.on('frame', (conn, frame) => this.onFrame(conn, frame));
    this.link.on('up', () => {
      this.event('connected', this.socketDir);
      // The User-Agent the middleware gave the library, when it gave one.
      this.link.request('dtvPlugins', 401, []).then((r) => {
        if (r.fields[0] && r.fields[0] !== 'NOT_AVAILABLE') {
          this.userAgent = decodeText(r.fields[0]);
          return this.applyUserAgent();
        }
        return null;
      }).catch(() => {});
    });
    this.link.on('down', () => this.event('library-lost'));
    if (this.options.trace) {
      this.link.on('sent', (conn, raw) => this.log(`${conn} -> ${JSON.stringify(raw)}`));
    }
    await this.startChromium();
    this.link.start();
  }

  async startChromium() {
    this.chromium = new Chromium({
      binary: this.options.chromium, headed: this.options.headed, log: this.log,
    });
    const client = await this.chromium.start();
    this.client = client;
    const chromium = this.chromium;
    chromium.exited.then(() => this.onChromiumGone(chromium));
    client.on('disconnect', () => this.onChromiumGone(chromium));

    const { Page, Runtime, Network, Fetch, Emulation } = client;
    await Promise.all([Page.enable(), Runtime.enable(), Network.enable()]);
    await Emulation.setDeviceMetricsOverride({ width: 1280, height: 720, deviceScaleFactor: 1, mobile: false });
    await this.applyUserAgent();
    const config = {
      rpc: this.server.rpcUrl, token: this.server.token, dvbOrigin: this.dvbOrigin,
      keyset: this.keyset, keyCodes: keys.pageKeyCodes(),
    };
    await Page.addScriptToEvaluateOnNewDocument({
      source: OBJECTS_SCRIPT.replace('const CONFIG = __HBBTV_CONFIG__;', `const CONFIG = ${JSON.stringify(config)};`),
    });
    await Fetch.enable({
      patterns: [
        { urlPattern: `${this.dvbOrigin}*`, requestStage: 'Request' },
        { urlPattern: '*', resourceType: 'Document', requestStage: 'Response' },
      ],
    });
    Fetch.requestPaused((e) => this.onRequestPaused(e).catch((err) => this.log(`request ${e.request.url}: ${err.message}`)));
    Page.frameNavigated(({ frame }) => {
      if (frame.parentId) return;
      this.mainFrameId = frame.id;
    });
    Page.loadEventFired(() => this.onLoaded());
    Page.javascriptDialogOpening(({ type, message }) => {
      // A receiver has no dialogs: answer at once, or the page would block.
      this.event('dialog', type, JSON.stringify(message));
      Page.handleJavaScriptDialog({ accept: true }).catch(() => {});
    });
    Runtime.consoleAPICalled(({ type, args }) => {
      if (!this.options.console) return;
      this.event('console', type, args.map((a) => (a.value !== undefined ? String(a.value) : a.description || a.type)).join(' '));
    });
    Runtime.exceptionThrown(({ exceptionDetails }) => {
      const d = exceptionDetails;
      this.event('page-error', JSON.stringify((d.exception && d.exception.description) || d.text).slice(0, 300));
    });
  }

  // Chromium crashed or was killed: to the library this is a crash of the
  // browser process. The sockets drop (the library re-binds the broadcast
  // and waits for the browser), Chromium starts again, and the browser
  // reports itself present once more.
  async onChromiumGone(chromium) {
    if (this.stopping || this.restarting || chromium !== this.chromium) return;
    this.restarting = true;
    this.event('chromium-lost');
    this.link.dropAll();
    this.applicationUrl = null;
    this.activated = false;
    try {
      await chromium.stop();
      await this.startChromium();
      this.event('chromium-restarted');
    } catch (err) {
      this.log(`chromium did not start again: ${err.message}`);
      this.emit('fatal', err);
      return;
    } finally {
      this.restarting = false;
    }
    this.link.start();
  }

  async stop() {
    if (this.stopping) return;
    this.stopping = true;
    this.link.close();
    this.server.close();
    if (this.chromium) await this.chromium.stop();
  }

  // ---- the page's loading ------------------------------------------------

  async onRequestPaused(e) {
    const { Fetch } = this.client;
    const url = e.request.url;
    if (e.responseStatusCode === undefined && e.responseErrorReason === undefined) {
      if (url.startsWith(this.dvbOrigin)) {
        await this.serveCarousel(e);
        return;
      }
      await Fetch.continueRequest({ requestId: e.requestId });
      return;
    }
    if (e.resourceType === 'Document' && (!e.frameId || e.frameId === this.mainFrameId || !this.mainFrameId)) {
      this.documentStatus.set(url, e.responseStatusCode);
    }
    const headers = e.responseHeaders || [];
    const type = headers.find((h) => h.name.toLowerCase() === 'content-type');
    const isTvDocument = type && TV_DOCUMENT_TYPES.some((t) => type.value.toLowerCase().startsWith(t));
    if (!isTvDocument) {
      await Fetch.continueRequest({ requestId: e.requestId });
      return;
    }
    // Only a complete new response is accepted for a rewritten type: the
    // body is taken and handed back with the XHTML type.
    const body = await Fetch.getResponseBody({ requestId: e.requestId });
    const charset = /charset=([^;]+)/i.exec(type.value);
    const responseHeaders = headers
      .filter((h) => !['content-type', 'content-length', 'content-encoding'].includes(h.name.toLowerCase()))
      .concat([{ name: 'Content-Type', value: `application/xhtml+xml${charset ? `; charset=${charset[1]}` : ''}` }]);
    await Fetch.fulfillRequest({
      requestId: e.requestId,
      responseCode: e.responseStatusCode,
      responseHeaders,
      body: body.base64Encoded ? body.body : Buffer.from(body.body, 'utf8').toString('base64'),
    });
  }

  // A request for the carousel origin: the file comes through the "DSMCC"
  // connection (131). A directory is its index.html for a document, and its
  // listing (132) for a script's request. Pages of other origins may read
  // the carousel too (a receiver's dvb: URLs belong to no web origin).
  async serveCarousel(e) {
    const { Fetch } = this.client;
    let dvbUrl = this.receiverUrl(e.request.url).replace(/[?#].*$/, '');
    let id = 131;
    if (dvbUrl.endsWith('/')) {
      if (e.resourceType === 'Document') dvbUrl += 'index.html';
      else {
        id = 132;
        dvbUrl = dvbUrl.replace(/\/+$/, '');
      }
    }
    let reply = null;
    try {
      reply = dvbUrl.length <= 1024 ? await this.link.request('DSMCC', id, [dvbUrl], { content: true }) : null;
    } catch (err) {
      this.log(`carousel ${dvbUrl}: ${err.message}`);
    }
    if (e.resourceType === 'Document') this.documentStatus.set(e.request.url, reply && reply.payload ? 200 : 404);
    const anyOrigin = { name: 'Access-Control-Allow-Origin', value: '*' };
    if (!reply || !reply.payload || reply.payload.length > MAX_DSMCC_FILE_BYTES) {
      await Fetch.fulfillRequest({
        requestId: e.requestId,
        responseCode: 404,
        responseHeaders: [{ name: 'Content-Type', value: 'text/plain' }, anyOrigin],
        body: Buffer.from(`not in the carousel: ${dvbUrl}\n`).toString('base64'),
      });
      return;
    }
    await Fetch.fulfillRequest({
      requestId: e.requestId,
      responseCode: 200,
      responseHeaders: [
        { name: 'Content-Type', value: id === 132 ? 'text/plain' : contentTypeFor(dvbUrl, reply.payload) },
        { name: 'Cache-Control', value: 'no-store' },
        anyOrigin,
      ],
      body: reply.payload.toString('base64'),
    });
  }

  async onLoaded() {
    if (!this.client) return;
    let url;
    try {
      const { frameTree } = await this.client.Page.getFrameTree();
      url = frameTree.frame.url + (frameTree.frame.urlFragment || '');
      this.mainFrameId = frameTree.frame.id;
    } catch (err) {
      return;
    }
    // Chromium's own pages (about:blank, its error pages) are no application's.
    if (!/^(https?|file):/i.test(url)) return;
    await this.applyPageState();
    const status = this.documentStatus.get(url.replace(/#.*$/, ''));
    this.documentStatus.clear();
    const receiverUrl = this.receiverUrl(url);
    if (status !== undefined && status >= 400) {
      this.event('load-failed', receiverUrl, `status ${status}`);
      if (this.applicationUrl && this.pageUrl(this.applicationUrl).replace(/#.*$/, '') === url.replace(/#.*$/, '')) {
        this.link.sendEvent(68);
      }
      return;
    }
    // The library takes the loaded page as the base of relative URLs.
    if (receiverUrl.length <= 1023 && !receiverUrl.includes('|')) this.link.sendEvent(82, [receiverUrl]);
    this.event('loaded', receiverUrl);
  }

  // Visibility and key set of a fresh document, as the library set them.
  async applyPageState() {
    await this.evaluate(`window.__hbbtvBridge && (window.__hbbtvBridge.keyset(${this.keyset}),`
      + ` window.__hbbtvBridge.visibility(${this.visible}));`
      + ` document.documentElement && (document.documentElement.style.visibility = ${this.visible ? "''" : "'hidden'"});`);
  }

  async navigate(url) {
    const { Page, Runtime } = this.client;
    const attempt = (ms) => withTimeout(Page.navigate({ url }), ms, 'navigation');
    try {
      return await attempt(NAVIGATE_TIMEOUT_MS);
    } catch (err) {
      if (this.stopping || this.restarting) throw err;
      // A page that loops keeps its renderer busy: end its script and try
      // once more; if that fails too, the browser is restarted as after a
      // crash.
      this.log(`navigation to ${url}: ${err.message}; ending the page's script`);
      // Its answer comes from the busy thread, if at all: not waited for long.
      await withTimeout(Runtime.terminateExecution(), 500, 'terminating').catch(() => {});
      try {
        return await attempt(RETRY_NAVIGATE_TIMEOUT_MS);
      } catch (again) {
        this.log(`navigation to ${url} failed again: restarting chromium`);
        this.chromium.stop();
        throw again;
      }
    }
  }

  async loadApplication(url) {
    this.applicationUrl = url;
    this.activated = false;
    this.event('loading', url);
    let result;
    try {
      result = await this.navigate(this.pageUrl(url));
    } catch (err) {
      this.event('load-failed', url, err.message);
      return;
    }
    if (result.errorText) {
      this.event('load-failed', url, result.errorText);
      this.link.sendEvent(68);
    }
  }

  async evaluate(expression) {
    if (!this.client) throw new Error('no page');
    const r = await this.client.Runtime.evaluate({ expression, returnByValue: true, awaitPromise: true });
    if (r.exceptionDetails) {
      throw new Error((r.exceptionDetails.exception && r.exceptionDetails.exception.description) || r.exceptionDetails.text);
    }
    return r.result.value;
  }

  // ---- the library's commands and callbacks ------------------------------

  onFrame(conn, frame) {
    const fields = frame.fields.map(decodeText);
    if (this.options.trace) this.log(`${conn} <- ${frame.id} ${JSON.stringify(fields)}`);
    if (conn === 'Callbacks') {
      this.evaluate(`window.__hbbtvBridge && window.__hbbtvBridge.callback(${frame.id}, ${JSON.stringify(fields)})`)
        .catch((err) => this.log(`callback ${frame.id}: ${err.message}`));
      this.event('callback', frame.id);
      return;
    }
    this.onCommand(frame.id, fields).catch((err) => this.log(`command ${frame.id}: ${err.message}`));
  }

  async onCommand(id, f) {
    const { Page, Emulation, Network } = this.client || {};
    switch (id) {
      case 50:   // start the application page
      case 140:  // start the portal page
        if (f[0]) await this.loadApplication(f[0]);
        break;
      case 51:   // destroy the application page
        this.applicationUrl = null;
        this.activated = false;
        this.event('destroyed');
        await this.navigate('about:blank').catch(() => {});
        break;
      case 53:
      case 54:
        this.visible = id === 53;
        this.event(this.visible ? 'shown' : 'hidden');
        await this.applyPageState().catch(() => {});
        break;
      case 59:
        this.boundary = f[0] === 'no boundary' ? null : f[0];
        this.event('boundary', f[0]);
        break;
      case 141: {  // "UTC+hh:mm:00": the receiver's offset from UTC
        const m = /^UTC([+-])(\d\d):(\d\d)/.exec(f[0] || '');
        if (m && Emulation) {
          await Emulation.setTimezoneOverride({ timezoneId: `GMT${m[1]}${m[2]}:${m[3]}` }).catch(() => {});
        }
        this.event('timezone', f[0] || '');
        break;
      }
      case 24:  // the User-Agent
        if (f[0]) {
          this.userAgent = f[0];
          await this.applyUserAgent();
        }
        this.event('user-agent', JSON.stringify(this.userAgent));
        break;
      case 25:
        this.acceptLanguage = f[0] || null;
        await this.applyUserAgent();
        break;
      case 400:
        if (Network) await Network.setExtraHTTPHeaders({ headers: f[0] === '1' ? { DNT: '1' } : {} }).catch(() => {});
        break;
      case 160:  // close the browser
        this.event('close');
        this.emit('close');
        break;
      case 220:
        this.keyset = parseInt(f[0], 10) || 0;
        this.event('keyset', `0x${this.keyset.toString(16)}`);
        await this.evaluate(`window.__hbbtvBridge && window.__hbbtvBridge.keyset(${this.keyset})`).catch(() => {});
        break;
      default:
        // 26 (cookies), 27 (carousel module changed), 48/49, 81 (display
        // mode), 402 (transparency check): nothing to do on a PC page.
        this.event('command', id, JSON.stringify(f));
        if (id === 27 && Page) this.log(`carousel module ${f[0]} changed`);
        break;
    }
  }

  async applyUserAgent() {
    if (!this.client) return;
    const params = { userAgent: this.userAgent };
    if (this.acceptLanguage) params.acceptLanguage = this.acceptLanguage;
    await this.client.Network.setUserAgentOverride(params).catch(() => {});
  }

  // ---- remote control ------------------------------------------------------

  // Delivers a key when the key set holds its group. Returns "delivered" or
  // "withheld" (the receiver keeps the key).
  async pressKey(name) {
    const key = keys.lookup(name);
    if (!key) throw new Error(`unknown key ${name}`);
    if (!keys.allowed(key, this.keyset)) return { key, result: 'withheld' };
    const { Input } = this.client;
    const text = key.group === keys.GROUP.NUMERIC ? key.key : key.code === 13 ? '\r' : undefined;
    const base = { windowsVirtualKeyCode: key.code, nativeVirtualKeyCode: key.code, key: key.key };
    await Input.dispatchKeyEvent({ type: text ? 'keyDown' : 'rawKeyDown', text, ...base });
    await Input.dispatchKeyEvent({ type: 'keyUp', ...base });
    // The first key an application receives activates it: the library then
    // lifts the key-set limit of a not yet activated application.
    if (this.applicationUrl && !this.activated) {
      this.activated = true;
      this.link.sendEvent(87);
    }
    return { key, result: 'delivered' };
  }

  async screenshot(file) {
    const shot = await this.client.Page.captureScreenshot({ format: 'png' });
    fs.mkdirSync(path.dirname(path.resolve(file)), { recursive: true });
    fs.writeFileSync(file, Buffer.from(shot.data, 'base64'));
    return file;
  }

  async setCookie(url, name, value) {
    const r = await this.client.Network.setCookie({ url: this.pageUrl(url), name, value, path: '/' });
    if (!r.success) throw new Error('cookie refused');
  }

  async status() {
    let url = null;
    try {
      const { frameTree } = await this.client.Page.getFrameTree();
      url = this.receiverUrl(frameTree.frame.url);
    } catch (ignore) { /* no page */ }
    return {
      library: this.link.up ? 'connected' : 'waiting',
      page: url,
      application: this.applicationUrl,
      keyset: `0x${this.keyset.toString(16)}`,
      visible: this.visible,
      activated: this.activated,
      chromium: this.chromium ? this.chromium.pid : null,
      endpoint: this.server.origin,
    };
  }
}

module.exports = { WebBrowser, DEFAULT_USER_AGENT };
