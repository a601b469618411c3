'use strict';
// The wire format of the five sockets, from the browser's side.
//
//  - Library commands and callbacks ("Application", "Callbacks") arrive as
//    frames: the body length printed with "%3d", then the body
//    "id|field|...|", no terminator.
//  - Requests go out as "id|field|...|", one request per write.
//  - Replies come back as "field|...|" plus one zero byte; carousel content
//    replies (131-133) carry "kind|0|length|" and then `length` bytes of
//    payload before that zero byte.
//
// All text is 8-bit: buffers are read as latin1 so that one byte is one
// character and nothing is lost on the way to and from the page.

// Four digits are the most the library sends (its frames fit 4096 bytes);
// five leave room, as the C++ stand-in does.
const MAX_PREFIX_WIDTH = 5;
const MAX_ID_DIGITS = 9;
const MAX_REQUEST_BYTES = 4096;

const OK = 'ok';
const INCOMPLETE = 'incomplete';
const MALFORMED = 'malformed';

const isDigit = (c) => c >= '0' && c <= '9';

// Do the `avail` bytes from `pos` on begin like a body ("digits|")?
function checkBodyStart(buf, pos, avail) {
  let digits = 0;
  for (let i = 0; i < avail; i++) {
    const c = buf[pos + i];
    if (c === '|') return digits > 0 ? OK : MALFORMED;
    if (!isDigit(c) || ++digits > MAX_ID_DIGITS) return MALFORMED;
  }
  return INCOMPLETE;
}

// Can the bytes from `pos` on (as far as they have arrived) begin another
// frame's prefix: "  d", " dd" or "ddd"?
function plausiblePrefixStart(buf, pos) {
  let blanks = 0;
  for (let i = 0; i < 3 && pos + i < buf.length; i++) {
    const c = buf[pos + i];
    if (c === ' ' && blanks === i && i < 2) blanks++;
    else if (!isDigit(c) || (i === blanks && c === '0')) return false;
  }
  return true;
}

// The reading "prefix of width w announcing len bytes". Strict readings
// (all-digit prefixes, where prefix and id run together) must also end
// with "|" and be followed by nothing or by a plausible next prefix.
function checkCandidate(buf, w, len, strict) {
  const have = buf.length - w;
  const start = checkBodyStart(buf, w, Math.min(have, len));
  if (start === MALFORMED) return MALFORMED;
  if (have < len) return INCOMPLETE;
  if (start === INCOMPLETE) return MALFORMED;
  if (strict && (buf[w + len - 1] !== '|' || !plausiblePrefixStart(buf, w + len))) return MALFORMED;
  return OK;
}

function splitFields(body) {
  const parts = body.split('|');
  const trailing = parts.pop();
  return { fields: parts, trailing: trailing === '' ? null : trailing };
}

function takeFrame(buf, w, len) {
  const body = buf.substr(w, len);
  const { fields, trailing } = splitFields(body);
  return {
    frame: { id: parseInt(fields[0], 10), fields: fields.slice(1), trailing, body },
    rest: buf.substring(w + len),
  };
}

// Takes one frame off the front of `buf` (a latin1 string). Returns
// { status, frame, rest }: status OK with the frame and what follows it,
// INCOMPLETE when more bytes are needed, MALFORMED when no reading fits
// (there is then no way to find the next boundary).
function decodeFrame(buf) {
  if (buf.length === 0) return { status: INCOMPLETE };
  if (buf[0] === ' ') {
    const n = Math.min(buf.length, 3);
    let blanks = 0;
    while (blanks < n && buf[blanks] === ' ') blanks++;
    if (blanks === 3) return { status: MALFORMED };
    for (let i = blanks; i < n; i++) {
      if (!isDigit(buf[i]) || (i === blanks && buf[i] === '0')) return { status: MALFORMED };
    }
    if (buf.length < 3) return { status: INCOMPLETE };
    const len = parseInt(buf.substring(blanks, 3), 10);
    const check = checkCandidate(buf, 3, len, false);
    if (check !== OK) return { status: check };
    return { status: OK, ...takeFrame(buf, 3, len) };
  }
  // An all-digit prefix: try the widths from the shortest. A shorter reading
  // never needs more bytes than a longer one, so waiting never over-reads.
  if (buf[0] < '1' || buf[0] > '9') return { status: MALFORMED };
  for (let w = 3; w <= MAX_PREFIX_WIDTH; w++) {
    for (let i = 1; i < w; i++) {
      if (i >= buf.length) return { status: INCOMPLETE };
      if (!isDigit(buf[i])) return { status: MALFORMED };
    }
    const len = parseInt(buf.substring(0, w), 10);
    const check = checkCandidate(buf, w, len, true);
    if (check === OK) return { status: OK, ...takeFrame(buf, w, len) };
    if (check === INCOMPLETE) return { status: INCOMPLETE };
  }
  return { status: MALFORMED };
}

// Builds a request from latin1 texts. A field holding "|" (it would split
// in two) or a zero byte is refused. An empty field ends the library's
// reading of a request (every later field reads as empty), so the request
// ends there: what is sent is what the library reads.
function buildRequest(id, fields) {
  let out = `${id}|`;
  for (const f of fields) {
    const text = String(f);
    if (text.includes('|')) throw new Error('a field holds "|"');
    if (text.includes('\0')) throw new Error('a field holds a zero byte');
    if (text === '') break;
    out += `${text}|`;
  }
  if (Buffer.byteLength(out, 'latin1') > MAX_REQUEST_BYTES) throw new Error('request longer than 4096 bytes');
  return out;
}

// Reads one reply off the front of `buf` (latin1). `content` says whether a
// carousel content reply is expected: then a header "kind|0|length|" is
// followed by `length` payload bytes and the zero byte. Returns
// { status, reply, rest } where reply is { fields, payload } (payload null
// for plain replies).
function decodeReply(buf, content) {
  if (content && !buf.startsWith('NOT_AVAILABLE|')) {
    // Header: three fields.
    let pos = 0;
    const header = [];
    for (let i = 0; i < 3; i++) {
      const bar = buf.indexOf('|', pos);
      if (bar < 0) {
        if (buf.length - pos > 16 || buf.indexOf('\0', pos) >= 0) return { status: MALFORMED };
        return { status: INCOMPLETE };
      }
      header.push(buf.substring(pos, bar));
      pos = bar + 1;
    }
    const length = Number(header[2]);
    if (!/^\d+$/.test(header[2]) || !Number.isSafeInteger(length)) return { status: MALFORMED };
    if (buf.length < pos + length + 1) return { status: INCOMPLETE };
    if (buf[pos + length] !== '\0') return { status: MALFORMED };
    return {
      status: OK,
      reply: { fields: header, payload: Buffer.from(buf.substr(pos, length), 'latin1') },
      rest: buf.substring(pos + length + 1),
    };
  }
  const zero = buf.indexOf('\0');
  if (zero < 0) return { status: INCOMPLETE };
  const { fields, trailing } = splitFields(buf.substring(0, zero));
  if (trailing !== null) fields.push(trailing);
  return { status: OK, reply: { fields, payload: null }, rest: buf.substring(zero + 1) };
}

module.exports = {
  OK, INCOMPLETE, MALFORMED, MAX_REQUEST_BYTES, decodeFrame, decodeReply, buildRequest, splitFields,
};
