// fleet.js: the fleet and a board, drawn from the server's data and followed as it changes.
//
// Everything that a board says arrives as text and becomes text nodes; nothing is ever parsed as markup.
'use strict';

const kPollMilliseconds = 2000;
const kRowsAtOnce = 200;
const kMostLabels = 6, kMostLabelValues = 100;  // that make a filter
const kTypeNames = ['Collection', 'Collection, type 1', 'Collection, type 2', 'Self-test'];

const $ = (id) => document.getElementById(id);

// ---- elements

// Children may stand in lists of lists; an empty one is none.
const flattened = (children) => children.flat(Infinity).filter((child) => (child ?? '') !== '');

function el(tag, attributes, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes ?? {})) {
    if (value !== undefined && value !== null && value !== false) element.setAttribute(name, value === true ? '' : value);
  }
  element.append(...flattened(children));
  return element;
}

// Makes the children of `old` like those of `fresh`, and keeps the elements that there are: what the reader is about to
// click, has scrolled or marked stays.
function morph(old, fresh) {
  for (const attribute of [...old.attributes]) {
    if (!fresh.hasAttribute(attribute.name)) old.removeAttribute(attribute.name);
  }
  for (const attribute of fresh.attributes) {
    if (old.getAttribute(attribute.name) !== attribute.value) old.setAttribute(attribute.name, attribute.value);
  }
  const wanted = [...fresh.childNodes];
  wanted.forEach((child, i) => {
    const now = old.childNodes[i];
    if (!now) {
      old.append(child);
    } else if (now.nodeType !== child.nodeType || now.nodeName !== child.nodeName) {
      now.replaceWith(child);
    } else if (child.nodeType === Node.TEXT_NODE) {
      if (now.data !== child.data) now.data = child.data;
    } else {
      morph(now, child);
    }
  });
  while (old.childNodes.length > wanted.length) old.lastChild.remove();
}

function show(id, ...children) {
  const now = $(id);
  const fresh = now.cloneNode(false);
  fresh.append(...flattened(children));
  morph(now, fresh);
}

// ---- times

let clockAhead = 0;  // of the server, in milliseconds

const two = (number) => String(number).padStart(2, '0');

function timeText(milliseconds) {
  const t = new Date(milliseconds);
  const day = `${t.getFullYear()}-${two(t.getMonth() + 1)}-${two(t.getDate())}`;
  return `${day} ${two(t.getHours())}:${two(t.getMinutes())}:${two(t.getSeconds())}`;
}

function agoText(milliseconds) {
  const seconds = Math.max(0, Math.round((Date.now() + clockAhead - milliseconds) / 1000));
  if (seconds < 60) return `${seconds} s`;
  if (seconds < 3600) return `${Math.floor(seconds / 60)} min`;
  if (seconds < 86400) return `${Math.floor(seconds / 3600)} h ${Math.floor(seconds / 60) % 60} min`;
  return `${Math.floor(seconds / 86400)} d ${Math.floor(seconds / 3600) % 24} h`;
}

// How long ago, kept up to date.
function ago(milliseconds) {
  if (!milliseconds) return el('time', { class: 'quiet' });
  return el('time', { class: 'quiet', 'data-ago': milliseconds, title: timeText(milliseconds) }, agoText(milliseconds));
}

setInterval(() => {
  for (const time of document.querySelectorAll('[data-ago]')) time.textContent = agoText(Number(time.dataset.ago));
}, 5000);

const durationText = (ms) => (ms < 1000 ? `${ms} ms` : `${(ms / 1000).toFixed(1)} s`);

function bytesText(bytes) {
  return bytes < 10000 ? `${bytes} B` : bytes < 1e7 ? `${(bytes / 1000).toFixed(0)} kB` : `${(bytes / 1e6).toFixed(0)} MB`;
}

// ---- the server

async function ask(path, options) {
  const answer = await fetch(path, options);
  if (answer.status === 401) location.assign('login');
  const json = await answer.json();
  if (!answer.ok) throw new Error(json.problem ?? `status ${answer.status}`);
  if (json.now) clockAhead = json.now - Date.now();
  return json;
}

const act = (path) => ask(path, { method: 'POST', headers: { 'X-Kep': '1' } });

function query(path, parameters) {
  return `${path}?${new URLSearchParams(parameters)}`;
}

