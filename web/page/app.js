// The search page: token, time range, the three views, live results, stop and download.
import { ApiError, request, stream, token } from './api.js';
import { setUpRegion } from './region.js';
import { drawBar, durationText, gapItem, views } from './views.js';

const $ = (id) => document.getElementById(id);
const FIELDS = ['start', 'end', 'class', 'colour', 'minLikelihood', 'region', 'xpath', 'bucket'];
let view = 'appearances';
let running = null; // { id, stopped }
let lines = [];
let xpathTyped = false;

const say = (text) => { $('message').textContent = text; };
const problem = (text) => { $('problem').textContent = text; };

// Plain sentences for what the gateway answers; a bad value goes next to its field.
function explain(error) {
  if (error.status === 401) {
    token.clear();
    showLogin('That token is not accepted here. Check it and paste it again.');
    return;
  }
  if (error.status === 429) return problem('Two searches are already running on the device. Try again when one of them finishes.');
  if (error.status === 502) return problem('The search service is not running on the device, so nothing can be searched now.');
  if (error.status === 0) return problem('The gateway cannot be reached. Check the connection to the device.');
  if (error.status === 400) {
    const field = FIELDS.find((name) => error.message.startsWith(`${name}:`) || error.message.startsWith(`${name} `));
    if (field) return void ($(`${field}-error`).textContent = error.message);
  }
  problem(error.message);
}

function showLogin(message) {
  $('app').hidden = true;
  $('login').hidden = false;
  $('token-error').textContent = message || '';
  $('token').focus();
}

async function checkToken() {
  try {
    await request('GET', 'status');
    $('service').textContent = 'Search service running';
  } catch (error) {
    if (error.status === 401) throw error;
    $('service').textContent = error.status === 502 ? 'The search service is not running' : 'The gateway cannot be reached';
  }
  $('login').hidden = true;
  $('app').hidden = false;
  $('start').focus();
}

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

async function showXPath(getRegion) {
  if (xpathTyped) return;
  const f = filters(getRegion);
  $('region-error').textContent = '';
  try {
    $('xpath').value = Object.keys(f).length ? (await (await request('POST', 'xpath', f)).json()).xpath : '';
  } catch (error) {
    if (error.status === 400) explain(error);
  }
}

function showLocal(id) {
  const text = $(id).value.trim();
  const t = /^\d+(\.\d+)?$/.test(text) ? new Date(Number(text) * 1000) : new Date(text);
  $(`${id}-local`).textContent = text && !Number.isNaN(t.getTime()) ? `local time ${t.toLocaleString()}` : '';
}

function selectView(name) {
  view = name;
  for (const key of Object.keys(views)) {
    const tab = $(`tab-${key}`);
    tab.setAttribute('aria-selected', String(key === name));
    tab.tabIndex = key === name ? 0 : -1;
    $(`view-${key}`).hidden = key !== name;
  }
}

function resetResults() {
  lines = [];
  for (const id of ['problem', 'message']) $(id).textContent = '';
  for (const field of FIELDS) $(`${field}-error`).textContent = '';
  const table = $('results');
  table.tHead.replaceChildren();
  table.tBodies[0].replaceChildren();
  const head = table.tHead.insertRow();
  for (const column of views[view].columns) head.append(Object.assign(document.createElement('th'), { textContent: column }));
  table.hidden = true;
  $('bars').replaceChildren();
  $('gaps').replaceChildren();
  for (const id of ['bars', 'gaps', 'picture']) $(id).hidden = true;
}

function progressTo(through, range) {
  const t = Date.parse(through) / 1000;
  const [a, b] = [range.startSeconds, range.endSeconds];
  if (Number.isFinite(t) && Number.isFinite(a) && Number.isFinite(b) && a !== b) {
    $('progress').value = Math.min(1, Math.max(0, (t - a) / (b - a)));
  }
}

