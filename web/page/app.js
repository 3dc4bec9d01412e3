// The search page: token, time range, the three views, live results, stop and download.
import { ApiError, request, stream, token } from './api.js';
import { setUpRegion } from './region.js';
import { makeStrip } from './strip.js';
import { midnightBefore, preset, readTime, showTime, zones } from './time.js';
import { csvCell, drawBar, durationText, gapItem, repeatsStartState, views } from './views.js';

const $ = (id) => document.getElementById(id);
const FIELDS = ['start', 'end', 'class', 'colour', 'minLikelihood', 'region', 'xpath', 'bucket', 'devices'];
const STATUS_EVERY_MS = 5000;
let view = 'appearances';
let running = null; // { id, began, stopRequested, controller, failed, view }
// Each view's last answer, kept until a new search in that view replaces it.
const answers = {};
let recording = null; // { from, to } in seconds, when the service says
let hub = 0; // devices of a hub without a device of its own
let xpathTyped = false;
let strip;

const zone = () => $('zone').value;
const say = (text) => { $('message').textContent = text; };
const problem = (text) => { $('problem').textContent = text; };
const answer = () => answers[view];

// What each field needs, said for people; the gateway's own reason follows where it adds one.
const FIELD_HELP = {
  start: 'Enter when to start: a date and time such as 2024-01-01 13:00, or pick a range above.',
  end: 'Enter when to end: a date and time such as 2024-01-01 14:00, or pick a range above.',
  minLikelihood: 'The least likelihood is a number from 0 to 1, such as 0.8.',
  region: 'The region needs four numbers from 0 to 1, with left below right and top below bottom. Drag on the frame to draw one.',
  class: 'A class is a plain name, such as person.',
  colour: 'A colour is a plain name, such as red.',
  bucket: 'That bucket size gives too many bars for this range; pick a larger one.',
  devices: 'Pick devices from the list.',
};
const FIELD_NAMES = { start: 'From', end: 'To', minLikelihood: 'Least likelihood', region: 'Region', class: 'Class',
  colour: 'Colour', bucket: 'Bucket size', devices: 'Devices', xpath: 'XPath' };
const FOCUS_OF = { region: 'region-left', class: 'tab-appearances', devices: 'device-choices' };

// A bad field: its sentence beside it, the focus on it, and a word by the Search button.
function fieldError(field, message) {
  const element = $(`${field}-error`);
  if (!element) return false;
  element.textContent = field === 'xpath' ? `This XPath cannot be used: ${message.replace(/^xpath: /, '')}` : FIELD_HELP[field] || message;
  markBad([field]);
  return true;
}

function markBad(fields) {
  if (!fields.length) return;
  $('run-error').textContent = `Check ${fields.map((f) => FIELD_NAMES[f] || f).join(' and ')}: ${fields.length > 1 ? 'they are' : 'it is'} marked above.`;
  const first = $(FOCUS_OF[fields[0]] || fields[0]);
  if (first) first.focus();
}

// Plain sentences for what the gateway answers; a bad value goes next to its field.
function explain(error) {
  if (error.status === 401) {
    token.clear();
    showLogin('That token is not accepted here. Check it and paste it again.');
    return;
  }
  if (error.status === 429) return problem('Two searches are already running on the device. Try again when one of them finishes.');
  if (error.status === 503) return problem('The device is busy with other visitors. Try again in a few seconds.');
  if (error.status === 502) {
    showService(false);
    return problem('The search service is not running on the device, so nothing can be searched now.');
  }
  if (error.status === 0) return problem('The gateway cannot be reached. Check the connection to the device.');
  if (error.status === 400) {
    const field = error.field || FIELDS.find((name) => error.message.startsWith(`${name}:`));
    if (field && fieldError(field, error.message)) return;
  }
  problem(error.message);
}

function showService(up, text) {
  const hubText = hub && !up ? `Hub for ${hub} ${hub === 1 ? 'device' : 'devices'}` : '';
  $('service').textContent = text || hubText || (up ? 'Search service running' : 'The search service is not running');
  $('service').className = up || hubText ? 'up' : 'down';
}