function sayAlarm(texts) {
  $('alarm').hidden = texts.length === 0;
  $('alarm').textContent = texts.join(' · ');
}

// ---- the fleet

const fleet = { version: '', boards: new Map(), counts: {}, mayAct: true, state: '', shown: kRowsAtOnce, labels: {} };
const collator = new Intl.Collator(undefined, { numeric: true });

function rankByName() {
  [...fleet.boards.values()].sort((a, b) => collator.compare(a.name, b.name)).forEach((row, rank) => { row.rank = rank; });
}

function takeFleet(answer) {
  const hasNews = answer.all || answer.boards.length > 0;
  const known = fleet.boards;
  if (answer.all) fleet.boards = new Map();
  for (const row of answer.boards) {
    const labels = Object.entries(row.labels);
    row.rank = known.get(row.name)?.rank ?? 0;
    row.search = [row.name, row.address, row.problem ?? '', ...labels.map(([name, value]) => `${name}=${value}`)]
      .join('\n').toLowerCase();
    fleet.boards.set(row.name, row);
  }
  if (answer.all) rankByName();
  Object.assign(fleet, { version: answer.version, counts: answer.counts, mayAct: answer.mayAct });
  const alarms = [];
  if (answer.store) alarms.push(`The store fails: ${answer.store}`);
  if (answer.leases) alarms.push(answer.leases);
  if (answer.droppedRuns) alarms.push(`${answer.droppedRuns} runs were lost: the store did not take them in time`);
  sayAlarm(alarms);
  $('live').textContent = `live · ${answer.underWay} under way`;
  if (hasNews) drawLabels();
  if (hasNews || !$('counts').hasChildNodes()) drawFleet();
}

function countTile(state, text) {
  const count = state ? fleet.counts[state] ?? 0 : fleet.boards.size;
  const attributes = { class: state, 'data-state': state, type: 'button', 'aria-pressed': String(fleet.state === state) };
  return el('button', attributes, el('b', {}, String(count)), text);
}

// One list for each label that tells boards apart.
function drawLabels() {
  const values = new Map();
  for (const row of fleet.boards.values()) {
    for (const [name, value] of Object.entries(row.labels)) {
      if (!values.has(name)) values.set(name, new Set());
      values.get(name).add(value);
    }
  }
  const lists = [...values].filter(([, all]) => all.size <= kMostLabelValues).slice(0, kMostLabels);
  show('labels', lists.map(([name, all]) => el('select', { 'aria-label': name, 'data-label': name },
    el('option', { value: '' }, `${name}: any`),
    [...all].sort(collator.compare).map((value) => el('option', { value: `=${value}` }, `${name}: ${value}`)))));
  for (const list of $('labels').children) list.value = fleet.labels[list.dataset.label] ?? '';
}

const kOrders = {
  failing: (a, b) => (b.state === 'failing') - (a.state === 'failing') || (a.state === 'failing' ? b.since - a.since : 0),
  name: () => 0,
  since: (a, b) => b.since - a.since,
  long: (a, b) => a.since - b.since,
};

function wantedRows() {
  const words = $('search').value.toLowerCase().split(/\s+/).filter(Boolean);
  const labels = Object.entries(fleet.labels).filter(([, value]) => value);
  const order = kOrders[$('sort').value];
  return [...fleet.boards.values()]
    .filter((row) => (!fleet.state || row.state === fleet.state) && words.every((word) => row.search.includes(word)) &&
      labels.every(([name, value]) => `=${row.labels[name]}` === value))
    .sort((a, b) => order(a, b) || a.rank - b.rank);
}

function labelsOf(row) {
  return Object.entries(row.labels).map(([name, value]) => el('span', { class: 'label' }, `${name}: ${value}`));
}

const linkOf = (name) => `#/board/${encodeURIComponent(name)}`;