function take(line, range) {
  if (line.kind === 'search') { running.id = line.id; return; }
  if (line.kind === 'progress') { progressTo(line.through, range); return; }
  if (line.error) { problem(line.error); return; }
  lines.push(line);
  if (line.kind === 'gap') { $('gaps').hidden = false; $('gaps').append(gapItem(line)); return; }
  if (line.kind === 'bucket') { $('bars').hidden = false; drawBar($('bars'), line); }
  const row = views[view].row(line);
  if (row) {
    const tr = $('results').tBodies[0].insertRow();
    for (const cell of row) tr.insertCell().textContent = cell;
    $('results').hidden = false;
  }
  if ('results' in line) finish(line);
}

function finish(line) {
  const took = durationText((performance.now() - running.began) / 1000);
  const rows = $('results').tBodies[0].rows.length;
  if (line.kind === 'interrupted') {
    say(`Stopped after ${line.results} results: searched through ${line.time}.`);
  } else if (line.kind === 'ended_elsewhere') {
    say(`Ended by another client after ${line.results} results.`);
  } else {
    say(`Finished: ${rows} ${rows === 1 ? 'row' : 'rows'} from ${line.results} results in ${took}.`);
    $('progress').value = 1;
  }
}

function timeSeconds(text) {
  return /^\d+(\.\d+)?$/.test(text) ? Number(text) : Date.parse(text) / 1000;
}

async function run(getRegion) {
  if (running) return;
  resetResults();
  const range = { start: $('start').value.trim(), end: $('end').value.trim() };
  const v = views[view];
  const body = v.body(range, appearanceFilters(getRegion), $('bucket').value);
  running = { id: null, began: performance.now() };
  Object.assign(range, { startSeconds: timeSeconds(range.start), endSeconds: timeSeconds(range.end) });
  $('run').disabled = true;
  $('stop').disabled = false;
  $('progress').hidden = false;
  $('progress').value = 0;
  say('Searching...');
  try {
    await stream(v.path, body, (line) => take(line, range));
    if (view === 'events') await showPicture(range);
  } catch (error) {
    say('');
    explain(error);
  } finally {
    running = null;
    $('run').disabled = false;
    $('stop').disabled = true;
    $('progress').hidden = true;
    $('download-jsonl').disabled = $('download-csv').disabled = lines.length === 0;
  }
}

async function showPicture(range) {
  const svg = await (await request('POST', 'picture', { start: range.start, end: range.end })).blob();
  const picture = $('picture');
  if (picture.src) URL.revokeObjectURL(picture.src);
  picture.src = URL.createObjectURL(svg);
  picture.hidden = false;
}

async function stop() {
  if (!running || running.id === null) return;
  $('stop').disabled = true;
  try {
    await request('DELETE', `searches/${running.id}`);
  } catch (error) {
    explain(error);
  }
}

function download(kind) {
  const v = views[view];
  let text;
  if (kind === 'jsonl') {
    text = lines.map((line) => JSON.stringify(line)).join('\n') + '\n';
  } else {
    const quote = (cell) => `"${String(cell).replaceAll('"', '""')}"`;
    const rows = lines.map(v.row).filter(Boolean);
    text = [v.columns, ...rows].map((row) => row.map(quote).join(',')).join('\r\n') + '\r\n';
  }
  const link = document.createElement('a');
  link.href = URL.createObjectURL(new Blob([text], { type: kind === 'jsonl' ? 'application/x-ndjson' : 'text/csv' }));
  link.download = `recording-search-${view}.${kind === 'jsonl' ? 'jsonl' : 'csv'}`;
  link.click();
  setTimeout(() => URL.revokeObjectURL(link.href), 1000);
}

function setUp() {
  const getRegion = setUpRegion(() => showXPath(getRegion));
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
  for (const id of ['start', 'end']) $(id).addEventListener('input', () => showLocal(id));
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
  $('xpath').addEventListener('input', () => { xpathTyped = $('xpath').value.trim() !== ''; });
  if (!token.get()) return showLogin();
  checkToken().catch(() => { token.clear(); showLogin('That token is not accepted here. Check it and paste it again.'); });
}

setUp();
