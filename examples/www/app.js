// The example applications' common script. Each page shows what it learns
// from the receiver through its HbbTV objects: the service it runs on, the
// HbbTV version of its browser, channel changes and the keys it receives.
// Run with the real browser (appmgr-emu --browser chromium), a scenario's
// "expect page ID TEXT" steps check these texts.
(function () {
  'use strict';

  function show(id, text) {
    var el = document.getElementById(id);
    if (el) el.textContent = text;
  }

  // The VK_ name of a key code, from the constants the browser defines.
  function keyName(code) {
    var names = window.KeyEvent || {};
    for (var name in names) {
      if (names[name] === code) return name;
    }
    return 'key ' + code;
  }

  // The lines a page shows below its own text.
  function addInfo() {
    var body = document.body;
    body.setAttribute('style', 'background: #132d48; color: white; font-family: sans-serif; margin: 60px 80px;');
    [['Service', 'channel'], ['Browser', 'hbbtv'], ['Keys', 'keys'], ['', 'status']].forEach(function (line) {
      var p = document.createElementNS('http://www.w3.org/1999/xhtml', 'p');
      var value = document.createElementNS('http://www.w3.org/1999/xhtml', 'span');
      value.id = line[1];
      if (line[0]) p.appendChild(document.createTextNode(line[0] + ': '));
      p.appendChild(value);
      body.appendChild(p);
    });
  }

  window.addEventListener('load', function () {
    addInfo();
    var app = null;
    try {
      app = document.getElementById('appmgr').getOwnerApplication(document);
    } catch (e) {
      show('status', 'no application manager object');
      return;
    }
    // The service the receiver presents, as the library reports it.
    try {
      var channel = app.privateData.currentChannel;
      show('channel', channel ? channel.name : 'no service');
    } catch (e) {
      show('channel', 'no service');
    }
    var hbbtv = /HbbTV\/[0-9.]+/.exec(navigator.userAgent);
    show('hbbtv', hbbtv ? hbbtv[0] : 'not an HbbTV browser');

    // A page that shows the broadcast binds its video object and follows
    // the channel changes the receiver reports.
    var video = document.getElementById('video');
    if (video && video.bindToCurrentChannel) {
      try {
        video.bindToCurrentChannel();
        video.onChannelChangeSucceeded = function (channel) {
          show('channel', channel ? channel.name : 'no service');
        };
      } catch (e) {
        show('channel', 'cannot bind the broadcast');
      }
    }

    var keys = [];
    document.addEventListener('keydown', function (e) {
      keys.push(keyName(e.keyCode));
      show('keys', keys.join(' '));
      e.preventDefault();
    }, false);
    show('status', 'ready');
  }, false);
})();
