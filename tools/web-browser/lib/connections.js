'use strict';
// The browser's end of the five sockets: connect, report the browser
// present, read the library's frames, send requests one at a time per
// connection and match each reply to its request.
//
// Nothing here knows what is on the other end beyond the wire format: the
// library itself, or a relay (the emulator) that forwards every frame.

const net = require('net');
const path = require('path');
const { EventEmitter } = require('events');
const wire = require('./wire');

const CONNECTIONS = [
  { index: 0, name: 'Application', file: 'UNIX_APP.domain', frames: true },
  { index: 1, name: 'dtvPlugins', file: 'UNIX_H_PLUIN.domain' },
  { index: 2, name: 'vodPlugins', file: 'UNIX_C_PLUIN.domain' },
  { index: 3, name: 'Callbacks', file: 'UNIX_CB.domain', frames: true },
  { index: 4, name: 'DSMCC', file: 'UNIX_DSMCC.domain' },
];
const BY_NAME = Object.fromEntries(CONNECTIONS.map((c) => [c.name, c]));

// Requests waiting for their turn on one connection; beyond this a page
// that floods gets "busy" at once instead of growing a queue.
const MAX_QUEUED = 32;
// Bytes buffered while a frame or reply is incomplete; more means the peer
// is not speaking the protocol.
const MAX_BUFFERED = 1 << 20;
// Page events on "Application" get no reply, and the library takes one
// received block as one message: two events written back to back could
// arrive as one block. They are therefore spaced by this pause.
const EVENT_SPACING_MS = 30;
const RETRY_MS = 50;

class Connection {
  constructor(link, desc) {
    this.link = link;
    this.desc = desc;
    this.socket = null;
    this.buffer = '';
    this.queue = [];      // { raw, content, timeoutMs, resolve, reject }
    this.active = null;   // the request whose reply is awaited
    this.timer = null;
    this.lastEventAt = 0;
  }

  get connected() { return this.socket !== null; }

  connect() {
    return new Promise((resolve) => {
      const socketPath = path.join(this.link.dir, this.desc.file);
      const socket = net.createConnection({ path: socketPath });
      socket.once('connect', () => {
        socket.removeAllListeners('error');
        this.attach(socket);
        resolve(true);
      });
      socket.once('error', () => { socket.destroy(); resolve(false); });
    });
  }

  attach(socket) {
    this.socket = socket;
    this.buffer = '';
    socket.setNoDelay?.(true);
    socket.on('data', (data) => this.onData(data.toString('latin1')));
    // A peer that went away shows as EPIPE or ECONNRESET on the next
    // write; the close that follows reports it.
    socket.on('error', (err) => {
      if (err.code !== 'EPIPE' && err.code !== 'ECONNRESET') this.link.log(`${this.desc.name}: ${err.message}`);
    });
    socket.on('close', () => this.onClose());
  }

  onData(text) {
    this.buffer += text;
    if (this.buffer.length > MAX_BUFFERED) {
      this.link.log(`${this.desc.name}: more than ${MAX_BUFFERED} bytes without a complete message; reconnecting`);
      this.drop();
      return;
    }
    if (this.desc.frames) this.readFrames();
    else this.readReplies();
  }

  readFrames() {
    for (;;) {
      const r = wire.decodeFrame(this.buffer);
      if (r.status === wire.INCOMPLETE) return;
      if (r.status === wire.MALFORMED) {
        this.link.log(`${this.desc.name}: malformed frame dropped: ${JSON.stringify(this.buffer.slice(0, 80))}`);
        this.buffer = '';
        return;
      }
      this.buffer = r.rest;
      this.link.emit('frame', this.desc.name, r.frame);
    }
  }

  readReplies() {
    while (this.buffer.length > 0) {
      if (!this.active) {
        this.link.log(`${this.desc.name}: unexpected bytes with no request pending dropped`);
        this.buffer = '';
        return;
      }
      const r = wire.decodeReply(this.buffer, this.active.content);
      if (r.status === wire.INCOMPLETE) return;
      const done = this.active;
      this.finish();
      if (r.status === wire.MALFORMED) {
        done.reject(new Error('malformed reply'));
        this.drop();
        return;
      }
      this.buffer = r.rest;
      done.resolve(r.reply);
      this.next();
    }
  }

  // Queues a request; resolves with its reply.
  request(raw, { content = false, timeoutMs = 3000 } = {}) {
    return new Promise((resolve, reject) => {
      if (!this.connected) { reject(new Error(`${this.desc.name} is not connected`)); return; }
      if (this.queue.length >= MAX_QUEUED) { reject(new Error(`${this.desc.name} is busy`)); return; }
      this.queue.push({ raw, content, timeoutMs, resolve, reject });
      if (!this.active) this.next();
    });
  }