async function refreshService() {
  try {
    const status = await (await request('GET', 'status')).json();
    recording = status.recording ? { from: status.recording.from_sec, to: status.recording.to_sec } : null;
    showService(true);
  } catch (error) {
    if (error.status === 401) throw error;
    showService(false, error.status === 502 ? '' : 'The gateway cannot be reached');
  }
  showRecorded();
}

function showLogin(message) {
  $('app').hidden = true;
  $('login').hidden = false;
  $('token-error').textContent = message || '';
  $('token').focus();
}

async function checkToken() {
  await showDevices();
  await refreshService();
  $('login').hidden = true;
  $('app').hidden = false;
  $('start').focus();
}

// A hub without a device of its own searches its devices: all of them unless told otherwise.
async function showDevices() {
  let names = [];
  try {
    names = (await (await request('GET', 'devices')).json()).devices || [];
  } catch (error) {
    if (error.status === 401) throw error;
  }
  let own = true;
  try {
    await request('GET', 'status');
  } catch (error) {
    if (error.status === 401) throw error;
    own = error.status !== 502;
  }
  hub = names.length && !own ? names.length : 0;
  $('devices-hint').textContent = hub ? 'None ticked: every device. Results of several come in one list, in time order.'
    : 'None ticked: this device only. Results of several come in one list, in time order.';
  $('devices').hidden = names.length === 0;
  $('device-choices').replaceChildren(...names.map((name) => {
    const label = document.createElement('label');
    const box = Object.assign(document.createElement('input'), { type: 'checkbox', name: 'device', value: name, checked: hub > 0 });
    label.append(box, ` ${name}`);
    return label;
  }));
}

// A hub without a device of its own searches every device when none is ticked.
const chosenDevices = () => {
  const ticked = [...document.querySelectorAll('input[name=device]:checked')].map((c) => c.value);
  return ticked.length || !hub ? ticked : [...document.querySelectorAll('input[name=device]')].map((c) => c.value);
};

function filters(getRegion) {
  const classes = [...document.querySelectorAll('input[name=class]:checked')].map((c) => c.value);
  const f = {};
  if (classes.length) f.class = classes;
  if ($('colour').value) f.colour = $('colour').value;
  if ($('minLikelihood').value.trim()) f.minLikelihood = $('minLikelihood').value.trim();
  if ($('motion').checked) f.motion = true;
  const region = getRegion();
  if (region) f.region = region;
  return f;
}

function appearanceFilters(getRegion) {
  const f = filters(getRegion);
  return xpathTyped ? { xpath: $('xpath').value } : f;
}

function fitXPath() {
  const box = $('xpath');
  box.style.height = 'auto';
  box.style.height = `${box.scrollHeight + 2}px`;
}

async function showXPath(getRegion) {
  if (xpathTyped) return;
  const f = filters(getRegion);
  $('region-error').textContent = '';
  try {
    $('xpath').value = Object.keys(f).length ? (await (await request('POST', 'xpath', f)).json()).xpath : '';
    fitXPath();
  } catch (error) {
    if (error.status === 400) explain(error);
  }
}

// A person's own XPath and the filters do not both hold: while the box has one, the filters
// are off, and one click brings them back.
function setXPathTyped(typed, getRegion) {
  xpathTyped = typed;
  $('filters').disabled = typed;
  $('filters-off').hidden = !typed;
  if (!typed) showXPath(getRegion);
}

// Under each time: how it was read, in the zone shown and in the other one.
function showRange() {
  const read = {};
  for (const id of ['start', 'end']) {
    const text = $(id).value.trim();
    const t = text ? readTime(text, zone()) : null;
    read[id] = t;
    const other = zone() === 'utc' ? 'local' : 'utc';
    $(`${id}-local`).textContent = t && !t.why
      ? `${showTime(t.seconds, zone())} ${zone() === 'utc' ? 'UTC' : 'here'}; ${showTime(t.seconds, other)} ${other === 'utc' ? 'UTC' : 'here'}` : '';
  }
  const backward = read.start && read.end && !read.start.why && !read.end.why && read.start.seconds > read.end.seconds;
  $('direction').textContent = backward ? 'From is later than To: the search runs backward, latest first.' : '';
  showRecorded(read);
  return read;
}