function drawFleet() {
  show('counts', countTile('', 'boards'), countTile('well', 'well'), countTile('failing', 'failing'),
    countTile('unknown', 'not asked yet'));
  const rows = wantedRows();
  const more = rows.length - fleet.shown;
  show('rows',
    rows.slice(0, fleet.shown).map((row) => el('a', { class: `row ${row.state}`, href: linkOf(row.name) },
      el('span', { class: 'dot' }),
      el('span', { class: 'name' }, row.name, row.address === row.name ? '' : el('span', { class: 'quiet' }, ` ${row.address}`)),
      el('span', { class: 'problem' }, row.problem ?? ''),
      el('span', { class: 'labels' }, labelsOf(row)),
      ago(row.since))),
    rows.length === 0 ? el('p', { class: 'more quiet' }, 'No board is like that.') : '',
    more > 0 ? el('div', { class: 'more' }, el('button', { 'data-more': true, type: 'button' }, `${Math.min(more, kRowsAtOnce)} more`),
      el('span', { class: 'quiet' }, `of ${rows.length}`)) : '');
}

function eventRow(event, withBoard) {
  const isBad = !['found', 'test passed'].includes(event.kind);
  return el('tr', {}, el('td', { class: 'quiet' }, timeText(event.time)),
    withBoard ? el('td', {}, el('a', { href: linkOf(event.board) }, event.board)) : '',
    el('td', { class: isBad ? 'state failing' : 'state well' }, event.kind), el('td', {}, event.text));
}

async function drawHappened() {
  const answer = await ask(query('api/events', { limit: 20 }));
  show('happened', answer.events.length === 0 ? '' : el('div', { class: 'card' }, el('h2', {}, 'What happened'),
    el('table', {}, el('tbody', {}, answer.events.map((event) => eventRow(event, true))))));
}

// ---- a board

let board = null;  // the one that is looked at: its name, version, data, and what of it is open

function numberOf(text) {
  return Number(text.replaceAll(' ', ''));
}

// What the value was in the run before; of a number, by how much it differs.
function wasText(value) {
  if (value.isNew) return 'new';
  if (value.was === undefined) return '';
  const difference = value.isNumber ? numberOf(value.text) - numberOf(value.was) : NaN;
  if (!Number.isFinite(difference)) return `was ${value.was}`;
  const [whole, part] = String(Number(Math.abs(difference).toPrecision(9))).split('.');
  return (difference > 0 ? '+' : '−') + whole.replace(/\B(?=(\d{3})+$)/g, ' ') + (part ? `.${part}` : '');
}

function valueRow(run, item, section, value) {
  const place = JSON.stringify({ type: run.type, item: item.item, section: section.section, key: value.key, field: value.field });
  const title = [item.name, section.name, value.name].filter(Boolean).join(' · ');
  const text = value.text + (value.misfit ? ' (not what its name says)' : '');
  const shown = value.plots ? el('button', { class: 'change', 'data-plot': place, 'data-title': title, title: 'Plot it' }, text) : text;
  return el('tr', { class: value.was !== undefined || value.isNew ? 'changed' : false },
    el('td', { class: 'key', title: value.help }, value.name),
    value.verdict ? el('td', { class: value.verdict }, value.verdict) : '',
    el('td', { class: value.isNumber ? 'value number' : 'value', colspan: value.isNumber ? false : 2 }, shown),
    value.isNumber ? el('td', { class: 'unit' }, value.unit ?? '') : '',
    el('td', { class: 'was' }, wasText(value)));
}

function logCard(log) {
  return [el('h3', {}, log.name || `log ${log.key}`),
    el('ol', { class: 'log' }, [...log.lines].reverse().map((line) => el('li', { class: line.isNew ? 'new' : false },
      line.time ? el('time', {}, line.time.replace('T', ' ')) : '', line.text)))];
}

function itemCard(run, item) {
  const hasLogs = item.sections.some((section) => section.logs.length > 0);
  return el('div', { class: hasLogs ? 'card wide' : 'card' },
    el('div', { class: 'bar' }, el('h2', {}, item.name), item.verdict ? el('span', { class: item.verdict }, item.verdict) : ''),
    item.sections.map((section) => [
      section.name ? el('h3', {}, section.name) : '',
      section.values.length === 0 ? '' : el('table', {}, el('tbody', {},
        section.values.map((value) => valueRow(run, item, section, value)))),
      section.logs.map(logCard)]));
}

