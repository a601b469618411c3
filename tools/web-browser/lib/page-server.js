'use strict';
// The browser process's loopback endpoint for the page's objects.
//
// POST /rpc carries one request of a page object: {"token", "connection",
// "id", "fields"} in, {"fields"} (or {"error"}) out. The page sends it as a
// synchronous XMLHttpRequest, so the object's call returns the library's
// answer. Only loopback peers are served, and only with the token of this
// run (it is known to the injected script and to nobody else), so neither
// another local process nor a web page outside this browser can speak on
// the library's sockets through it.

const http = require('http');
const crypto = require('crypto');
const requests = require('./requests');

const MAX_BODY_BYTES = 256 * 1024;
const utf8 = new TextDecoder('utf-8', { fatal: true });

// The library's texts are 8-bit; they are UTF-8 where the receiver has
// UTF-8 (service names), else taken byte for byte.
function decodeText(latin1) {
  const bytes = Buffer.from(latin1, 'latin1');
  try {
    return utf8.decode(bytes);
  } catch (e) {
    return latin1;
  }
}
const encodeText = (text) => Buffer.from(String(text), 'utf8').toString('latin1');

const isLoopback = (address) => address === '127.0.0.1' || address === '::1' || address === '::ffff:127.0.0.1';

function sameToken(a, b) {
  const x = Buffer.from(String(a));
  const y = Buffer.from(String(b));
  return x.length === y.length && crypto.timingSafeEqual(x, y);
}

class PageServer {
  // `send(connection, id, fields, options)` sends one request and resolves
  // with its reply ({ fields, payload }).
  constructor({ send, log = () => {} }) {
    this.send = send;
    this.log = log;
    this.token = crypto.randomBytes(24).toString('hex');
    this.server = http.createServer((req, res) => this.handle(req, res));
    this.port = 0;
  }

  async listen() {
    await new Promise((resolve, reject) => {
      this.server.once('error', reject);
      this.server.listen(0, '127.0.0.1', resolve);
    });
    this.port = this.server.address().port;
    return this.port;
  }

  get origin() { return `http://127.0.0.1:${this.port}`; }
  get rpcUrl() { return `${this.origin}/rpc`; }

  close() {
    this.server.close();
    this.server.closeAllConnections?.();
  }

  answer(res, status, body) {
    res.writeHead(status, {
      'Content-Type': 'application/json',
      'Access-Control-Allow-Origin': '*',
      'Cache-Control': 'no-store',
    });
    res.end(JSON.stringify(body));
  }

  handle(req, res) {
    if (!isLoopback(req.socket.remoteAddress)) {
      req.socket.destroy();
      return;
    }
    if (req.method === 'OPTIONS') {
      res.writeHead(204, {
        'Access-Control-Allow-Origin': '*',
        'Access-Control-Allow-Methods': 'POST',
        'Access-Control-Allow-Headers': 'Content-Type',
      });
      res.end();
      return;
    }
    if (req.method !== 'POST' || req.url !== '/rpc') {
      this.answer(res, 404, { error: 'not found' });
      return;
    }
    let size = 0;
    const chunks = [];
    req.on('data', (c) => {
      size += c.length;
      if (size > MAX_BODY_BYTES) {
        this.answer(res, 413, { error: 'request too large' });
        req.destroy();
        return;
      }
      chunks.push(c);
    });
    req.on('end', () => {
      if (size > MAX_BODY_BYTES) return;
      this.serveRpc(Buffer.concat(chunks).toString('utf8'), res);
    });
  }

  async serveRpc(body, res) {
    let msg;
    try {
      msg = JSON.parse(body);
    } catch (e) {
      this.answer(res, 400, { error: 'not JSON' });
      return;
    }
    if (!msg || !sameToken(msg.token, this.token)) {
      this.answer(res, 403, { error: 'bad token' });
      return;
    }
    const { connection, id, fields } = msg;
    const checked = requests.check(connection, id, fields);
    if (checked.error) {
      this.answer(res, 400, { error: checked.error });
      return;
    }
    try {
      const reply = await this.send(connection, id, fields.map(encodeText), checked.options);
      const out = { fields: reply.fields.map(decodeText) };
      if (reply.payload) out.payload = reply.payload.toString('base64');
      this.answer(res, 200, out);
    } catch (err) {
      this.answer(res, 503, { error: err.message });
    }
  }
}

module.exports = { PageServer, decodeText, encodeText };