const readable = (t) => t && !t.why;

// What the recording covers, and whether the range asked reaches it.
function showRecorded(read = null) {
  $('preset-recorded').hidden = !recording;
  if (!recording) {
    $('recorded').textContent = '';
    return;
  }
  let text = `The recording has data from ${showTime(recording.from, zone())} to ${showTime(recording.to, zone())}.`;
  read = read || { start: readTime($('start').value, zone()), end: readTime($('end').value, zone()) };
  if (readable(read.start) && readable(read.end)) {
    const [a, b] = [Math.min(read.start.seconds, read.end.seconds), Math.max(read.start.seconds, read.end.seconds)];
    if (a > recording.to) text += ' This range is after its end: use "Last hour recorded".';
    else if (b < recording.from) text += ' This range is before its start.';
  }
  $('recorded').textContent = text;
}

function setRange(from, to) {
  $('start').value = from;
  $('end').value = to;
  for (const id of ['start', 'end']) $(`${id}-error`).textContent = '';
  showRange();
}

function choosePreset(name) {
  if (name === 'recorded') setRange(showTime(recording.to - 3600, zone()), showTime(Math.ceil(recording.to), zone()));
  else setRange(...preset(name, zone()));
}

// A new zone: the typed times keep their instant, and everything shown is shown again.
function changeZone(previous) {
  for (const id of ['start', 'end']) {
    const text = $(id).value.trim();
    const t = text && !/(Z|[+-]\d\d:?\d\d)$/i.test(text) && !/^\d+(\.\d+)?$/.test(text) ? readTime(text, previous) : null;
    if (readable(t)) $(id).value = showTime(t.seconds, zone()) + (String(t.seconds).includes('.') ? String(t.seconds).slice(String(t.seconds).indexOf('.')) : '');
  }
  showRange();
  if (!running) render();
  const a = answers.events;
  if (!running && a && a.picture) showPicture(a).then(() => { if (view !== 'events') $('picture-box').hidden = true; });
}

function selectView(name) {
  if (name === view) return;
  view = name;
  for (const key of Object.keys(views)) {
    const tab = $(`tab-${key}`);
    tab.setAttribute('aria-selected', String(key === name));
    tab.tabIndex = key === name ? 0 : -1;
    $(`view-${key}`).hidden = key !== name;
  }
  // What is shown, and what a download gives, is always this view's own last answer.
  if (!running) render();
}

// The results area cleared, with the columns of this view's rows.
function clearShown(withDevice) {
  for (const id of ['problem', 'message', 'how', 'run-error']) $(id).textContent = '';
  $('notices').replaceChildren();
  for (const field of FIELDS) $(`${field}-error`).textContent = '';
  const table = $('results');
  table.tHead.replaceChildren();
  table.tBodies[0].replaceChildren();
  const head = table.tHead.insertRow();
  const columns = [...(withDevice ? ['device'] : []), ...views[view].columns];
  for (const column of columns) head.append(Object.assign(document.createElement('th'), { textContent: column, scope: 'col' }));
  table.hidden = true;
  $('bars').replaceChildren();
  $('charts').replaceChildren();
  $('gaps').replaceChildren();
  for (const id of ['chart', 'gaps', 'gaps-box', 'picture-box', 'where-legend']) $(id).hidden = true;
  $('bars-from').textContent = $('bars-to').textContent = '';
  strip.reset(NaN, NaN);
}

// This view's last answer, drawn again (another tab, another zone).
function render() {
  const a = answer();
  clearShown(a && a.lines.some((line) => line.device));
  if (a) {
    strip.reset(a.range.startSeconds, a.range.endSeconds);
    for (const line of a.lines) show(line, a);
    for (const text of a.notices) addNotice(text);
    if (a.end) sayEnd(a);
    else if (a.said) say(a.said);
    problem(a.problem || '');
    if (a.picture) showPictureOf(a.picture);
  }
  setDownloads();
}

