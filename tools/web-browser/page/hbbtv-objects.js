// The HbbTV / OIPF DAE objects of an HbbTV page, for Chromium.
//
// Injected into every document before any of the page's own scripts run.
// The embedding objects are the page's own <object> elements: an element
// whose type is one of the OIPF MIME types below gets that object's
// properties and methods (they are defined on HTMLObjectElement.prototype
// and look at the element's type, so they exist from the moment the
// parser creates the element).
//
// Every call that needs the receiver is one request of the library's
// browser protocol, sent through the browser process with a synchronous
// XMLHttpRequest to its loopback endpoint, so that the call returns the
// answer as the page's JavaScript expects. The library's callbacks arrive
// from the browser process through window.__hbbtvBridge.dispatch and
// become the objects' events.
//
// The browser process replaces __HBBTV_CONFIG__ with its endpoint, token
// and carousel origin before injecting this text.
(function () {
  'use strict';
  if (window.__hbbtvBridge) return;
  const CONFIG = __HBBTV_CONFIG__;
  const XHTML = 'http://www.w3.org/1999/xhtml';

  // ---- requests ---------------------------------------------------------

  // One request, answered synchronously: the reply's fields, or null when
  // the receiver did not answer (or the request was refused).
  function request(connection, id, fields) {
    try {
      const xhr = new XMLHttpRequest();
      xhr.open('POST', CONFIG.rpc, false);
      xhr.setRequestHeader('Content-Type', 'text/plain');
      xhr.send(JSON.stringify({ token: CONFIG.token, connection, id, fields: (fields || []).map(String) }));
      if (xhr.status !== 200) return null;
      const answer = JSON.parse(xhr.responseText);
      return answer.fields || null;
    } catch (e) {
      return null;
    }
  }
  const dtv = (id, fields) => request('dtvPlugins', id, fields);
  const available = (r) => r !== null && r.length > 0 && r[0] !== 'NOT_AVAILABLE';
  const number = (r, fallback) => {
    if (!available(r)) return fallback;
    const n = parseInt(r[0], 10);
    return isNaN(n) ? fallback : n;
  };
  const flag = (text) => text === '1' || text === 'true';
  const text = (t) => (t === undefined || t === '(null)' ? null : t);

  // The page's own URL as the receiver knows it: a page of the carousel is
  // served from the browser process's loopback origin, its dvb: URL is the
  // one the library started.
  function receiverUrl(url) {
    if (url.startsWith(CONFIG.dvbOrigin)) return 'dvb://' + url.substring(CONFIG.dvbOrigin.length);
    return url;
  }
  function absoluteUrl(url) {
    if (/^[a-zA-Z][a-zA-Z0-9+.-]*:/.test(url)) return url;
    try {
      return receiverUrl(new URL(url, document.baseURI).href);
    } catch (e) {
      return url;
    }
  }

  // A page may read carousel files with XMLHttpRequest and a dvb: URL
  // (absolute, or relative to a carousel page). Chromium has no dvb:
  // scheme: such a request goes to the carousel origin of the browser
  // process, which answers it from the carousel.
  const openRequest = XMLHttpRequest.prototype.open;
  XMLHttpRequest.prototype.open = function (method, url, ...rest) {
    let target = url;
    if (/^dvb:\/\//i.test(String(url))) target = CONFIG.dvbOrigin + String(url).substring(6);
    return openRequest.call(this, method, target, ...rest);
  };

  // ---- events -----------------------------------------------------------

  // Fires an event the DOM 2 way (addEventListener) and the DOM 0 way
  // (onName property, called with the given arguments).
  function fire(target, name, props, args) {
    const handler = target['on' + name];
    if (typeof handler === 'function') {
      try {
        handler.apply(target, args || []);
      } catch (e) {
        setTimeout(() => { throw e; }, 0);
      }
    }
    const event = new Event(name);
    Object.assign(event, props || {});
    try {
      EventTarget.prototype.dispatchEvent.call(target, event);
    } catch (e) {
      // a listener threw: the page's own error
    }
  }

  // ---- records ----------------------------------------------------------

  const CHANNEL_CONSTANTS = {
    TYPE_TV: 0, TYPE_RADIO: 1, TYPE_OTHER: 2,
    ID_ANALOG: 0, ID_DVB_C: 10, ID_DVB_S: 11, ID_DVB_T: 12, ID_DVB_SI_DIRECT: 13, ID_DVB_C2: 14,
    ID_DVB_S2: 15, ID_DVB_T2: 16, ID_ISDB_C: 20, ID_ISDB_S: 21, ID_ISDB_T: 22, ID_ATSC_T: 30,
    ID_IPTV_SDS: 40, ID_IPTV_URI: 41,
  };

  // A channel reply: type|ccid|onid|nid|tsid|sid|name|dsd|TerminalChannel|MajorChannel|idType|
  function Channel(f) {
    Object.assign(this, CHANNEL_CONSTANTS);
    this.channelType = parseInt(f[0], 10);
    this.ccid = text(f[1]);
    this.onid = parseInt(f[2], 10);
    this.nid = parseInt(f[3], 10);
    this.tsid = parseInt(f[4], 10);
    this.sid = parseInt(f[5], 10);
    this.name = text(f[6]);
    this.dsd = text(f[7]);
    this.terminalChannel = parseInt(f[8], 10);
    this.majorChannel = parseInt(f[9], 10);
    this.idType = parseInt(f[10], 10);
  }
  // The same record in request order:
  // type|ccid|onid|tsid|sid|name|dsd|idType|nid|TerminalChannel|MajorChannel|
  function channelFields(ch) {
    const v = (x) => (x === null || x === undefined ? '(null)' : String(x));
    return [ch.channelType || 0, v(ch.ccid), ch.onid || 0, ch.tsid || 0, ch.sid || 0, v(ch.name), v(ch.dsd),
      ch.idType || 0, ch.nid || 0, ch.terminalChannel || 0, ch.majorChannel || 0];
  }
  const channelFrom = (r) => (available(r) && r.length >= 11 ? new Channel(r) : null);

  function ParentalRating(f) {
    this.name = text(f[0]);
    this.scheme = text(f[1]);
    this.value = parseInt(f[2], 10);
    this.labels = parseInt(f[3], 10);
    this.region = text(f[4]);
  }
  function collection(items) {
    const list = items.slice();
    list.item = (i) => (i >= 0 && i < list.length ? list[i] : null);
    return list;
  }

  // A programme reply: name|description|startTime|duration|channelID|
  // programmeID|programmeIDType|longDescription|ratings| and, when ratings
  // is 1, the rating's five fields.
  function Programme(f) {
    this.ID_TVA_CRID = 0;
    this.ID_DVB_EVENT = 1;
    this.ID_TVA_GROUP_CRID = 2;
    this.name = text(f[0]);
    this.description = text(f[1]);
    this.startTime = parseInt(f[2], 10);
    this.duration = parseInt(f[3], 10);
    this.channelID = text(f[4]);
    this.programmeID = text(f[5]);
    this.programmeIDType = parseInt(f[6], 10);
    this.longDescription = text(f[7]);
    this.parentalRatings = collection(f[8] === '1' && f.length >= 14 ? [new ParentalRating(f.slice(9, 14))] : []);
  }
  Programme.prototype.getSIDescriptors = function (tag, tagExtension, privateDataSpecifier) {
    const key = [this.channelID || '0', this.programmeID || '0', tag | 0, tagExtension | 0];
    const count = number(dtv(103, key.concat([privateDataSpecifier | 0])), 0);
    const out = [];
    for (let i = 0; i < count && i < 64; i++) {
      const r = dtv(104, key.concat([i]));
      if (available(r)) out.push(r[0]);
    }
    return collection(out);
  };

  const COMPONENT_CONSTANTS = { COMPONENT_TYPE_VIDEO: 0, COMPONENT_TYPE_AUDIO: 1, COMPONENT_TYPE_SUBTITLE: 2 };
  // AV component replies: type|encoding|encrypted|componentTag|pid| then
  // aspectRatio (video), language|audioDescription|audioChannels (audio)
  // or language|hearingImpaired (subtitle).
  function AVComponent(f) {
    this.type = parseInt(f[0], 10);
    this.encoding = text(f[1]);
    this.encrypted = flag(f[2]);
    this.componentTag = parseInt(f[3], 10);
    this.pid = parseInt(f[4], 10);
    if (this.type === 0) {
      this.aspectRatio = parseFloat(f[5]);
    } else {
      this.language = text(f[5]);
      if (this.type === 1) {
        this.audioDescription = flag(f[6]);
        this.audioChannels = parseInt(f[7], 10);
      } else {
        this.hearingImpaired = flag(f[6]);
      }
    }
    Object.defineProperty(this, 'fields', { value: f.slice(), enumerable: false });
  }
  const componentFrom = (r) => (available(r) && r.length >= 6 ? new AVComponent(r) : null);

  // ---- the video/broadcast object ---------------------------------------

  const PLAY_STATES = { UNREALIZED: 0, CONNECTING: 1, PRESENTING: 2, STOPPED: 3 };
  const videoState = new WeakMap();
  const stateOf = (el) => {
    let s = videoState.get(el);
    if (!s) {
      s = { playState: 0, fullScreen: false, volume: 100, listeners: new Map() };
      videoState.set(el, s);
    }
    return s;
  };
  const videoObjects = new Set();

  // No video decoder on a PC: the object shows a test picture with the
  // current service's name, drawn as its fallback content.
  function showTestPicture(el, channel) {
    let picture = el.__hbbtvPicture;
    if (!picture) {
      picture = document.createElementNS(XHTML, 'div');
      picture.setAttribute('data-hbbtv-test-picture', '');
      picture.style.cssText = 'width:100%;height:100%;overflow:hidden;font:bold 24px sans-serif;color:#fff;'
        + 'display:flex;align-items:center;justify-content:center;text-align:center;'
        + 'background:linear-gradient(90deg,#c0c0c0 0 14.3%,#c0c000 0 28.6%,#00c0c0 0 42.9%,#00c000 0 57.2%,'
        + '#c000c0 0 71.5%,#c00000 0 85.8%,#0000c0 0);text-shadow:0 0 4px #000;';
      el.__hbbtvPicture = picture;
      el.appendChild(picture);
    }
    const s = stateOf(el);
    picture.textContent = s.playState === PLAY_STATES.PRESENTING || s.playState === PLAY_STATES.CONNECTING
      ? (channel && channel.name ? channel.name : 'no service') : 'video stopped';
  }

  function setPlayState(el, state, error) {
    const s = stateOf(el);
    if (s.playState === state && error === undefined) return;
    s.playState = state;
    showTestPicture(el, state === PLAY_STATES.PRESENTING ? currentChannel() : null);
    fire(el, 'PlayStateChange', { state, error }, [state, error]);
  }

  function currentChannel() {
    return channelFrom(dtv(30));
  }

  function ChannelList() {
    const list = [];
    const count = Math.min(number(dtv(35), 0), 1000);
    for (let i = 0; i < count; i++) {
      const ch = channelFrom(dtv(32, [i]));
      if (ch) list.push(ch);
    }
    const out = collection(list);
    out.getChannel = (ccid) => (ccid ? channelFrom(dtv(31, [ccid])) : null);
    out.getChannelByTriplet = (onid, tsid, sid) => channelFrom(dtv(33, [onid | 0, tsid | 0, sid | 0]));
    out.getChannelBySourceID = () => null;
    return out;
  }

  function components(type, active) {
    const types = type === undefined || type === null ? [0, 1, 2] : [type | 0];
    const out = [];
    for (const t of types) {
      const count = Math.min(number(dtv(active ? 118 : 114, [t]), 0), 64);
      for (let i = 0; i < count; i++) {
        const c = componentFrom(dtv((active ? 119 : 115) + t, [i]));
        if (c) out.push(c);
      }
    }
    return collection(out);
  }

  // A broadcast-independent application (one that gave up the broadcast
  // with setChannel(null), a portal, a page from an XML AIT) may neither
  // present nor read the broadcast. The library says which kind runs (56).
  const BROADCAST_INDEPENDENT = 1;
  const independent = () => number(dtv(56), 0) === BROADCAST_INDEPENDENT;
  const securityError = () => new DOMException('a broadcast-independent application has no broadcast', 'SecurityError');

  const videoBroadcast = {
    get playState() { return stateOf(this).playState; },
    get currentChannel() { return stateOf(this).playState === PLAY_STATES.UNREALIZED ? null : currentChannel(); },
    get fullScreen() { return stateOf(this).fullScreen; },
    get programmes() {
      if (independent()) return collection([]);
      const count = Math.min(number(dtv(43), 0), 500);
      const list = [];
      for (let i = 0; i < count; i++) {
        const r = dtv(45, [i]);
        if (available(r) && r.length >= 9) list.push(new Programme(r));
      }
      return collection(list);
    },
    bindToCurrentChannel() {
      if (independent()) throw securityError();
      videoObjects.add(this);
      dtv(0);
      const ch = currentChannel();
      setPlayState(this, ch ? PLAY_STATES.PRESENTING : PLAY_STATES.CONNECTING);
      return ch;
    },
    setChannel(channel, trickplay, contentAccessDescriptorURL) {
      videoObjects.add(this);
      if (channel === null || channel === undefined) {
        // A broadcast-related application that lets the broadcast go
        // becomes broadcast-independent; the library stops the service.
        if (independent()) this.stop();
        else {
          dtv(58);
          setPlayState(this, PLAY_STATES.STOPPED);
        }
        return;
      }
      setPlayState(this, PLAY_STATES.CONNECTING);
      const r = dtv(20, channelFields(channel).concat([0]));
      if (number(r, -1) !== 0) {
        setTimeout(() => fire(this, 'ChannelChangeError', { channel, errorState: 100 }, [channel, 100]), 0);
      }
    },
    prevChannel() { videoObjects.add(this); setPlayState(this, PLAY_STATES.CONNECTING); dtv(2); },
    nextChannel() { videoObjects.add(this); setPlayState(this, PLAY_STATES.CONNECTING); dtv(1); },
    stop() {
      const r = dtv(3);
      setPlayState(this, PLAY_STATES.STOPPED);
      return available(r) && r[0] === 'TRUE';
    },
    release() {
      dtv(4);
      setPlayState(this, PLAY_STATES.UNREALIZED);
      videoObjects.delete(this);
    },
    setFullScreen(fullScreen) {
      stateOf(this).fullScreen = !!fullScreen;
      dtv(22, [fullScreen ? 1 : 0]);
      fire(this, 'FullScreenChange', {}, []);
    },
    setVolume(volume) { stateOf(this).volume = Math.max(0, Math.min(100, volume | 0)); return true; },
    getVolume() { return stateOf(this).volume; },
    getChannelConfig() { return { channelList: ChannelList(), favouriteLists: collection([]), currentFavouriteList: null }; },
    getComponents(type) { return components(type, false); },
    getCurrentActiveComponents(type) { return components(type, true); },
    selectComponent(component) {
      if (typeof component === 'number') return number(dtv(106, [component]), -1) === 0;
      if (!component || !component.fields) return false;
      return number(dtv(108 + 2 * component.type, component.fields), -1) === 0;
    },
    unselectComponent(component) {
      if (typeof component === 'number') return number(dtv(107, [component]), -1) === 0;
      if (!component || !component.fields) return false;
      return number(dtv(109 + 2 * component.type, component.fields), -1) === 0;
    },
    addStreamEventListener(targetURL, eventName, listener) {
      if (typeof listener !== 'function' || !targetURL || !eventName) return;
      const url = String(targetURL);
      const name = String(eventName);
      const key = url + '\n' + name;
      const s = stateOf(this);
      videoObjects.add(this);
      const result = number(dtv(46, [receiverUrl(url), name]), 2);
      if (result !== 0) {
        // The receiver could not subscribe: the listener hears an error.
        setTimeout(() => {
          try { listener({ name, data: '', text: '', status: 'error' }); } catch (e) { /* page's own */ }
        }, 0);
        return;
      }
      if (!s.listeners.has(key)) s.listeners.set(key, new Set());
      s.listeners.get(key).add(listener);
    },
    removeStreamEventListener(targetURL, eventName, listener) {
      const url = String(targetURL);
      const key = url + '\n' + String(eventName);
      const set = stateOf(this).listeners.get(key);
      if (!set) return;
      set.delete(listener);
      if (set.size === 0) {
        stateOf(this).listeners.delete(key);
        dtv(47, [receiverUrl(url), String(eventName)]);
      }
    },
  };
  Object.assign(videoBroadcast, PLAY_STATES, COMPONENT_CONSTANTS);

  // ---- the application manager object -----------------------------------

  const KEYSET_CONSTANTS = {
    RED: 0x1, GREEN: 0x2, YELLOW: 0x4, BLUE: 0x8, NAVIGATION: 0x10, VCR: 0x20, SCROLL: 0x40,
    INFO: 0x80, NUMERIC: 0x100, ALPHA: 0x200, OTHER: 0x400,
  };
  const keyset = Object.assign(Object.create(null), KEYSET_CONSTANTS, {
    value: CONFIG.keyset,
    maximumValue: 0x7ff,
    otherKeys: [],
    supportsPointer: false,
    setValue(value, otherKeys) {
      const others = Array.isArray(otherKeys) ? otherKeys.slice(0, 64).map((k) => k | 0) : [];
      const r = dtv(55, [value | 0, others.length].concat(others));
      this.otherKeys = others;
      this.value = number(r, this.value);
      return this.value;
    },
  });

  const privateData = {
    keyset,
    get currentChannel() { return currentChannel(); },
    getFreeMem() { return number(dtv(44), -1); },
  };

  // Ids of the running application, as the library has them.
  function runningIds() {
    const r = dtv(57);
    return available(r) && r.length >= 2 ? [parseInt(r[0], 10) || 0, parseInt(r[1], 10) || 0] : [0, 0];
  }

  // An Application object stands for one application: the ids the library
  // gave it when the object was made. The library ignores a destroy for
  // ids that are no longer running, so an application that has started
  // another one (which replaces it) and then destroys itself does not end
  // the new one.
  function Application(own) {
    this.privateData = privateData;
    Object.defineProperty(this, 'own', { value: own });
    Object.defineProperty(this, 'ids', { value: runningIds() });
  }
  Application.prototype = {
    get visible() { return !!bridge.visible; },
    show() { dtv(53); return true; },
    hide() { dtv(54); return true; },
    createApplication(uri, createChild) {
      if (!uri) return null;
      const url = absoluteUrl(String(uri));
      if (url.length > 1024) return null;
      return number(dtv(50, [url]), 0) === 1 ? new Application(false) : null;
    },
    destroyApplication() {
      dtv(51, this.ids);
    },
    startWidget() { return null; },
  };
  let ownerApplication = null;

  const applicationManager = {
    getOwnerApplication(doc) {
      if (!ownerApplication) ownerApplication = new Application(true);
      return ownerApplication;
    },
    getChildApplications() { return collection([]); },
  };

  // ---- configuration, capabilities, parental control ---------------------

  function configurationRecord() {
    const r = dtv(42);
    return available(r) && r.length >= 8 ? r : null;
  }
  const configurationObject = {
    get configuration() {
      const f = configurationRecord();
      if (!f) return null;
      return {
        preferredAudioLanguage: text(f[0]),
        preferredSubtitleLanguage: text(f[1]),
        countryId: text(f[2]),
        preferredUILanguage: text(f[3]),
        subtitlesEnabled: flag(f[4]),
        timeShiftSynchronized: flag(f[5]),
        audioDescriptionEnabled: flag(f[7]),
        regionId: 0,
        getText: () => null,
        setText: () => {},
      };
    },
    get localSystem() {
      const f = configurationRecord();
      return {
        deviceID: f ? text(f[6]) : null,
        systemReady: true,
        vendorName: 'libapp-mgr',
        modelName: 'web-browser',
        softwareVersion: '1.0',
        hardwareVersion: 'PC',
        serialNumber: f ? text(f[6]) : null,
        volume: 100,
        mute: false,
      };
    },
  };

  const capabilitiesObject = {
    get xmlCapabilities() {
      const r = dtv(72);
      if (!available(r)) return null;
      return new DOMParser().parseFromString(r.join('|'), 'text/xml');
    },
    get extraSDVideoDecodes() { const r = dtv(71); return available(r) ? parseInt(r[0], 10) : 0; },
    get extraHDVideoDecodes() { const r = dtv(71); return available(r) && r.length > 1 ? parseInt(r[1], 10) : 0; },
    hasCapability(name) { return !!name && number(dtv(70, [String(name)]), 0) === 1; },
  };

  function ratingScheme(name) {
    const r = dtv(41, [name]);
    const threshold = available(r) && r.length >= 5 ? new ParentalRating(r) : null;
    const scheme = collection([]);
    scheme.name = name;
    scheme.threshold = threshold;
    scheme.iconUri = () => null;
    scheme.indexOf = () => -1;
    return scheme;
  }
  const parentalControlObject = {
    get parentalRatingSchemes() {
      const schemes = collection([ratingScheme('dvb-si')]);
      schemes.getParentalRatingScheme = (name) => (name ? ratingScheme(String(name)) : null);
      return schemes;
    },
    getParentalRatingScheme(name) { return name ? ratingScheme(String(name)) : null; },
    isPINEntryLocked: () => false,
  };

  // ---- the metadata search manager ---------------------------------------

  const FIELDS = { 'Programme.name': 0, 'Programme.startTime': 1, 'Programme.programmeID': 2 };
  // The comparison of a negated query.
  const NEGATED = { 0: 1, 1: 0, 2: 5, 3: 4, 4: 3, 5: 2, 6: 7, 7: 6 };
  const PLUGIN_ID = 1;
  let nextSearchId = 1;
  const searches = new Map();

  function Query(kind, parts) {
    this.kind = kind;
    this.parts = parts;
  }
  Query.prototype.and = function (q) { return new Query('and', [this, q]); };
  Query.prototype.or = function (q) { return new Query('or', [this, q]); };
  Query.prototype.not = function () { return new Query('not', [this]); };

  // The query as OR-ed groups of AND-ed comparisons, negations pushed down
  // to the comparisons; null when it has more than 16 groups.
  function disjunction(q, negate) {
    if (q.kind === 'cmp') {
      const c = q.parts;
      return [[{ field: c.field, comparison: negate ? NEGATED[c.comparison] : c.comparison, value: c.value }]];
    }
    if (q.kind === 'not') return disjunction(q.parts[0], !negate);
    const a = disjunction(q.parts[0], negate);
    const b = disjunction(q.parts[1], negate);
    if (!a || !b) return null;
    const isOr = (q.kind === 'or') !== negate;
    const out = isOr ? a.concat(b) : [].concat(...a.map((x) => b.map((y) => x.concat(y))));
    return out.length > 16 ? null : out;
  }

  function MetadataSearch(manager, target) {
    this.searchTarget = target;
    this.id = nextSearchId++;
    this.query = null;
    this.constraints = [];
    this.stream = null;
    Object.defineProperty(this, 'manager', { value: manager });
    searches.set(this.id, this);
    dtv(90, [PLUGIN_ID, this.id]);
    this.result = new SearchResults(this);
  }
  MetadataSearch.prototype = {
    createQuery(field, comparison, value) {
      if (!(field in FIELDS)) throw new TypeError('unsupported search field ' + field);
      return new Query('cmp', { field: FIELDS[field], comparison: comparison | 0, value: String(value) });
    },
    setQuery(query) { this.query = query; this.stream = null; },
    addRatingConstraint() {},
    addCurrentRatingConstraint() {},
    addChannelConstraint(channel) { if (channel) this.constraints.push(channel); },
    orderBy() {},
    findProgrammesFromStream(channel, startTime, count) {
      this.query = null;
      this.stream = { channel, startTime: startTime | 0, count: count === undefined ? 10 : count | 0 };
    },
    send(offset, count) {
      const id = [PLUGIN_ID, this.id];
      if (this.stream) {
        const ch = this.stream.channel || {};
        dtv(92, id.concat([0, this.stream.startTime, this.stream.count, ch.onid | 0, ch.tsid | 0, ch.sid | 0]));
      } else if (this.query) {
        const groups = disjunction(this.query, false);
        if (!groups) return false;
        dtv(92, id.concat([groups.length, 0, 0, 0, 0, 0]));
        groups.forEach((group, g) => {
          dtv(93, id.concat([g, group.length]));
          group.forEach((c, i) => dtv(94, id.concat([g, i, c.field, c.comparison, c.value || ' '])));
        });
      }
      if (this.constraints.length > 0) {
        dtv(122, id.concat([this.constraints.length]));
        this.constraints.forEach((ch, i) => dtv(123, id.concat([i, ch.onid | 0, ch.tsid | 0, ch.sid | 0])));
      } else {
        dtv(124, id);
      }
      return number(dtv(96, id.concat([offset | 0, count | 0])), 1) === 0;
    },
  };

  function SearchResults(search) {
    Object.defineProperty(this, 'search', { value: search });
    this.length = 0;
    this.offset = 0;
    this.totalSize = 0;
    this.items = [];
  }
  SearchResults.prototype = {
    item(i) { return i >= 0 && i < this.items.length ? this.items[i] : null; },
    getResults(offset, count) { return this.search.send(offset, count); },
    abort() { dtv(98, [PLUGIN_ID, this.search.id]); },
    update(offset, windowLength, found) {
      const id = [PLUGIN_ID, this.search.id];
      this.items = [];
      for (let i = 0; i < Math.min(windowLength, 200); i++) {
        const r = dtv(99, id.concat([i]));
        if (!available(r) || r.length < 6) continue;
        const p = new Programme([r[0], '', r[3], r[4], r[5], r[1], r[2], '', '0']);
        const d = dtv(100, id.concat([i]));
        if (available(d)) p.description = d[0];
        this.items.push(p);
      }
      for (let i = 0; i < this.items.length; i++) this[i] = this.items[i];
      this.length = this.items.length;
      this.offset = offset;
      this.totalSize = found;
    },
  };

  const searchManagerObject = {
    createSearch(target) { return new MetadataSearch(this, target | 0); },
    getCurrentTime() { return number(dtv(125), Math.floor(Date.now() / 1000)); },
  };

  // ---- object types -----------------------------------------------------

  const TYPES = {
    'video/broadcast': videoBroadcast,
    'application/oipfapplicationmanager': applicationManager,
    'application/oipfconfiguration': configurationObject,
    'application/oipfcapabilities': capabilitiesObject,
    'application/oipfparentalcontrolmanager': parentalControlObject,
    'application/oipfsearchmanager': searchManagerObject,
  };
  const typeOf = (el) => String(el.getAttribute('type') || '').toLowerCase().trim();

  // Each member becomes a property of HTMLObjectElement.prototype that
  // serves the elements of its type and is absent (undefined) for others.
  const members = new Map();
  for (const [type, impl] of Object.entries(TYPES)) {
    for (const name of Object.getOwnPropertyNames(impl)) {
      if (!members.has(name)) members.set(name, new Map());
      members.get(name).set(type, Object.getOwnPropertyDescriptor(impl, name));
    }
  }
  for (const [name, byType] of members) {
    if (name in HTMLObjectElement.prototype || name in HTMLElement.prototype) continue;
    Object.defineProperty(HTMLObjectElement.prototype, name, {
      configurable: true,
      get() {
        const d = byType.get(typeOf(this));
        if (!d) return undefined;
        if (d.get) return d.get.call(this);
        return d.value;
      },
    });
  }
  // Event handler properties (onChannelChangeSucceeded, ...) are plain
  // properties the page sets on the element; nothing to define.

  // Every video/broadcast object shows its test picture from the start;
  // the other objects have nothing to show (a receiver draws nothing for
  // them, where Chromium would draw its box for an unknown plugin).
  function adopt(el) {
    if (!el.tagName || el.tagName.toLowerCase() !== 'object') return;
    const type = typeOf(el);
    if (type === 'video/broadcast' && !el.__hbbtvPicture) showTestPicture(el, null);
    else if (type in TYPES && type !== 'video/broadcast') el.style.setProperty('display', 'none');
  }
  new MutationObserver((records) => {
    for (const r of records) {
      if (r.type === 'attributes') adopt(r.target);
      for (const n of r.addedNodes || []) {
        if (n.nodeType !== 1) continue;
        adopt(n);
        if (n.querySelectorAll) n.querySelectorAll('object').forEach(adopt);
      }
    }
  }).observe(document, { childList: true, subtree: true, attributes: true, attributeFilter: ['type'] });

  // ---- key codes --------------------------------------------------------

  window.KeyEvent = window.KeyEvent || {};
  for (const [name, code] of Object.entries(CONFIG.keyCodes)) {
    window.KeyEvent[name] = code;
    if (!(name in window)) window[name] = code;
  }

  // A receiver's browser sends keydown, keypress and keyup for every key
  // (the CE-HTML profile of the OIPF DAE); Chromium sends keypress only for
  // keys that type a character. For the others the keypress follows the
  // keydown here, with the key's VK_ code, unless a handler prevented the
  // default. This listener is the last one the keydown reaches.
  const remoteKeyCodes = new Set(Object.values(CONFIG.keyCodes));
  window.addEventListener('keydown', (e) => {
    if (!e.isTrusted || e.defaultPrevented || !remoteKeyCodes.has(e.keyCode)) return;
    if (e.key.length === 1 || e.key === 'Enter') return;  // Chromium sends these itself
    const press = new KeyboardEvent('keypress', { key: e.key, bubbles: true, cancelable: true });
    for (const name of ['keyCode', 'which', 'charCode']) {
      Object.defineProperty(press, name, { value: name === 'charCode' ? 0 : e.keyCode });
    }
    (e.target || document).dispatchEvent(press);
  }, false);

  // ---- callbacks from the browser process -------------------------------

  const allObjects = (type) => Array.from(document.getElementsByTagName('object')).filter((el) => typeOf(el) === type);
  const liveVideo = () => Array.from(videoObjects).filter((el) => stateOf(el).playState !== PLAY_STATES.UNREALIZED);

  const bridge = {
    visible: true,
    keyset(mask) { keyset.value = mask; },
    visibility(shown) { this.visible = shown; },
    // A library callback, by id, with its fields.
    callback(id, f) {
      switch (id) {
        case 60: {  // channel changed
          const ch = f.length >= 11 ? new Channel(f) : null;
          for (const el of liveVideo()) {
            setPlayState(el, PLAY_STATES.PRESENTING);
            fire(el, 'ChannelChangeSucceeded', { channel: ch }, [ch]);
          }
          break;
        }
        case 61: {  // tune failed
          const errorState = parseInt(f[0], 10);
          const ch = f.length >= 12 ? new Channel(f.slice(1)) : null;
          for (const el of liveVideo()) fire(el, 'ChannelChangeError', { channel: ch, errorState }, [ch, errorState]);
          break;
        }
        case 62:
        case 63:
          for (const el of liveVideo()) fire(el, 'ParentalRatingChange', { contentID: null, ratings: collection([]), DRMSystemID: null, blocked: f[1] === '1' }, [null, collection([]), null, f[1] === '1']);
          break;
        case 64:
        case 500:
          for (const el of liveVideo()) fire(el, 'ProgrammesChanged', {}, []);
          break;
        case 65:
          for (const el of allObjects('application/oipfapplicationmanager')) fire(el, 'LowMemory', {}, []);
          break;
        case 66: {  // stream event: location|name|data|text|status|
          const [location, name, data, eventText, status] = f;
          const event = { name, data, text: eventText, status };
          for (const el of videoObjects) {
            const set = stateOf(el).listeners.get(location + '\n' + name);
            if (!set) continue;
            for (const listener of Array.from(set)) {
              try { listener(Object.assign({}, event)); } catch (e) { setTimeout(() => { throw e; }, 0); }
            }
          }
          break;
        }
        case 67: {  // search status: searchID|status|offset|result|eventsFound|
          const search = searches.get(parseInt(f[0], 10));
          if (!search) break;
          const status = parseInt(f[1], 10);
          if (status === 0) search.result.update(parseInt(f[2], 10) || 0, parseInt(f[3], 10) || 0, parseInt(f[4], 10) || 0);
          const state = status === 0 ? 0 : 3;
          for (const el of allObjects('application/oipfsearchmanager')) {
            fire(el, 'MetadataSearch', { search, state }, [search, state]);
          }
          break;
        }
        case 68:
          for (const el of allObjects('application/oipfapplicationmanager')) fire(el, 'ApplicationLoadError', {}, [ownerApplication]);
          break;
        case 69:
        case 79: {
          const type = parseInt(f[0], 10);
          for (const el of liveVideo()) fire(el, id === 69 ? 'SelectedComponentChanged' : 'ComponentChanged', { componentType: type }, [type]);
          break;
        }
        default:
          break;
      }
    },
  };
  Object.defineProperty(window, '__hbbtvBridge', { value: bridge });
})();
