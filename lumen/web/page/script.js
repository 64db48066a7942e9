'use strict';
// Keeps the page up to date from /events. All that comes in is put in as text, never as markup.
(function () {
  // What the tables show: open ports, and those of IPv6 hosts.
  var lists = {
    ports: { id: 'ports', cellsOf: portCells, entries: new Map(),
      order: { by: 'port', down: false } },
    pinholes: { id: 'pinholes', cellsOf: pinholeCells, entries: new Map(),
      order: { by: 'host', down: false } }
  };
  var traffic = new Map();
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

  function portCells(port) {
    return [
      make('td', port.protocol),
      make('td', port.from || 'anywhere', 'from'),
      make('td', port.host),
      make('td', port.goneAt ? 'closed' : port.state, port.colour + ' mark'),
      ticking(make('td', null, 'time'), port, secondsOf),
      ticking(make('td', null, 'time lease'), port, secondsLeft),
      make('td', port.connections === null ? '?' : port.connections, 'number'),
      make('td', port.uses === null ? '?' : port.uses, 'number'),
      make('td', port.owner)
    ];
  }

  function pinholeCells(pinhole) {
    var host = make('td', pinhole.host, 'mark');
    if (pinhole.goneAt) addTag(host, 'closed');
    return [
      make('td', pinhole.protocol),
      make('td', pinhole.from || 'anywhere', 'from'),
      host,
      ticking(make('td', null, 'time'), pinhole, secondsOf),
      ticking(make('td', null, 'time'), pinhole, secondsLeft),
      make('td', pinhole.owner)
    ];
  }

  function rowOf(entry, cellsOf) {
    var row = make('tr');
    var name = make('th', entry.port, 'number');
    name.scope = 'row';
    row.appendChild(name);
    cellsOf(entry).forEach(function (cell) { row.appendChild(cell); });
    if (entry.goneAt) {
      row.className = 'gone';
      // A row that is drawn again goes on where it was.
      row.style.animationDelay = (entry.goneAt - Date.now()) + 'ms';
    } else if (entry.freshUntil > Date.now()) {
      row.className = 'fresh';
      addTag(row.querySelector('.mark'), 'new');
    }
    return row;
  }

  function addTag(cell, word) {
    cell.appendChild(document.createTextNode(' '));
    cell.appendChild(make('span', word, 'tag'));
  }

  function secondsOf(entry) {
    return entry.seconds + ((entry.goneAt || Date.now()) - entry.readAt) / 1000;
  }

  // Of an entry without a lease, null.
  function secondsLeft(entry) {
    if (entry.left === null) return null;
    return Math.max(0, Math.ceil(entry.left - ((entry.goneAt || Date.now()) - entry.readAt) / 1000));
  }

  // Cells whose texts change as time passes.
  var clocks = [];
  function ticking(cell, entry, seconds) {
    var clock = { cell: cell, entry: entry, seconds: seconds, text: '' };
    clocks.push(clock);
    tick(clock);
    return cell;
  }

  function tick(clock) {
    var seconds = clock.seconds(clock.entry);
    var text = seconds === null ? '' : duration(seconds);
    if (text !== clock.text) clock.cell.textContent = clock.text = text;
  }

  function valueOf(entry, by) {
    if (by === 'seconds') return secondsOf(entry);
    // What does not end comes after all that does.
    if (by === 'left') return entry.left === null ? Infinity : secondsLeft(entry);
    return entry[by];
  }

  function showEntries(list, text) {
    var shown = [];
    list.entries.forEach(function (entry) {
      var all = [entry.port + '/' + entry.protocol, entry.from || '', entry.host, entry.state || '',
        entry.owner].join(' ');
      if (all.toLowerCase().indexOf(text) >= 0) shown.push(entry);
    });
    shown.sort(function (a, b) {
      var x = valueOf(a, list.order.by);
      var y = valueOf(b, list.order.by);
      var found = x < y ? -1 : x > y ? 1 : a.port - b.port || a.id - b.id;
      return list.order.down ? -found : found;
    });
    fill(byId(list.id), shown.map(function (entry) { return rowOf(entry, list.cellsOf); }));
    byId(list.id + '-region').hidden = list.entries.size === 0;
  }

  function showPorts() {
    if (!complete) return;
    var text = byId('filter-text').value.trim().toLowerCase();
    clocks = [];
    showEntries(lists.ports, text);
    showEntries(lists.pinholes, text);
    var from = false;
    var lease = false;
    lists.ports.entries.forEach(function (port) {
      from = from || port.from !== '';
      lease = lease || port.left !== null;
    });
    byId('ports-region').classList.toggle('no-from', !from);
    var pinholeFrom = false;
    lists.pinholes.entries.forEach(function (pinhole) {
      pinholeFrom = pinholeFrom || pinhole.from !== '';
    });
    byId('pinholes-region').classList.toggle('no-from', !pinholeFrom);
    byId('ports-region').classList.toggle('no-lease', !lease);
    var none = lists.ports.entries.size + lists.pinholes.entries.size === 0;
    byId('no-port').hidden = !none;
    byId('filter').hidden = none;
    byId('close-pinhole').hidden = lists.pinholes.entries.size === 0;
  }

  var redraw = null;
  function portsChanged() {
    if (redraw !== null) return;
    redraw = setTimeout(function () { redraw = null; showPorts(); }, 100);
  }

  function add(list, entry) {
    var before = list.entries.get(entry.id);
    entry.readAt = Date.now();
    entry.freshUntil = before ? before.freshUntil : 0;
    if (complete && !before) {
      entry.freshUntil = Date.now() + freshFor;
      setTimeout(portsChanged, freshFor + 50);
    }
    if (before && entry.connections === null) entry.connections = before.connections;
    if (before && entry.uses === null) entry.uses = before.uses;
    list.entries.set(entry.id, entry);
  }

  function close(list, id) {
    var entry = list.entries.get(id);
    if (!entry || entry.goneAt) return;
    entry.goneAt = Date.now();
    setTimeout(function () {
      if (list.entries.get(id) === entry) list.entries.delete(id);
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
      lists.ports.entries = new Map();
      lists.pinholes.entries = new Map();
      traffic = new Map();
      fill(byId('lately'), []);
      byId('nothing').hidden = false;
    });
    on('state', showState);
    on('ports', function (some) {
      some.forEach(function (port) { add(lists.ports, port); });
      portsChanged();
    });
    on('pinholes', function (some) {
      some.forEach(function (pinhole) { add(lists.pinholes, pinhole); });
      portsChanged();
    });
    on('complete', function () {
      complete = true;
      sayConnection('Live: what changes shows here at once.', false);
      showPorts();
      showTraffic();
    });
    on('closed', function (closed) { close(lists.ports, closed.id); portsChanged(); });
    on('pinhole-closed', function (closed) { close(lists.pinholes, closed.id); portsChanged(); });
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
      var table = head.parentNode.parentNode.parentNode;
      var list = lists[table.tBodies[0].id];
      list.order = { by: by, down: list.order.by === by && !list.order.down };
      Array.prototype.forEach.call(table.querySelectorAll('th[data-sort]'), function (other) {
        other.removeAttribute('aria-sort');
      });
      head.setAttribute('aria-sort', list.order.down ? 'descending' : 'ascending');
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

  setInterval(function () { if (!document.hidden) clocks.forEach(tick); }, 1000);

  localTimes(document);
  if (window.EventSource) listen();
})();