function setDownloads() {
  const rows = $('results').tBodies[0].rows.length;
  $('download-jsonl').disabled = $('download-csv').disabled = running !== null || !answer() || rows === 0;
}

function progressTo(through, range) {
  const t = Date.parse(through) / 1000;
  const [a, b] = [range.startSeconds, range.endSeconds];
  if (Number.isFinite(t) && a !== b) $('progress').value = Math.min(1, Math.max(0, (t - a) / (b - a)));
}

function addRow(line, a) {
  const v = views[view];
  const row = !repeatsStartState(line, a.lines) && v.row(line, zone(), a.range);
  if (!row) return;
  if (line.box_at_start) $('where-legend').hidden = false;
  const tr = $('results').tBodies[0].insertRow();
  const cells = [...(line.device ? [{ text: line.device }] : []), ...row];
  const columns = [...$('results').tHead.rows[0].cells].map((th) => th.textContent);
  cells.forEach((cell, i) => {
    const td = tr.insertCell();
    td.dataset.label = columns[i] || '';
    if (cell.node) td.append(cell.node); else td.textContent = cell.text;
    if (cell.title) td.title = cell.title;
    if (cell.time) td.className = 'time';
    if (cell.mark) {
      const mark = Object.assign(document.createElement('small'), { className: 'cut', textContent: cell.mark });
      td.append(' ', mark);
    }
  });
  $('results').hidden = false;
}

function addNotice(text) {
  $('notices').append(Object.assign(document.createElement('li'), { textContent: text }));
}

// The coverage chart of one device of a hub (labelled with its name), or of this device.
function chartOf(device) {
  if (!device) return $('chart');
  const id = `chart-${device}`;
  let chart = document.getElementById(id);
  if (!chart) {
    chart = $('chart').cloneNode(true);
    chart.id = id;
    chart.classList.add('device-chart');
    for (const span of chart.querySelectorAll('[id]')) span.removeAttribute('id');
    chart.querySelector('.bars').replaceChildren();
    const caption = Object.assign(document.createElement('figcaption'), { className: 'device-name', textContent: device });
    chart.prepend(caption);
    $('charts').append(chart);
  }
  return chart;
}

// One line of an answer on the page.
function show(line, a) {
  const at = views[view].time(line);
  if (at !== false) strip.add(at);
  if (line.kind === 'gap') {
    $('gaps-box').hidden = false;
    $('gaps').hidden = false;
    $('gaps').append(gapItem(line, zone()));
    return;
  }
  if (line.kind === 'bucket') {
    const chart = chartOf(line.device);
    chart.hidden = false;
    drawBar(chart.querySelector('.bars'), line, zone());
    const [from, to] = chart.querySelectorAll('.axis-x span');
    if (!from.textContent) from.textContent = showTime(line.start_sec, zone());
    to.textContent = showTime(line.end_sec, zone());
  }
  addRow(line, a);
}

function take(line, a) {
  if (line.kind === 'search') {
    running.id = line.id;
    if (running.stopRequested) stop();
    return;
  }
  if (line.kind === 'progress') { progressTo(line.through, a.range); return; }
  if (line.kind === 'waiting') { showWaiting(line.device, line.waiting); return; }
  if (line.kind === 'notice') {
    a.notices.push(line.message);
    addNotice(line.message);
    return;
  }
  if (line.device && (line.kind === 'error' || line.kind === 'dropped')) {
    showWaiting(line.device, false);
    a.problems.push(deviceProblem(line));
    a.problem = a.problems.join(' ');
    problem(a.problem);
    return;
  }
  if (line.error) {
    running.failed = true;
    a.problem = /went away|not running|bus|did not answer/.test(line.error)
      ? 'The search service on the device stopped during the search. The rows shown are what it found before; search again once it is back.'
      : `The search ended early: ${line.error}`;
    problem(a.problem);
    return;
  }
  a.lines.push(line);
  show(line, a);
  if (!running.scrolled) {
    running.scrolled = true;
    bringStatusIntoView();
  }
  if ('results' in line) {
    a.end = line;
    a.took = durationText((performance.now() - running.began) / 1000);
    sayEnd(a);
  }
}