function runPart(run) {
  const parts = [el('div', { class: 'bar' }, el('h2', {}, kTypeNames[run.type]),
    el('span', { class: 'quiet' }, `of ${timeText(run.started)}`,
      run.before ? `, marked is what changed since ${timeText(run.before)}` : ''))];
  parts.push(el('div', { class: 'cards' }, run.items.map((item) => itemCard(run, item)),
    run.gone.length === 0 ? '' : el('div', { class: 'card' }, el('h2', {}, 'Gone since the run before'),
      el('table', {}, el('tbody', {}, run.gone.map((gone) => el('tr', {},
        el('td', {}, `${gone.item}, section ${gone.section}, key ${gone.key}`), el('td', { class: 'was' }, `was ${gone.was}`))))))));
  if (run.leftOut) parts.push(el('p', { class: 'quiet' }, `${run.leftOut} more values are not shown.`));
  return parts;
}

function drawHead(data) {
  const button = (id, text, kind) => el('button', { 'data-act': id, class: kind, disabled: board.busy || !fleet.mayAct }, text);
  const last = data.last.map((run) => el('span', { class: 'quiet' },
    `${kTypeNames[run.type].toLowerCase()}: ${run.outcome} ${agoText(run.started)} ago, in ${durationText(run.duration)}`));
  show('head',
    el('div', { class: 'bar' }, el('h1', {}, data.name), button('collect', 'Collect now', ''), button('selftest', 'Self-test', 'main')),
    el('p', { class: `state ${data.state}` }, data.problem ?? (data.state === 'well' ? 'well' : 'not asked yet'),
      data.since ? ' for ' : '', data.since ? ago(data.since) : ''),
    el('p', {}, el('span', { class: 'quiet' }, [data.title, data.address, data.identity && `identity ${data.identity}`]
      .filter(Boolean).join(' · '), ' '), labelsOf(data)),
    el('div', { class: 'bar' }, last),
    fleet.mayAct ? '' : el('p', { class: 'quiet' }, 'Without a token nobody may act from here: configure token_file.'),
    data.isHeld === false ? el('p', { class: 'quiet' }, 'Another instance asks this board.') : '',
    data.store ? el('p', { class: 'state failing' }, `What changed is not known: ${data.store}`) : '');
}

function drawBoard() {
  const data = board.data;
  document.title = `${data.name} · Fleet`;
  drawHead(data);
  show('values', data.runs.map(runPart));
}

function runRow(run) {
  const isGood = run.outcome === 'whole';
  return el('tr', {}, el('td', { class: 'quiet' }, timeText(run.started)), el('td', {}, kTypeNames[run.type]),
    el('td', { class: isGood ? 'state well' : 'state failing', title: run.reason }, run.outcome),
    el('td', { class: 'quiet optional' }, run.reason ?? ''),
    el('td', { class: 'number' }, durationText(run.duration)), el('td', { class: 'number optional' }, bytesText(run.bytes)),
    el('td', {}, run.bytes ? el('a', { href: query('raw', { id: run.id }), download: true }, 'raw') : ''));
}

async function drawHistory() {
  const name = board.name;
  const [events, runs] = await Promise.all([ask(query('api/events', { name, limit: 20 })),
    ask(query('api/runs', { name, limit: board.runsShown }))]);
  if (board?.name !== name) return;
  show('events', events.events.length === 0 ? '' : el('div', { class: 'card' }, el('h2', {}, 'Events'),
    el('table', {}, el('tbody', {}, events.events.map((event) => eventRow(event, false))))));
  show('runs', el('div', { class: 'card' }, el('h2', {}, 'Runs'),
    el('table', {}, el('tbody', {}, runs.runs.map(runRow))),
    runs.runs.length === board.runsShown && board.runsShown < 500 ? el('p', {}, el('button', { 'data-older': true }, 'More')) : ''));
}

// ---- acting

function verdictOf(result) {
  if (result.outcome === 'test failed') return ['FAIL', `${result.failed} of ${result.tests} tests failed`];
  if (result.outcome !== 'whole') return ['FAIL', `${result.outcome}${result.reason ? `: ${result.reason}` : ''}`];
  if (result.type !== 3) return ['PASS', `collected in ${durationText(result.duration)}`];
  if (!result.tests) return ['', 'The board has answered; no names file says what passes.'];
  return ['PASS', `all ${result.tests} tests passed`];
}

