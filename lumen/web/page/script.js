'use strict';
// Keeps the page up to date from /events. All that comes in is put in as text, never as markup.
(function () {
  var ports = new Map();
  var traffic = new Map();
  var order = { by: 'port', down: false };
  var complete = false;
  var freshFor = 10000;
  var goneFor = 3000;
  var kept = 600000;

  function byId(id) { return document.getElementById(id); }

  function make(tag, text, className) {
    var element = document.createElement(tag);
    if (text !== undefined && text !== null) element.textContent = String(text);
    if (className) element.className = className;
    return element;
  }

  function fill(parent, children) {
    while (parent.firstChild) parent.removeChild(parent.firstChild);
    children.forEach(function (child) { parent.appendChild(child); });
  }

  function duration(seconds) {
    var units = [[86400, ' d'], [3600, ' h'], [60, ' min'], [1, ' s']];
    for (var i = 0; i < 3; ++i) {
      if (seconds >= units[i][0]) {
        var rest = Math.floor(seconds % units[i][0] / units[i + 1][0]);
        return Math.floor(seconds / units[i][0]) + units[i][1] +
            (rest ? ' ' + rest + units[i + 1][1] : '');
      }
    }
    return Math.floor(seconds) + ' s';
  }

  function rate(bits) {
    var units = ['bit/s', 'kbit/s', 'Mbit/s', 'Gbit/s', 'Tbit/s'];
    var i = 0;
    while (bits >= 1000 && i + 1 < units.length) { bits /= 1000; ++i; }
    return (bits >= 100 || i === 0 ? Math.round(bits) : bits.toFixed(1)) + ' ' + units[i];
  }

  function localTime(milliseconds) {
    var time = make('time', new Date(milliseconds).toLocaleString());
    time.dateTime = new Date(milliseconds).toISOString();
    return time;
  }

  function localTimes(inside) {
    Array.prototype.forEach.call(inside.querySelectorAll('time'), function (time) {
      var moment = new Date(time.dateTime);
      if (!isNaN(moment)) time.textContent = moment.toLocaleString();
    });
  }

  function showState(state) {
    var line = make('p', state.sentence, 'state ' + state.colour);
    var children = [line];
    if (state.since) {
      var since = make('p', 'Since ');
      since.appendChild(localTime(state.since));
      children.push(since);
    }
    state.findings.forEach(function (finding) {
      var box = make('div', null, 'finding');
      box.appendChild(make('p', finding.what, 'what'));
      box.appendChild(make('p', finding.why));
      var remedy = make('p', 'Fix it: ');
      remedy.appendChild(make('code', finding.remedy));
      box.appendChild(remedy);
      children.push(box);
    });
    fill(byId('state'), children);
    fill(byId('interfaces'), state.interfaces.map(function (used) {
      var row = make('tr');
      var name = make('th', used.name);
      name.scope = 'row';
      row.appendChild(name);
      row.appendChild(make('td', used.role));
      row.appendChild(make('td', used.state, used.colour));
      row.appendChild(make('td', used.addresses));
      return row;
    }));
  }

  function rowOf(port) {
    var row = make('tr');
    var name = make('th', port.port, 'number');
    name.scope = 'row';
    row.appendChild(name);
    row.appendChild(make('td', port.protocol));
    row.appendChild(make('td', port.host));
    row.appendChild(make('td', port.state, port.colour));
    row.appendChild(make('td', duration(secondsOf(port))));
    row.appendChild(make('td', port.connections === null ? '?' : port.connections, 'number'));
    row.appendChild(make('td', port.uses === null ? '?' : port.uses, 'number'));
    row.appendChild(make('td', port.owner));
    if (port.goneAt) {
      row.className = 'gone';
      // A row that is drawn again goes on where it was.
      row.style.animationDelay = (port.goneAt - Date.now()) + 'ms';
      row.cells[3].textContent = 'closed';
    } else if (port.freshUntil > Date.now()) {
      row.className = 'fresh';
      row.cells[3].appendChild(document.createTextNode(' '));
      row.cells[3].appendChild(make('span', 'new', 'tag'));
    }
    return row;
  }

  function secondsOf(port) {
    return port.seconds + (Date.now() - port.readAt) / 1000;
  }

  function showPorts() {
    if (!complete) return;
    var text = byId('filter-text').value.trim().toLowerCase();
    var shown = [];
    ports.forEach(function (port) {
      var all = [port.port + '/' + port.protocol, port.host, port.state, port.owner].join(' ');
      if (all.toLowerCase().indexOf(text) >= 0) shown.push(port);
    });
    shown.sort(function (a, b) {
      var x = order.by === 'seconds' ? secondsOf(a) : a[order.by];
      var y = order.by === 'seconds' ? secondsOf(b) : b[order.by];
      var found = x < y ? -1 : x > y ? 1 : a.port - b.port || a.id - b.id;
      return order.down ? -found : found;
    });
    fill(byId('ports'), shown.map(rowOf));
    var none = ports.size === 0;
    byId('no-port').hidden = !none;
    byId('ports-region').hidden = none;
    byId('filter').hidden = none;
  }

  var redraw = null;
  function portsChanged() {
    if (redraw !== null) return;
    redraw = setTimeout(function () { redraw = null; showPorts(); }, 100);
  }

  function addPort(port) {
    var before = ports.get(port.id);
    port.readAt = Date.now();
    port.freshUntil = before ? before.freshUntil : 0;
    if (complete && !before) {
      port.freshUntil = Date.now() + freshFor;
      setTimeout(portsChanged, freshFor + 50);
    }
    if (before && port.connections === null) port.connections = before.connections;
    if (before && port.uses === null) port.uses = before.uses;
    ports.set(port.id, port);
  }

  function closePort(id) {
    var port = ports.get(id);
    if (!port || port.goneAt) return;
    port.goneAt = Date.now();
    setTimeout(function () {
      if (ports.get(id) === port) ports.delete(id);
      portsChanged();
    }, goneFor);
  }

  function addHappening(happening) {
    var item = make('li');
    item.appendChild(localTime(happening.time));
    item.appendChild(document.createTextNode(happening.text));
    var list = byId('lately');
    list.insertBefore(item, list.firstChild);
    while (list.children.length > 100) list.removeChild(list.lastChild);
    byId('nothing').hidden = true;
  }

  function path(samples, side, from, until, highest, width, height) {
    return samples.map(function (sample, i) {
      var x = (sample.time - from) / (until - from) * width;
      var y = height - sample[side] / highest * (height - 10);
      return (i ? 'L' : 'M') + x.toFixed(1) + ' ' + y.toFixed(1);
    }).join(' ');
  }

  function svg(tag, attributes, text) {
    var element = document.createElementNS('http://www.w3.org/2000/svg', tag);
    Object.keys(attributes).forEach(function (key) { element.setAttribute(key, attributes[key]); });
    if (text !== undefined) element.textContent = text;
    return element;
  }

  function showTraffic() {
    byId('traffic').hidden = traffic.size === 0;
    var across = Math.max(byId('plots').clientWidth, 240);
    var width = across - 90;
    var height = 160;
    var until = Date.now();
    var from = until - kept;
    var children = [];
    traffic.forEach(function (samples, name) {
      while (samples.length && samples[0].time < from) samples.shift();
      if (!samples.length) return;
      var highest = samples.reduce(function (most, sample) {
        return Math.max(most, sample.down, sample.up);
      }, 1000);
      var last = samples[samples.length - 1];
      var legend = make('p', null, 'legend');
      legend.appendChild(make('strong', name + ' '));
      legend.appendChild(make('span', '\u25BC down ' + rate(last.down), 'down'));
      legend.appendChild(document.createTextNode(' '));
      legend.appendChild(make('span', '\u25B2 up ' + rate(last.up), 'up'));
      children.push(legend);
      var plot = svg('svg', { viewBox: '0 0 ' + across + ' 190', role: 'img' });
      plot.setAttribute('aria-label', 'Traffic of ' + name + ' in the last ten minutes, at most ' +
          rate(highest));
      for (var i = 0; i <= 4; ++i) {
        var y = height - i / 4 * (height - 10);
        plot.appendChild(svg('line', { 'class': 'axis', x1: 0, x2: width, y1: y, y2: y }));
        plot.appendChild(svg('text', { x: width + 8, y: y + 4 }, rate(highest * i / 4)));
      }
      plot.appendChild(svg('text', { x: 0, y: 182 }, '10 min ago'));
      plot.appendChild(svg('text', { x: width - 24, y: 182 }, 'now'));
      plot.appendChild(svg('path', { 'class': 'down',
          d: path(samples, 'down', from, until, highest, width, height) }));
      plot.appendChild(svg('path', { 'class': 'up',
          d: path(samples, 'up', from, until, highest, width, height) }));
      children.push(plot);
    });
    fill(byId('plots'), children);
  }

  function addSample(sample) {
    if (!traffic.has(sample.interface)) traffic.set(sample.interface, []);
    traffic.get(sample.interface).push({ time: sample.time, down: sample.down, up: sample.up });
  }

  function sayConnection(text, lost) {
    byId('connection').textContent = text;
    byId('connection').className = lost ? 'lost' : '';
  }

  function listen() {
    var events = new EventSource('/events');
    function on(name, act) {
      events.addEventListener(name, function (event) { act(JSON.parse(event.data)); });
    }
    on('begin', function () {
      complete = false;
      ports = new Map();
      traffic = new Map();
      fill(byId('lately'), []);
      byId('nothing').hidden = false;
    });
    on('state', showState);
    on('ports', function (list) { list.forEach(addPort); portsChanged(); });
    on('complete', function () {
      complete = true;
      sayConnection('Live: what changes shows here at once.', false);
      showPorts();
      showTraffic();
    });
    on('closed', function (closed) { closePort(closed.id); portsChanged(); });
    on('happened', function (list) { list.forEach(addHappening); });
    on('traffic', function (list) { list.forEach(addSample); if (complete) showTraffic(); });
    events.onerror = function () {
      sayConnection('The router does not answer; what is shown may be out of date.', true);
      // A refusal ends it for good; the browser itself tries again after anything else.
      if (events.readyState === 2) setTimeout(listen, 10000);
    };
  }

  Array.prototype.forEach.call(document.querySelectorAll('th[data-sort]'), function (head) {
    var button = make('button', head.textContent);
    button.type = 'button';
    fill(head, [button]);
    button.addEventListener('click', function () {
      var by = head.getAttribute('data-sort');
      order = { by: by, down: order.by === by && !order.down };
      Array.prototype.forEach.call(document.querySelectorAll('th[data-sort]'), function (other) {
        other.removeAttribute('aria-sort');
      });
      head.setAttribute('aria-sort', order.down ? 'descending' : 'ascending');
      showPorts();
    });
  });
  byId('filter-text').addEventListener('input', showPorts);
  window.addEventListener('resize', showTraffic);

  var copy = byId('copy');
  copy.hidden = false;
  copy.addEventListener('click', function () {
    var range = document.createRange();
    range.selectNodeContents(byId('command'));
    var selection = window.getSelection();
    selection.removeAllRanges();
    selection.addRange(range);
    if (document.execCommand('copy')) copy.textContent = 'Copied';
  });

  localTimes(document);
  if (window.EventSource) listen();
})();