// A device of a hub that has been silent for a while: its name says it is waited for.
function showWaiting(device, waiting) {
  for (const box of document.querySelectorAll('input[name=device]')) {
    if (box.value !== device) continue;
    const label = box.parentElement;
    label.classList.toggle('waiting', waiting);
    let note = label.querySelector('.waiting-note');
    if (waiting && !note) {
      note = Object.assign(document.createElement('small'), { className: 'waiting-note', textContent: ' waiting for its answer' });
      label.append(note);
    }
    if (!waiting && note) note.remove();
  }
}

// What a device that left the search leaves out, without the transport's words.
function deviceProblem(line) {
  const why = line.kind === 'dropped' || /stream broke/.test(line.error) ? 'its gateway stopped answering'
    : /cannot be reached/.test(line.error) ? 'its gateway cannot be reached'
      : /HTTP 401|HTTP 403/.test(line.error) ? 'it did not accept the hub\'s token'
        : `it failed: ${line.error}`;
  const after = line.after ? `no results after ${showTime(Date.parse(line.after) / 1000, zone())}` : 'no results';
  return `${line.device}: ${after} (${why}).`;
}

// Narrow screens: the status and the results to the top, where they are seen; again when the
// first results make room to scroll.
function bringStatusIntoView() {
  $('status').scrollIntoView({ block: matchMedia('(min-width: 1000px)').matches ? 'nearest' : 'start' });
}

// "26 appearances (2058 matching frames)": one unit, the other in brackets.
function countText(line) {
  const rows = $('results').tBodies[0].rows.length;
  const [one, many] = views[view].unit;
  const shown = `${rows} ${rows === 1 ? one : many}`;
  // A merge of many devices counts its lines only.
  if (!line || line.devices || view !== 'appearances') return shown;
  return `${shown} (${line.results} matching ${line.results === 1 ? 'frame' : 'frames'})`;
}

// Whether the range reaches the recording at all.
function outsideRecording(range) {
  if (!recording) return false;
  const [a, b] = [Math.min(range.startSeconds, range.endSeconds), Math.max(range.startSeconds, range.endSeconds)];
  return b < recording.from || a > recording.to;
}

function sayEnd(a) {
  const line = a.end;
  if (line.kind === 'interrupted') {
    const through = line.time ? `; searched through ${showTime(line.sec, zone())}` : '';
    say(`Stopped: ${countText(line)}${through}.`);
  } else if (line.kind === 'ended_elsewhere') {
    say(`Ended by another client: ${countText(line)}.`);
  } else if (line.kind === 'incomplete') {
    say(`${countText(line)}, but a recording service failed: results after ${showTime(line.sec, zone())} are missing.`);
  } else if (!line.devices && outsideRecording(a.range)) {
    say(`Nothing was recorded between ${showTime(Math.min(a.range.startSeconds, a.range.endSeconds), zone())} and ${showTime(Math.max(a.range.startSeconds, a.range.endSeconds), zone())}.`);
  } else {
    say(`Finished: ${countText(line)} in ${a.took}.`);
    $('progress').value = 1;
  }
  $('how').textContent = howText(line);
}

// One short line on how the answer was found.
function howText(line) {
  if (line.devices) {
    return line.devices.map((d) => `${d.device}: ${d.outcome || d.kind || ''}${d.results !== undefined ? `, ${d.results} ${d.results === 1 ? 'result' : 'results'}` : ''}`).join('; ');
  }
  if (!line.index) return view === 'appearances' ? 'Found by walking the recording: what appeared and where are known only from the index.' : '';
  const covered = `${showTime(Date.parse(line.index.from) / 1000, zone())} to ${showTime(Date.parse(line.index.to) / 1000, zone())}`;
  return `The index answered from ${covered} (${line.index.results} of ${line.results} matches); the rest was walked.`;
}