// The failed ones first; of what passed, that it did.
function drawResult(result) {
  const [verdict, text] = verdictOf(result);
  const rows = result.type !== 3 ? [] : result.items.flatMap((item) => item.sections.flatMap((section) =>
    section.values.map((value) => ({ item, section, value }))));
  rows.sort((a, b) => (b.value.verdict === 'FAIL') - (a.value.verdict === 'FAIL'));
  show('result', el('div', { class: 'card' },
    el('div', { class: 'bar' }, el('h2', {}, el('span', { class: `${verdict} verdict` }, verdict), ` ${text}`),
      el('span', { class: 'quiet' }, timeText(result.started)), el('button', { 'data-close': true, class: 'plain', 'aria-label': 'Close' }, '✕')),
    rows.length === 0 ? '' : el('table', {}, el('tbody', {}, rows.map(({ item, section, value }) => el('tr', {},
      el('td', { class: value.verdict }, value.verdict ?? ''), el('td', {}, item.name), el('td', {}, section.name),
      el('td', {}, value.name), el('td', {}, value.text, value.unit ? ` ${value.unit}` : '')))))));
}

async function actNow(what) {
  const name = board.name;
  board.busy = true;
  drawHead(board.data);
  show('result', el('div', { class: 'card quiet' }, what === 'selftest' ? 'The self-test runs …' : 'Collecting …'));
  try {
    const result = await act(query(`api/${what}`, { name }));
    if (board?.name === name) drawResult(result);
  } catch (error) {
    if (board?.name === name) show('result', el('div', { class: 'card state failing' }, error.message));
  }
  if (board?.name !== name) return;
  board.busy = false;
  drawHead(board.data);
}

// ---- the plot

let plot = null;  // the value that is plotted, the span, and what draws it

function compact(number) {
  const size = Math.abs(number);
  for (const [limit, letter] of [[1e12, 'T'], [1e9, 'G'], [1e6, 'M'], [1e4, 'k']]) {
    if (size >= limit) return `${Number((number / (letter === 'k' ? 1e3 : limit)).toPrecision(4))} ${letter}`;
  }
  return String(Number(number.toPrecision(5)));
}

// The hour, or at midnight and between days the day.
function tickText(seconds, step) {
  const t = new Date(seconds * 1000);
  const isDay = step >= 86400 || (t.getHours() === 0 && t.getMinutes() === 0 && t.getSeconds() === 0);
  if (isDay) return `${two(t.getMonth() + 1)}-${two(t.getDate())}`;
  return `${two(t.getHours())}:${two(t.getMinutes())}` + (step < 60 ? `:${two(t.getSeconds())}` : '');
}

function plotOptions(answer, unit) {
  const style = getComputedStyle(document.body);
  const colour = (name) => style.getPropertyValue(name).trim();
  const word = (number) => (number === null ? '–' : answer.states?.[number] ?? `${compact(number)} ${unit}`);
  const axis = { stroke: colour('--quiet'), grid: { stroke: colour('--line'), width: 1 }, ticks: { stroke: colour('--line'), width: 1 } };
  return {
    width: $('canvas').clientWidth,
    height: 230,
    scales: { x: { range: [Math.max(answer.from / 1000, answer.times[0] ?? 0), answer.to / 1000] } },
    axes: [{ ...axis, space: 60, values: (_, ticks, axisIndex, space, step) => ticks.map((tick) => tickText(tick, step)) },
      { ...axis, size: 78, values: (_, ticks) => ticks.map((tick) => answer.states?.[tick] ?? compact(tick)) }],
    series: [{ value: (_, time) => (time === null ? '–' : timeText(time * 1000)) },
      { label: answer.name || 'value', stroke: colour('--accent'), width: 1.5, points: { show: answer.numbers.length < 60, size: 5 },
        paths: answer.kind === 'state' ? uPlot.paths.stepped({ align: 1 }) : undefined, value: (_, number) => word(number) }],
  };
}

async function drawPlot() {
  if (!plot) return;
  const mine = plot;
  $('plot').hidden = false;
  $('plot-title').textContent = mine.title;
  for (const button of $('spans').children) button.setAttribute('aria-pressed', String(button.dataset.span === mine.span));
  for (const button of $('modes').children) button.setAttribute('aria-pressed', String((button.dataset.mode === 'raw') === mine.raw));
  const parameters = { name: board.name, span: mine.span, ...mine.place };
  if (mine.raw) parameters.raw = 1;
  const answer = await ask(query('api/plot', parameters));
  if (plot !== mine) return;
  $('modes').hidden = answer.kind !== 'counter';
  const unit = answer.rate ? `${answer.unit}/s` : answer.unit;
  mine.drawn?.destroy();
  mine.drawn = new uPlot(plotOptions(answer, unit), [answer.times, answer.numbers], $('canvas'));
  mine.asked = Date.now();
  const count = answer.numbers.filter((number) => number !== null).length;
  $('canvas').dataset.points = count;
  $('plot-note').textContent = `${count} points of ${answer.runs} runs` + (unit ? `, in ${unit}` : '') +
    (answer.rate ? '; growth per second' : '') + (answer.cutShort ? '; cut short: the runs are too large' : '');
}

