'use strict';
// Remote-control keys: their VK_ codes (as a receiver's browser gives them
// in keyCode) and the key-set group each belongs to. A key reaches the page
// only when its group is in the key set the library sent last (command
// 220); otherwise it stays with the receiver.

const GROUP = {
  RED: 0x1, GREEN: 0x2, YELLOW: 0x4, BLUE: 0x8, NAVIGATION: 0x10, VCR: 0x20, SCROLL: 0x40,
  INFO: 0x80, NUMERIC: 0x100, ALPHA: 0x200, OTHER: 0x400,
};

// name: [keyCode, group, DOM key value]
const KEYS = {
  VK_RED: [403, GROUP.RED, 'ColorF0Red'],
  VK_GREEN: [404, GROUP.GREEN, 'ColorF1Green'],
  VK_YELLOW: [405, GROUP.YELLOW, 'ColorF2Yellow'],
  VK_BLUE: [406, GROUP.BLUE, 'ColorF3Blue'],
  VK_UP: [38, GROUP.NAVIGATION, 'ArrowUp'],
  VK_DOWN: [40, GROUP.NAVIGATION, 'ArrowDown'],
  VK_LEFT: [37, GROUP.NAVIGATION, 'ArrowLeft'],
  VK_RIGHT: [39, GROUP.NAVIGATION, 'ArrowRight'],
  VK_ENTER: [13, GROUP.NAVIGATION, 'Enter'],
  VK_BACK: [461, GROUP.NAVIGATION, 'GoBack'],
  VK_PLAY: [415, GROUP.VCR, 'MediaPlay'],
  VK_PAUSE: [19, GROUP.VCR, 'MediaPause'],
  VK_PLAY_PAUSE: [402, GROUP.VCR, 'MediaPlayPause'],
  VK_STOP: [413, GROUP.VCR, 'MediaStop'],
  VK_FAST_FWD: [417, GROUP.VCR, 'MediaFastForward'],
  VK_REWIND: [412, GROUP.VCR, 'MediaRewind'],
  VK_RECORD: [416, GROUP.VCR, 'MediaRecord'],
  VK_TRACK_NEXT: [425, GROUP.VCR, 'MediaTrackNext'],
  VK_TRACK_PREV: [424, GROUP.VCR, 'MediaTrackPrevious'],
  VK_PAGE_UP: [33, GROUP.SCROLL, 'PageUp'],
  VK_PAGE_DOWN: [34, GROUP.SCROLL, 'PageDown'],
  VK_INFO: [457, GROUP.INFO, 'Info'],
  VK_TELETEXT: [459, GROUP.OTHER, 'Teletext'],
  VK_SUBTITLE: [460, GROUP.OTHER, 'Subtitle'],
};
for (let d = 0; d <= 9; d++) KEYS[`VK_${d}`] = [48 + d, GROUP.NUMERIC, String(d)];

// Short names accepted on the control channel and the command line.
const ALIASES = {
  RED: 'VK_RED', GREEN: 'VK_GREEN', YELLOW: 'VK_YELLOW', BLUE: 'VK_BLUE', UP: 'VK_UP', DOWN: 'VK_DOWN',
  LEFT: 'VK_LEFT', RIGHT: 'VK_RIGHT', OK: 'VK_ENTER', ENTER: 'VK_ENTER', BACK: 'VK_BACK', PLAY: 'VK_PLAY',
  PAUSE: 'VK_PAUSE', STOP: 'VK_STOP', FFWD: 'VK_FAST_FWD', REWIND: 'VK_REWIND', INFO: 'VK_INFO',
};

// The key named `name` ("VK_RED", "red", "5", "VK_5"): { name, code, group,
// key }, or null.
function lookup(name) {
  const upper = String(name).trim().toUpperCase();
  const full = KEYS[upper] ? upper : ALIASES[upper] || (/^[0-9]$/.test(upper) ? `VK_${upper}` : `VK_${upper}`);
  const k = KEYS[full];
  return k ? { name: full, code: k[0], group: k[1], key: k[2] } : null;
}

// Whether a key passes the key set `mask`.
function allowed(key, mask) {
  return (key.group & mask) !== 0;
}

// The constants the page sees as VK_* and KeyEvent.VK_*.
function pageKeyCodes() {
  return Object.fromEntries(Object.entries(KEYS).map(([name, k]) => [name, k[0]]));
}

module.exports = { GROUP, KEYS, lookup, allowed, pageKeyCodes };