// Empty or unreadable fields are said before anything is sent.
function checkFields(read) {
  const bad = [];
  for (const id of ['start', 'end']) {
    if (!read[id] || read[id].why) {
      $(`${id}-error`).textContent = read[id] && read[id].why === 'no such date or time'
        ? 'There is no such date or time: check the day and the hour.' : FIELD_HELP[id];
      bad.push(id);
    }
  }
  if (!bad.length && read.start.seconds === read.end.seconds) {
    $('end-error').textContent = 'From and To are the same moment; make To later (or earlier, to search backward).';
    bad.push('end');
  }
  markBad(bad);
  return bad.length === 0;
}

function setRunning(on) {
  const hadFocus = document.activeElement;
  $('run').disabled = on;
  $('stop').disabled = !on;
  $('progress').hidden = !on;
  document.body.classList.toggle('running', on);
  // Focus stays on a control, not on the page's body.
  if (on && (hadFocus === $('run') || hadFocus === document.body)) $('stop').focus();
  if (!on && (hadFocus === $('stop') || hadFocus === document.body || hadFocus === null)) $('run').focus();
  setDownloads();
}

async function run(getRegion) {
  if (running) return;
  const read = showRange();
  clearShown(chosenDevices().length > 0);
  if (!checkFields(read)) return;
  const range = { start: read.start.api, end: read.end.api, startSeconds: read.start.seconds, endSeconds: read.end.seconds };
  const v = views[view];
  const body = v.body({ start: range.start, end: range.end }, appearanceFilters(getRegion), $('bucket').value,
    String(midnightBefore(Math.min(read.start.seconds, read.end.seconds), zone())));
  if (chosenDevices().length) body.devices = chosenDevices();
  const a = { lines: [], notices: [], problems: [], range, end: null, took: '', problem: '', said: '', picture: null };
  answers[view] = a;
  running = { id: null, began: performance.now(), stopRequested: false, controller: new AbortController(), failed: false };
  strip.reset(read.start.seconds, read.end.seconds);
  setRunning(true);
  $('progress').value = 0;
  say(read.start.seconds > read.end.seconds ? 'Searching backward, latest first...' : 'Searching...');
  bringStatusIntoView();
  try {
    await stream(v.path, body, (line) => take(line, a), running.controller.signal);
    if (running.controller.signal.aborted) a.said = `Stopped: ${countText(null)}.`;
    else if (running.failed) a.said = `Ended early: ${countText(null)}.`;
    if (a.said) say(a.said);
    if (view === 'events' && !running.failed && !running.controller.signal.aborted && !body.devices) await showPicture(a);
  } catch (error) {
    a.said = error.status === -1 ? 'Stopped before the search began.' : '';
    say(a.said);
    if (error.status !== -1) explain(error);
  } finally {
    running = null;
    for (const box of document.querySelectorAll('input[name=device]')) showWaiting(box.value, false);
    setRunning(false);
  }
}

async function showPicture(a) {
  // The picture's axis in the page's zone, at the offset the range starts in.
  const from = Math.min(a.range.startSeconds, a.range.endSeconds) * 1000;
  const utcOffset = zone() === 'utc' ? 0 : -new Date(from).getTimezoneOffset();
  a.picture = await (await request('POST', 'picture', { start: a.range.start, end: a.range.end, utcOffset })).blob();
  showPictureOf(a.picture);
}

function showPictureOf(svg) {
  const picture = $('picture');
  if (picture.src) URL.revokeObjectURL(picture.src);
  picture.src = URL.createObjectURL(svg);
  $('picture-box').hidden = false;
}

// Before the search has its id, the stream is closed, which ends it on the device.
async function stop() {
  if (!running) return;
  running.stopRequested = true;
  if (running.id === null) {
    running.controller.abort();
    return;
  }
  $('stop').disabled = true;
  $('run').focus();
  try {
    await request('DELETE', `searches/${running.id}`);
  } catch (error) {
    explain(error);
  }
}

