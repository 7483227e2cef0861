// The web view of leitch-routerd: the router's state arrives over a WebSocket
// (the whole state on connecting, then one message per frame) and is drawn on
// a canvas, only the part in view, so that a level of 1152 x 1152 stays fluid.
'use strict';

(() => {
  const $ = (id) => document.getElementById(id);
  const grid = $('grid'), scroller = $('scroller'), spacer = $('spacer');
  const ctx = grid.getContext('2d');
  const MAX_EVENTS = 300;
  const MAX_PAINT_LOG = 20000;

  const state = {
    levels: [],            // {number, name, sources, destinations, leitch_level, crosspoints, locks,
                           //  source_labels, destination_labels, sourceHeaders, destinationHeaders}
    byNumber: new Map(),
    current: null,         // the level shown
    readonlyServer: false,
    salvos: [],
    clients: [],
    links: [],             // {kind, where, settings, up, problem}
    events: [],
    connected: false,
    hellos: 0,
    frames: 0,
    lastRefusal: null,
    hover: null,           // {row, col} in grid coordinates
    jumped: null,          // destination highlighted by the jump box
    pendingPaint: [],      // changes of the shown level not painted yet
    paintLog: [],          // [level, destination, source, painted at (ms since the epoch)]
    firstPaint: null,      // ms after navigation start of the first full paint with data
    paints: 0,
    headers: { columns: [], rows: [] },  // what the last paint wrote in the headers
  };

  // ------------------------------------------------------------- numbers

  const decimal = () => $('decimal').checked;
  const num = (n) => (decimal() ? String(n) : n.toString(16).toUpperCase());
  const parseNum = (text) => {
    const t = text.trim();
    if (!/^[0-9a-fA-F]+$/.test(t)) return NaN;
    return decimal() ? parseInt(t, 10) : parseInt(t, 16);
  };
  const clientName = (id) => (id === 0 ? 'web' : 'client ' + id);

  // ------------------------------------------------------------- labels

  // A port with a label is named by it, its number beside; one without, by its number alone.
  const portName = (kind, n, label) => (label ? `${label} (${kind} ${num(n)})` : `${kind} ${num(n)}`);
  const sourceName = (level, s) => portName('src', s, level.source_labels[s]);
  const destinationName = (level, d) => portName('dst', d, level.destination_labels[d]);

  const LABEL_FONT = '11px system-ui, sans-serif';
  const LABEL_MAX = 110;  // px: longer labels are cut short in the headers (the tooltip has them whole)
  const NO_HEADERS = { shown: [], width: 0 };

  const fit = (text, max) => {
    if (ctx.measureText(text).width <= max) return text;
    const chars = Array.from(text);
    let lo = 0, hi = chars.length;
    while (lo < hi) {
      const mid = (lo + hi + 1) >> 1;
      if (ctx.measureText(chars.slice(0, mid).join('') + '\u2026').width <= max) lo = mid; else hi = mid - 1;
    }
    return chars.slice(0, lo).join('').trimEnd() + '\u2026';
  };

  // The labels as the headers show them, and the widest of each side: measured
  // when they change, not at every paint. Ports past the end of a list have none.
  function prepareLabels(level) {
    level.source_labels = level.source_labels || [];
    level.destination_labels = level.destination_labels || [];
    ctx.font = LABEL_FONT;
    const side = (labels) => {
      const shown = [];
      let widest = 0;
      labels.forEach((text, i) => {
        if (!text) return;
        shown[i] = fit(text, LABEL_MAX);
        widest = Math.max(widest, ctx.measureText(shown[i]).width);
      });
      return { shown, width: Math.ceil(widest) };
    };
    level.sourceHeaders = side(level.source_labels);
    level.destinationHeaders = side(level.destination_labels);
  }

  // ------------------------------------------------------------- geometry

  // Normal: sources across, destinations down. Swapped: the reverse. The
  // headers hold the numbers, then the labels (the columns' turned to read
  // upwards), then the lock boxes beside the destinations; a side without
  // labels takes no room for them.
  const LOCK = 14;
  const NUMBERS_H = 22;
  const geometry = () => {
    const level = state.current;
    const zoom = Number($('zoom').value);
    const swap = $('swap').checked;
    const cols = level ? (swap ? level.destinations : level.sources) : 0;
    const rows = level ? (swap ? level.sources : level.destinations) : 0;
    const labelChars = level ? num(Math.max(level.sources, level.destinations) - 1).length : 1;
    const labelW = 10 + labelChars * 7;  // the row numbers
    const rowHeaders = level ? (swap ? level.sourceHeaders : level.destinationHeaders) : NO_HEADERS;
    const colHeaders = level ? (swap ? level.destinationHeaders : level.sourceHeaders) : NO_HEADERS;
    const rowLabelW = rowHeaders.width ? rowHeaders.width + 8 : 0;
    const colLabelH = colHeaders.width ? colHeaders.width + 8 : 0;
    const lockX = labelW + rowLabelW;       // the lock boxes' column, normal
    const lockY = NUMBERS_H + colLabelH;    // their row, swapped
    const left = swap ? lockX : lockX + LOCK + 4;
    const top = swap ? lockY + LOCK + 4 : lockY;
    return { zoom, swap, cols, rows, left, top, labelW, rowLabelW, colLabelH, lockX, lockY, rowHeaders, colHeaders };
  };

  const destinationAt = (g, row, col) => (g.swap ? col : row);
  const sourceAt = (g, row, col) => (g.swap ? row : col);

  // What lies under a point of the scroller's box: a cell, a lock box, a
  // row's or a column's header, or nothing.
  const hit = (x, y) => {
    const g = geometry();
    if (!state.current) return null;
    const col = Math.floor((x - g.left + scroller.scrollLeft) / g.zoom);
    const row = Math.floor((y - g.top + scroller.scrollTop) / g.zoom);
    const inRows = row >= 0 && row < g.rows, inCols = col >= 0 && col < g.cols;
    if (x >= g.left && y >= g.top) {
      if (!inRows || !inCols) return null;
      return { kind: 'cell', row, col, destination: destinationAt(g, row, col), source: sourceAt(g, row, col) };
    }
    if (!g.swap && x >= g.lockX && x < g.lockX + LOCK + 4 && y >= g.top && inRows)
      return { kind: 'lock', row, col: -1, destination: row };
    if (g.swap && y >= g.lockY && y < g.lockY + LOCK + 4 && x >= g.left && inCols)
      return { kind: 'lock', row: -1, col, destination: col };
    if (x < g.left && y >= g.top && inRows)
      return { kind: 'header', row, col: -1, side: g.swap ? 'source' : 'destination', port: row };
    if (y < g.top && x >= g.left && inCols)
      return { kind: 'header', row: -1, col, side: g.swap ? 'destination' : 'source', port: col };
    return null;
  };

  // The tooltip of what lies under the pointer: labels whole, numbers beside.
  function describeSpot(found) {
    const level = state.current;
    const locked = found.destination !== undefined && level.locks[found.destination] === 1;
    switch (found.kind) {
      case 'cell':
        return `${sourceName(level, found.source)} \u2192 ${destinationName(level, found.destination)}` +
               (locked ? ' \u00b7 locked' : '');
      case 'lock': return `${destinationName(level, found.destination)}: ${locked ? 'unlock' : 'lock'}`;
      case 'header':
        if (found.side === 'source') return sourceName(level, found.port);
        return `${destinationName(level, found.port)} \u2190 ${sourceName(level, level.crosspoints[found.port])}` +
               (level.locks[found.port] === 1 ? ' \u00b7 locked' : '');
    }
    return '';
  }

  // ------------------------------------------------------------- drawing

  let drawQueued = false;
  const redraw = () => {
    if (drawQueued) return;
    drawQueued = true;
    requestAnimationFrame(draw);
  };

  const resize = () => {
    const g = geometry();
    spacer.style.width = g.left + g.cols * g.zoom + 'px';
    spacer.style.height = g.top + g.rows * g.zoom + 'px';
    redraw();
  };

  function draw() {
    drawQueued = false;
    const ratio = window.devicePixelRatio || 1;
    const width = scroller.clientWidth, height = scroller.clientHeight;
    if (grid.width !== Math.round(width * ratio) || grid.height !== Math.round(height * ratio)) {
      grid.width = Math.round(width * ratio);
      grid.height = Math.round(height * ratio);
    }
    ctx.setTransform(ratio, 0, 0, ratio, 0, 0);
    ctx.fillStyle = '#15181c';
    ctx.fillRect(0, 0, width, height);
    const level = state.current;
    if (!level) return;
    const g = geometry();
    const z = g.zoom, sx = scroller.scrollLeft, sy = scroller.scrollTop;
    const c0 = Math.max(0, Math.floor(sx / z)), r0 = Math.max(0, Math.floor(sy / z));
    const c1 = Math.min(g.cols, Math.ceil((sx + width - g.left) / z));
    const r1 = Math.min(g.rows, Math.ceil((sy + height - g.top) / z));
    const cx = (c) => g.left + c * z - sx;
    const ry = (r) => g.top + r * z - sy;

    ctx.save();
    ctx.beginPath();
    ctx.rect(g.left, g.top, width - g.left, height - g.top);
    ctx.clip();

    // Locked destinations, tinted across the grid.
    ctx.fillStyle = 'rgba(255,179,71,0.13)';
    if (g.swap) {
      for (let c = c0; c < c1; c++) if (level.locks[c] === 1) ctx.fillRect(cx(c), g.top, z, ry(r1) - g.top);
    } else {
      for (let r = r0; r < r1; r++) if (level.locks[r] === 1) ctx.fillRect(g.left, ry(r), cx(c1) - g.left, z);
    }
    // Row and column under the pointer, and the destination jumped to.
    if (state.hover) {
      ctx.fillStyle = 'rgba(79,179,255,0.16)';
      if (state.hover.row >= 0) ctx.fillRect(g.left, ry(state.hover.row), width, z);
      if (state.hover.col >= 0) ctx.fillRect(cx(state.hover.col), g.top, z, height);
    }
    if (state.jumped !== null && state.jumped < level.destinations) {
      ctx.fillStyle = 'rgba(79,179,255,0.28)';
      if (g.swap) ctx.fillRect(cx(state.jumped), g.top, z, height);
      else ctx.fillRect(g.left, ry(state.jumped), width, z);
    }

    // Grid lines: every cell when they are large enough, every 16th always.
    ctx.lineWidth = 1;
    if (z >= 6) {
      ctx.strokeStyle = '#242a31';
      ctx.beginPath();
      for (let c = c0; c <= c1; c++) { const x = Math.round(cx(c)) + 0.5; ctx.moveTo(x, g.top); ctx.lineTo(x, ry(r1)); }
      for (let r = r0; r <= r1; r++) { const y = Math.round(ry(r)) + 0.5; ctx.moveTo(g.left, y); ctx.lineTo(cx(c1), y); }
      ctx.stroke();
    }
    ctx.strokeStyle = '#36404b';
    ctx.beginPath();
    for (let c = Math.ceil(c0 / 16) * 16; c <= c1; c += 16) { const x = Math.round(cx(c)) + 0.5; ctx.moveTo(x, g.top); ctx.lineTo(x, ry(r1)); }
    for (let r = Math.ceil(r0 / 16) * 16; r <= r1; r += 16) { const y = Math.round(ry(r)) + 0.5; ctx.moveTo(g.left, y); ctx.lineTo(cx(c1), y); }
    ctx.stroke();

    // The crosspoint of every destination in view.
    const pad = z >= 8 ? 2 : z >= 4 ? 1 : 0;
    ctx.fillStyle = '#4fb3ff';
    if (g.swap) {
      for (let c = c0; c < c1; c++) {
        const s = level.crosspoints[c];
        if (s >= r0 && s < r1) ctx.fillRect(cx(c) + pad, ry(s) + pad, z - 2 * pad, z - 2 * pad);
      }
    } else {
      for (let r = r0; r < r1; r++) {
        const s = level.crosspoints[r];
        if (s >= c0 && s < c1) ctx.fillRect(cx(s) + pad, ry(r) + pad, z - 2 * pad, z - 2 * pad);
      }
    }
    ctx.restore();

    drawLabels(g, level, c0, c1, r0, r1, cx, ry, width, height);

    state.paints++;
    const now = performance.timeOrigin + performance.now();
    if (state.firstPaint === null && state.hellos > 0) state.firstPaint = performance.now();
    for (const change of state.pendingPaint) {
      if (state.paintLog.length >= MAX_PAINT_LOG) state.paintLog.shift();
      change.push(now);
      state.paintLog.push(change);
    }
    state.pendingPaint = [];
    grid.dataset.paints = String(state.paints);
  }

  const NUMBER_FONT = '11px ui-monospace, monospace';

  function drawLabels(g, level, c0, c1, r0, r1, cx, ry, width, height) {
    const z = g.zoom;
    const every = Math.max(1, Math.ceil(14 / z));  // a label every so many cells, so that they never overlap
    const headers = { columns: [], rows: [] };
    ctx.fillStyle = '#1d2127';
    ctx.fillRect(0, 0, width, g.top);
    ctx.fillRect(0, 0, g.left, height);
    ctx.textBaseline = 'middle';
    ctx.save();
    ctx.beginPath();
    ctx.rect(g.left, 0, width - g.left, g.top);
    ctx.clip();
    for (let c = c0; c < c1; c++) {
      const hovered = state.hover && state.hover.col === c;
      if (c % every !== 0 && !hovered) continue;
      ctx.fillStyle = hovered ? '#ffffff' : '#8a939e';
      ctx.font = NUMBER_FONT;
      ctx.textAlign = 'center';
      ctx.save();
      ctx.translate(cx(c) + z / 2, 11);
      if (z < 20 && num(c).length > 2) ctx.scale(0.8, 1);
      ctx.fillText(num(c), 0, 0);
      ctx.restore();
      const label = g.colHeaders.shown[c] || '';
      if (label) {
        // Turned to read upwards from the grid, as on a panel's column of buttons.
        ctx.fillStyle = hovered ? '#ffffff' : '#c5ccd4';
        ctx.font = LABEL_FONT;
        ctx.textAlign = 'left';
        ctx.save();
        ctx.translate(cx(c) + z / 2, g.lockY - 4);
        ctx.rotate(-Math.PI / 2);
        ctx.fillText(label, 0, 0);
        ctx.restore();
      }
      headers.columns.push([c, num(c), label]);
    }
    if (g.swap) for (let c = c0; c < c1; c++) drawLock(cx(c) + (z - LOCK) / 2, g.lockY + 2, level.locks[c] === 1, z);
    ctx.restore();
    ctx.save();
    ctx.beginPath();
    ctx.rect(0, g.top, g.left, height - g.top);
    ctx.clip();
    for (let r = r0; r < r1; r++) {
      const hovered = state.hover && state.hover.row === r;
      if (!g.swap) drawLock(g.lockX + 2, ry(r) + (z - LOCK) / 2, level.locks[r] === 1, z);
      if (r % every !== 0 && !hovered) continue;
      ctx.fillStyle = hovered ? '#ffffff' : '#8a939e';
      ctx.font = NUMBER_FONT;
      ctx.textAlign = 'right';
      ctx.fillText(num(r), g.labelW - 4, ry(r) + z / 2);
      const label = g.rowHeaders.shown[r] || '';
      if (label) {
        ctx.fillStyle = hovered ? '#ffffff' : '#c5ccd4';
        ctx.font = LABEL_FONT;
        ctx.textAlign = 'left';
        ctx.fillText(label, g.labelW + 2, ry(r) + z / 2);
      }
      headers.rows.push([r, num(r), label]);
    }
    ctx.restore();
    state.headers = headers;
    ctx.fillStyle = '#5d6772';
    ctx.textAlign = 'left';
    ctx.font = '9px ui-monospace, monospace';
    ctx.fillText(g.swap ? 'src' : 'dst', 3, g.top - 7);
  }

  // A padlock: filled when locked, an outline when not. Shrinks with the cells.
  function drawLock(x, y, locked, z) {
    const size = Math.min(LOCK, Math.max(3, z - 1));
    const ox = x + (LOCK - size) / 2, oy = y + (LOCK - size) / 2;
    if (locked) {
      ctx.fillStyle = '#ffb347';
      ctx.fillRect(ox, oy + size * 0.4, size, size * 0.6);
      if (size >= 8) {
        ctx.strokeStyle = '#ffb347';
        ctx.lineWidth = 1.5;
        ctx.beginPath();
        ctx.arc(ox + size / 2, oy + size * 0.4, size * 0.28, Math.PI, 0);
        ctx.stroke();
      }
    } else if (size >= 6) {
      ctx.strokeStyle = '#3a434e';
      ctx.lineWidth = 1;
      ctx.strokeRect(ox + 0.5, oy + size * 0.4 + 0.5, size - 1, size * 0.6 - 1);
    }
  }

  // ------------------------------------------------------------- tabs, clients, activity

  function renderTabs() {
    const tabs = $('tabs');
    tabs.textContent = '';
    for (const level of state.levels) {
      const button = document.createElement('button');
      button.setAttribute('role', 'tab');
      button.dataset.level = String(level.number);
      button.setAttribute('aria-selected', String(level === state.current));
      const leitch = level.leitch_level === null ? 'not mapped' : 'Leitch ' + level.leitch_level;
      button.textContent = level.name;
      const detail = document.createElement('small');
      detail.textContent = `level ${level.number} \u2192 ${leitch} \u00b7 ${level.sources}\u00d7${level.destinations}`;
      button.appendChild(detail);
      button.addEventListener('click', () => select(level.number));
      tabs.appendChild(button);
    }
  }

  function select(number) {
    const level = state.byNumber.get(number);
    if (!level) return false;
    state.current = level;
    state.hover = null;
    state.jumped = null;
    grid.dataset.level = String(level.number);
    grid.dataset.sources = String(level.sources);
    grid.dataset.destinations = String(level.destinations);
    for (const button of $('tabs').children) button.setAttribute('aria-selected', String(button.dataset.level === String(number)));
    resize();
    return true;
  }

  // The TCP ports and serial ports served, and the state file; a serial port
  // that is away, or a state file that does not take the changes, says why.
  function renderLinks() {
    const body = $('links').tBodies[0];
    body.textContent = '';
    for (const link of state.links) {
      const row = body.insertRow();
      row.dataset.link = link.where;
      const upText = {serial: 'open', state: 'saved', router: 'connected'}[link.kind] || 'listening';
      const status = link.up ? upText : (link.problem || 'closed') + ', retrying';
      for (const text of [link.kind, link.where, link.settings || '-', status]) row.insertCell().textContent = text;
      if (!link.up) row.cells[3].className = 'down';
    }
  }

  function renderClients() {
    const body = $('clients').tBodies[0];
    body.textContent = '';
    for (const c of state.clients) {
      const row = body.insertRow();
      row.dataset.client = String(c.id);
      const since = new Date(c.connected_since).toLocaleTimeString();
      for (const text of [c.id, c.peer, c.link, since, c.report_mode ? 'on' : 'off', c.lines_received, c.last_line]) {
        row.insertCell().textContent = String(text);
      }
      row.cells[6].title = c.last_line;
    }
    $('client-count').textContent = `(${state.clients.length})`;
  }

  function describeEvent(e) {
    const who = clientName(e.client);
    const where = e.level !== undefined ? ` level ${e.level}` : '';
    switch (e.kind) {
      case 'take': return `${who}: take${where} dst ${num(e.destination)} \u2190 src ${num(e.source)}`;
      case 'lock': return `${who}: ${e.state === 1 ? 'lock' : e.state === 0 ? 'unlock' : 'lock state ' + e.state}${where} dst ${num(e.destination)}`;
      case 'refused take': return `${who}: refused take${where} dst ${num(e.destination)} \u2190 src ${num(e.source)}: ${e.reason}`;
      case 'refused lock': return `${who}: refused lock${where} dst ${num(e.destination)}: ${e.reason}`;
      case 'connect': return `${who} connected from ${e.peer}`;
      case 'disconnect': return `${who} disconnected: ${e.reason}`;
    }
    return `${who}: ${e.kind}`;
  }

  function eventItem(e) {
    const item = document.createElement('li');
    item.className = e.kind.replace(' ', '-') + (e.kind.startsWith('refused') ? ' refused' : '') + (e.kind === 'lock' ? ' lock' : '');
    item.dataset.seq = String(e.seq);
    item.dataset.kind = e.kind;
    const time = document.createElement('time');
    time.textContent = new Date(e.time).toLocaleTimeString();
    item.appendChild(time);
    item.appendChild(document.createTextNode(describeEvent(e)));
    return item;
  }

  let eventsRendered = 0;  // the last seq in the list
  let activityQueued = false;
  function renderActivity(all) {
    const list = $('activity');
    if (all) { list.textContent = ''; eventsRendered = 0; }
    const fresh = document.createDocumentFragment();
    const newer = state.events.filter((e) => e.seq > eventsRendered);
    for (let i = newer.length - 1; i >= 0; i--) fresh.appendChild(eventItem(newer[i]));
    if (newer.length) eventsRendered = newer[newer.length - 1].seq;
    list.insertBefore(fresh, list.firstChild);
    while (list.children.length > MAX_EVENTS) list.removeChild(list.lastChild);
  }
  const queueActivity = () => {
    if (activityQueued) return;
    activityQueued = true;
    requestAnimationFrame(() => { activityQueued = false; renderActivity(false); });
  };

  function addEvents(events) {
    for (const e of events) {
      state.events.push(e);
      if (e.client === 0 && e.kind.startsWith('refused')) state.lastRefusal = e;
    }
    if (state.events.length > MAX_EVENTS) state.events.splice(0, state.events.length - MAX_EVENTS);
    queueActivity();
  }

  function showMessage(text, kind) {
    const message = $('message');
    message.textContent = text;
    message.dataset.kind = kind || '';
  }

  // ------------------------------------------------------------- the connection

  let socket = null;
  let retryDelay = 250;

  function setConnection(name, text) {
    const indicator = $('connection');
    indicator.dataset.state = name;
    indicator.textContent = text;
    state.connected = name === 'open';
  }

  function connect() {
    setConnection('connecting', 'connecting');
    socket = new WebSocket((location.protocol === 'https:' ? 'wss://' : 'ws://') + location.host + '/ws');
    socket.onmessage = (message) => receive(JSON.parse(message.data));
    socket.onclose = () => {
      setConnection('closed', 'disconnected: retrying');
      socket = null;
      setTimeout(connect, retryDelay);
      retryDelay = Math.min(retryDelay * 2, 2000);
    };
  }

  function receive(message) {
    if (message.type === 'hello') return hello(message);
    if (message.type === 'frame') return frame(message);
  }

  function hello(message) {
    retryDelay = 250;
    const shown = state.current ? state.current.number : null;
    state.levels = message.levels.map((level) => ({
      ...level, crosspoints: Int32Array.from(level.crosspoints), locks: Int32Array.from(level.locks),
    }));
    for (const level of state.levels) prepareLabels(level);
    state.byNumber = new Map(state.levels.map((level) => [level.number, level]));
    state.readonlyServer = message.readonly;
    if (message.readonly) $('readonly').checked = true;
    $('readonly').disabled = message.readonly;
    state.clients = message.clients;
    state.links = message.links;
    state.events = [];
    state.hellos++;
    renderTabs();
    addEvents(message.events);
    renderActivity(true);
    renderClients();
    renderLinks();
    loadSalvos();
    select(state.byNumber.has(shown) ? shown : state.levels.length ? state.levels[0].number : null);
    setConnection('open', 'live');
  }

  function frame(message) {
    state.frames++;
    const shown = state.current;
    for (const [level, destination, source] of message.crosspoints) {
      const target = state.byNumber.get(level);
      if (!target || destination >= target.destinations) continue;
      target.crosspoints[destination] = source;
      if (target === shown) state.pendingPaint.push([level, destination, source]);
    }
    for (const [level, destination, lock] of message.locks) {
      const target = state.byNumber.get(level);
      if (target && destination < target.destinations) target.locks[destination] = lock;
    }
    if (message.events) addEvents(message.events);
    if (message.clients) { state.clients = message.clients; renderClients(); }
    if (message.links) { state.links = message.links; renderLinks(); }
    // Every label of a level whose labels changed.
    let relabelled = false;
    for (const labels of message.labels || []) {
      const target = state.byNumber.get(labels.number);
      if (!target) continue;
      target.source_labels = labels.source_labels;
      target.destination_labels = labels.destination_labels;
      prepareLabels(target);
      if (target === shown) relabelled = true;
    }
    if (relabelled) resize();  // the headers may have grown or shrunk
    else if (message.crosspoints.length || message.locks.length) redraw();
  }

  // ------------------------------------------------------------- changes from the page

  async function post(path, body) {
    if ($('readonly').checked) {
      showMessage('read-only: nothing changed', 'error');
      return;
    }
    try {
      const response = await fetch(path, {
        method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body),
      });
      const answer = await response.json();
      if (response.ok) showMessage('', '');
      else showMessage(`refused: ${answer.error}`, response.status === 409 || response.status === 400 ? 'refusal' : 'error');
    } catch (error) {
      showMessage('not sent: ' + error.message, 'error');
    }
  }

  // ------------------------------------------------------------- saved routings (need --state)

  async function request(method, path, body) {
    const options = { method, headers: { 'Content-Type': 'application/json' } };
    if (body !== undefined) options.body = JSON.stringify(body);
    const response = await fetch(path, options);
    return { ok: response.ok, status: response.status, answer: await response.json() };
  }

  async function loadSalvos() {
    const list = $('salvos');
    try {
      const { ok, answer } = await request('GET', '/api/salvos');
      state.salvos = ok ? answer.salvos : [];
      list.replaceChildren();
      if (!ok) {
        const li = document.createElement('li');
        li.className = 'none';
        li.textContent = answer.error;
        list.append(li);
        return;
      }
      for (const salvo of answer.salvos) {
        const li = document.createElement('li');
        li.dataset.name = salvo.name;
        const label = document.createElement('span');
        label.textContent = `${salvo.name} (levels ${salvo.levels.join(', ')})`;
        const recall = document.createElement('button');
        recall.textContent = 'recall';
        recall.addEventListener('click', () => salvoAction('POST', `/api/salvos/${salvo.name}/recall`));
        const remove = document.createElement('button');
        remove.textContent = 'delete';
        remove.addEventListener('click', () => salvoAction('DELETE', `/api/salvos/${salvo.name}`));
        li.append(label, recall, remove);
        list.append(li);
      }
    } catch (error) {
      showMessage('saved routings: ' + error.message, 'error');
    }
  }

  async function salvoAction(method, path, body) {
    if ($('readonly').checked) {
      showMessage('read-only: nothing changed', 'error');
      return;
    }
    try {
      const { ok, answer } = await request(method, path, body);
      if (!ok) showMessage(`refused: ${answer.error}`, 'refusal');
      else if (answer.refused && answer.refused.length)
        showMessage(`recalled ${answer.name}: ${answer.applied} taken, ${answer.refused.length} refused ` +
                    `(${answer.refused.map((r) => `dst ${num(r.destination)}: ${r.reason}`).join('; ')})`, 'refusal');
      else if (answer.applied !== undefined) showMessage(`recalled ${answer.name}: ${answer.applied} taken`, '');
      else showMessage('', '');
    } catch (error) {
      showMessage('not sent: ' + error.message, 'error');
    }
    loadSalvos();
  }

  $('salvo-save').addEventListener('submit', (event) => {
    event.preventDefault();
    const body = { name: $('salvo-name').value.trim() };
    if ($('salvo-scope').value === 'level' && state.current) body.level = state.current.number;
    salvoAction('POST', '/api/salvos', body);
  });

  function take(destination, source) {
    const level = state.current;
    return post(`/api/levels/${level.number}/take`, { destination, source });
  }

  function toggleLock(destination) {
    const level = state.current;
    return post(`/api/levels/${level.number}/lock`, { destination, locked: level.locks[destination] !== 1 });
  }

  // ------------------------------------------------------------- pointer, keys, controls

  const pointIn = (event) => {
    const box = scroller.getBoundingClientRect();
    return [event.clientX - box.left, event.clientY - box.top];
  };

  // The canvas has no elements to give titles to: the scroller above it takes
  // the title of whatever is under the pointer.
  scroller.addEventListener('mousemove', (event) => {
    const found = hit(...pointIn(event));
    const hover = found ? { row: found.row, col: found.col } : null;
    const text = found ? describeSpot(found) : '';
    $('hover-info').textContent = text;
    if (scroller.title !== text) scroller.title = text;
    if (JSON.stringify(hover) !== JSON.stringify(state.hover)) { state.hover = hover; redraw(); }
  });
  scroller.addEventListener('mouseleave', () => {
    state.hover = null;
    $('hover-info').textContent = '';
    scroller.title = '';
    redraw();
  });
  scroller.addEventListener('click', (event) => {
    const found = hit(...pointIn(event));
    if (!found) return;
    if (found.kind === 'cell') take(found.destination, found.source);
    else if (found.kind === 'lock') toggleLock(found.destination);
  });
  scroller.addEventListener('scroll', redraw, { passive: true });
  window.addEventListener('resize', redraw);

  $('zoom').addEventListener('input', () => {
    const g = geometry();
    const centreCol = (scroller.scrollLeft + scroller.clientWidth / 2) / (g.zoom || 1);
    const centreRow = (scroller.scrollTop + scroller.clientHeight / 2) / (g.zoom || 1);
    resize();
    const z = Number($('zoom').value);
    scroller.scrollLeft = centreCol * z - scroller.clientWidth / 2;
    scroller.scrollTop = centreRow * z - scroller.clientHeight / 2;
  });
  $('swap').addEventListener('change', resize);
  $('decimal').addEventListener('change', () => {
    $('jump-to').placeholder = decimal() ? 'dest (dec)' : 'dest (hex)';
    resize();
    renderActivity(true);
  });
  $('jump').addEventListener('submit', (event) => {
    event.preventDefault();
    const destination = parseNum($('jump-to').value);
    if (!state.current || !(destination >= 0 && destination < state.current.destinations)) {
      showMessage('no such destination', 'error');
      return;
    }
    scrollToDestination(destination);
  });

  function scrollToDestination(destination) {
    const g = geometry();
    state.jumped = destination;
    if (g.swap) scroller.scrollLeft = destination * g.zoom - (scroller.clientWidth - g.left) / 2;
    else scroller.scrollTop = destination * g.zoom - (scroller.clientHeight - g.top) / 2;
    showMessage('', '');
    redraw();
  }

  // ------------------------------------------------------------- what tests and scripts may read

  // A read-only view of what the page shows, so that tests assert on it rather than on pixels.
  window.routerView = Object.freeze({
    connected: () => state.connected,
    hellos: () => state.hellos,
    frames: () => state.frames,
    paints: () => state.paints,
    levels: () => state.levels.map(({ number, name, sources, destinations, leitch_level }) =>
      ({ number, name, sources, destinations, leitch_level })),
    labels: (level) => {
      const { source_labels, destination_labels } = state.byNumber.get(level);
      return { source_labels: source_labels.slice(), destination_labels: destination_labels.slice() };
    },
    // [number, number as shown, label as shown] of each header the last paint wrote.
    headers: () => ({ columns: state.headers.columns.slice(), rows: state.headers.rows.slice() }),
    tooltip: () => scroller.title,
    shownLevel: () => (state.current ? state.current.number : null),
    source: (level, destination) => state.byNumber.get(level).crosspoints[destination],
    lock: (level, destination) => state.byNumber.get(level).locks[destination],
    clients: () => state.clients.slice(),
    links: () => state.links.slice(),
    events: () => state.events.slice(),
    lastRefusal: () => state.lastRefusal,
    message: () => $('message').textContent,
    firstPaint: () => state.firstPaint,
    paintLog: () => state.paintLog.slice(),
    salvos: () => state.salvos.map(({ name, levels, crosspoints }) => ({ name, levels, crosspoints })),
    select,
    scrollToDestination,
    // The centre of a cell or a lock box in page coordinates, once scrolled into view.
    cellCentre: (destination, source) => centreOf(destination, source),
    lockCentre: (destination) => centreOf(destination, null),
    // A point on the label of a source's or a destination's header.
    headerPoint: (side, port) => (side === 'source' ? centreOf(null, port, 'header') : centreOf(port, null, 'header')),
  });

  // Where a cell (destination and source), a lock box (source null) or a
  // header (kind 'header', the other null) is, once scrolled into view.
  function centreOf(destination, source, kind) {
    const g = geometry();
    const row = g.swap ? source : destination;
    const col = g.swap ? destination : source;
    if (row !== null) scroller.scrollTop = Math.max(0, row * g.zoom - (scroller.clientHeight - g.top) / 2);
    if (col !== null) scroller.scrollLeft = Math.max(0, col * g.zoom - (scroller.clientWidth - g.left) / 2);
    const box = scroller.getBoundingClientRect();
    let x = g.left + col * g.zoom - scroller.scrollLeft + g.zoom / 2;
    let y = g.top + row * g.zoom - scroller.scrollTop + g.zoom / 2;
    if (kind === 'header') {
      if (col === null) x = g.rowLabelW ? g.labelW + g.rowLabelW / 2 : g.labelW / 2;
      else y = g.colLabelH ? NUMBERS_H + g.colLabelH / 2 : NUMBERS_H / 2;
    } else {
      if (col === null) x = g.lockX + 2 + LOCK / 2;
      if (row === null) y = g.lockY + 2 + LOCK / 2;
    }
    return { x: box.left + x, y: box.top + y };
  }

  connect();
})();