  next() {
    if (this.active || this.queue.length === 0 || !this.connected) return;
    this.active = this.queue.shift();
    const req = this.active;
    this.link.emit('sent', this.desc.name, req.raw);
    this.socket.write(Buffer.from(req.raw, 'latin1'));
    this.timer = setTimeout(() => {
      // No reply in time (an id the library does not serve gets none). A
      // late reply would be taken for the next request's, so the connection
      // starts afresh.
      this.link.log(`${this.desc.name}: no reply to ${JSON.stringify(req.raw.slice(0, 60))} within ${req.timeoutMs} ms; reconnecting`);
      this.finish();
      req.reject(new Error('no reply'));
      this.drop();
    }, req.timeoutMs);
  }

  finish() {
    clearTimeout(this.timer);
    this.timer = null;
    this.active = null;
  }

  // A message without a reply ("Application" page events).
  sendEvent(raw) {
    if (!this.connected) return false;
    const now = Date.now();
    const at = Math.max(now, this.lastEventAt + EVENT_SPACING_MS);
    this.lastEventAt = at;
    const write = () => {
      if (!this.socket) return;
      this.link.emit('sent', this.desc.name, raw);
      this.socket.write(Buffer.from(raw, 'latin1'));
    };
    if (at === now) write(); else setTimeout(write, at - now);
    return true;
  }

  failAll(reason) {
    const pending = (this.active ? [this.active] : []).concat(this.queue);
    this.finish();
    this.queue = [];
    for (const req of pending) req.reject(new Error(reason));
  }

  drop() {
    if (this.socket) this.socket.destroy();
  }

  onClose() {
    this.socket = null;
    this.buffer = '';
    this.failAll(`${this.desc.name} closed`);
    this.link.onConnectionClosed(this);
  }
}

// The five connections as one link to the library.
//
// Events: 'up' (all five connected and the browser reported present),
// 'down' (the "Application" connection was lost: the library closed or
// restarted), 'frame' (connection name, frame) for commands and callbacks,
// 'sent' (connection name, raw) for every message written.
class LibraryLink extends EventEmitter {
  constructor(dir, { log = () => {} } = {}) {
    super();
    this.dir = dir;
    this.log = log;
    this.connections = CONNECTIONS.map((desc) => new Connection(this, desc));
    this.up = false;
    this.closing = false;
    this.connecting = null;
  }

  connection(name) {
    const desc = BY_NAME[name];
    if (!desc) throw new Error(`unknown connection ${name}`);
    return this.connections[desc.index];
  }

  // Connects whatever is not connected, retrying until `deadline` (ms since
  // the epoch; Infinity waits for a library to appear). Resolves true when
  // all five are up and the browser reported itself present.
  start(deadline = Infinity) {
    if (!this.connecting) {
      this.connecting = this.connectAll(deadline).finally(() => { this.connecting = null; });
    }
    return this.connecting;
  }

  async connectAll(deadline) {
    for (;;) {
      if (this.closing) return false;
      for (const c of this.connections) {
        if (!c.connected) await c.connect();
      }
      if (this.connections.every((c) => c.connected)) break;
      if (Date.now() >= deadline) return false;
      await new Promise((r) => setTimeout(r, RETRY_MS));
    }
    this.up = true;
    // The state report: the library leaves its browser wait.
    this.connection('Application').sendEvent('83|1|');
    this.emit('up');
    return true;
  }

  onConnectionClosed(conn) {
    if (this.closing) return;
    if (conn.desc.name === 'Application') {
      // The library went away (closed, or restarts): drop the rest too and
      // wait for it to listen again.
      const wasUp = this.up;
      this.up = false;
      for (const c of this.connections) c.drop();
      if (wasUp) this.emit('down');
      setTimeout(() => this.start(), RETRY_MS);
    } else if (this.up) {
      // One plug-in connection was reset (after a missing reply): the
      // library accepts the next client on it.
      const retry = async () => {
        if (this.closing || !this.up || conn.connected) return;
        if (!(await conn.connect())) setTimeout(retry, RETRY_MS);
      };
      setTimeout(retry, RETRY_MS);
    }
  }

  request(name, id, fields, options) {
    let raw;
    try {
      raw = wire.buildRequest(id, fields);
    } catch (err) {
      return Promise.reject(err);
    }
    return this.connection(name).request(raw, options);
  }

  sendEvent(id, fields = []) {
    return this.connection('Application').sendEvent(wire.buildRequest(id, fields));
  }

  // Tells the library the browser goes away, then closes everything.
  close({ report = true } = {}) {
    if (report && this.up) this.connection('Application').socket?.write(Buffer.from('83|0|', 'latin1'));
    this.closing = true;
    this.up = false;
    for (const c of this.connections) {
      c.failAll('closing');
      if (c.socket) c.socket.end();
    }
  }

  // Drops all five at once, as a crashed browser process would.
  dropAll() {
    this.up = false;
    for (const c of this.connections) c.drop();
  }
}

module.exports = { LibraryLink, CONNECTIONS };