function download(kind) {
  const v = views[view];
  const { lines, range } = answer();
  let text;
  if (kind === 'jsonl') {
    text = lines.map((line) => JSON.stringify(line)).join('\n') + '\n';
  } else {
    const withDevice = lines.some((line) => line.device);
    const rows = lines.map((line) => {
      const row = !repeatsStartState(line, lines) && v.csv(line, range);
      return row && (withDevice ? [line.device, ...row] : row);
    }).filter(Boolean);
    text = [[...(withDevice ? ['device'] : []), ...v.csvColumns], ...rows].map((row) => row.map(csvCell).join(',')).join('\r\n') + '\r\n';
  }
  const link = document.createElement('a');
  link.href = URL.createObjectURL(new Blob([text], { type: kind === 'jsonl' ? 'application/x-ndjson' : 'text/csv' }));
  link.download = `recording-search-${view}.${kind === 'jsonl' ? 'jsonl' : 'csv'}`;
  link.click();
  setTimeout(() => URL.revokeObjectURL(link.href), 1000);
}

function setUp() {
  const getRegion = setUpRegion(() => showXPath(getRegion));
  strip = makeStrip($('strip'), (from, to) => {
    setRange(showTime(from, zone()), showTime(Math.ceil(to), zone()));
    if (!running) run(getRegion);
  }, (seconds) => showTime(seconds, zone()));
  $('zone-local').textContent = `this browser's time zone (${zones.local})`;
  $('token-form').addEventListener('submit', async (event) => {
    event.preventDefault();
    token.set($('token').value.trim());
    try {
      await checkToken();
    } catch {
      token.clear();
      showLogin('That token is not accepted here. Check it and paste it again.');
    }
  });
  $('search-form').addEventListener('submit', (event) => { event.preventDefault(); run(getRegion); });
  $('stop').addEventListener('click', stop);
  $('download-jsonl').addEventListener('click', () => download('jsonl'));
  $('download-csv').addEventListener('click', () => download('csv'));
  for (const id of ['start', 'end']) $(id).addEventListener('input', () => { $(`${id}-error`).textContent = ''; showRange(); });
  let shownZone = zone();
  $('zone').addEventListener('change', () => { changeZone(shownZone); shownZone = zone(); });
  for (const button of document.querySelectorAll('[data-preset]')) {
    button.addEventListener('click', () => choosePreset(button.dataset.preset));
  }
  for (const key of Object.keys(views)) $(`tab-${key}`).addEventListener('click', () => selectView(key));
  $('search-form').querySelector('[role=tablist]').addEventListener('keydown', (event) => {
    const keys = Object.keys(views);
    const step = { ArrowRight: 1, ArrowLeft: -1 }[event.key];
    if (!step) return;
    const next = keys[(keys.indexOf(view) + step + keys.length) % keys.length];
    selectView(next);
    $(`tab-${next}`).focus();
  });
  for (const el of document.querySelectorAll('#view-appearances input, #colour')) {
    if (!el.id.startsWith('region-')) el.addEventListener('change', () => showXPath(getRegion));
  }
  $('xpath').addEventListener('input', () => {
    const typed = $('xpath').value.trim() !== '';
    if (typed !== xpathTyped) setXPathTyped(typed, getRegion);
    $('xpath-error').textContent = '';
    fitXPath();
  });
  $('filters-back').addEventListener('click', () => {
    $('xpath').value = '';
    setXPathTyped(false, getRegion);
    $('class-label').nextElementSibling.querySelector('input').focus();
  });
  setInterval(() => { if (!$('app').hidden) refreshService().catch(() => {}); }, STATUS_EVERY_MS);
  addEventListener('resize', fitXPath);
  clearShown(false);
  setDownloads();
  if (!token.get()) return showLogin();
  checkToken().catch(() => { token.clear(); showLogin('That token is not accepted here. Check it and paste it again.'); });
}

setUp();