function closePlot() {
  plot?.drawn?.destroy();
  plot = null;
  $('plot').hidden = true;
}

// A plot of an hour follows each run, longer ones once a minute.
function followPlot() {
  if (plot?.asked && (plot.span === 'hour' || Date.now() - plot.asked > 60000)) return drawPlot();
  return undefined;
}

// ---- following

async function followFleet() {
  takeFleet(await ask(query('api/fleet', { version: fleet.version })));
  if (!board && Date.now() - (fleet.happened ?? 0) > 10000) {
    fleet.happened = Date.now();
    await drawHappened();
  }
}

async function followBoard() {
  const mine = board;
  const answer = await ask(query('api/board', { name: mine.name, version: mine.data?.version ?? '' }));
  if (board !== mine || !answer.version) return;
  mine.data = answer;
  drawBoard();
  await Promise.all([drawHistory(), followPlot()]);
}

// Of what the reader asked for.
async function attempt(promise) {
  try {
    await promise;
  } catch (error) {
    sayAlarm([error.message]);
  }
}

let timer = 0;

async function follow() {
  clearTimeout(timer);
  try {
    if (!document.hidden) {
      await followFleet();
      if (board) await followBoard();
    }
  } catch (error) {
    $('live').textContent = 'not connected';
    sayAlarm([`The server does not answer as it should: ${error.message}`]);
  }
  clearTimeout(timer);
  timer = setTimeout(follow, kPollMilliseconds);
}

// ---- where the reader goes

function go() {
  const name = location.hash.startsWith('#/board/') ? decodeURIComponent(location.hash.slice(8)) : '';
  closePlot();
  board = name ? { name, runsShown: 20 } : null;
  for (const id of ['head', 'result', 'values', 'events', 'runs']) show(id);
  $('fleet').hidden = Boolean(board);
  $('board').hidden = !board;
  if (!board) document.title = 'Fleet';
  window.scrollTo(0, 0);
  follow();
}

function refilter() {
  fleet.shown = kRowsAtOnce;
  drawFleet();
}

function onClick(event) {
  const on = (selector) => event.target.closest(selector);
  let found = null;
  if ((found = on('[data-state]'))) {
    fleet.state = fleet.state === found.dataset.state ? '' : found.dataset.state;
    refilter();
  } else if (on('[data-more]')) {
    fleet.shown += kRowsAtOnce;
    drawFleet();
  } else if ((found = on('[data-act]'))) {
    actNow(found.dataset.act);
  } else if (on('[data-close]')) {
    show('result');
  } else if (on('[data-older]')) {
    board.runsShown = Math.min(500, board.runsShown * 3);
    attempt(drawHistory());
  } else if ((found = on('[data-plot]'))) {
    const span = plot?.span ?? 'hour';
    closePlot();
    plot = { place: JSON.parse(found.dataset.plot), title: found.dataset.title, span, raw: false };
    attempt(drawPlot());
  } else if ((found = on('[data-span]'))) {
    plot.span = found.dataset.span;
    attempt(drawPlot());
  } else if ((found = on('[data-mode]'))) {
    plot.raw = found.dataset.mode === 'raw';
    attempt(drawPlot());
  } else if (on('#plot-close')) {
    closePlot();
  }
}

document.addEventListener('click', onClick);
document.addEventListener('visibilitychange', follow);
$('tools').addEventListener('submit', (event) => event.preventDefault());
$('search').addEventListener('input', refilter);
$('sort').addEventListener('change', refilter);
$('labels').addEventListener('change', (event) => {
  fleet.labels[event.target.dataset.label] = event.target.value;
  refilter();
});
matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => attempt(drawPlot()));
window.addEventListener('resize', () => plot?.drawn?.setSize({ width: $('canvas').clientWidth, height: 230 }));
window.addEventListener('hashchange', go);
go();
