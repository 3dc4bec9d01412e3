// The three views: what each asks the API, and how each result line becomes a row of cells.
// A cell is { text, title, time, node }: times are shown to the second in the chosen zone with
// their full precision on hover; downloads carry the lines as they came.
import { showTime } from './time.js';

const seconds = (line, key) => line[`${key}_sec`] + line[`${key}_usec`] / 1e6;

export function durationText(s) {
  if (s >= 86400) {
    const days = Math.floor(s / 86400);
    const hours = Math.floor((s % 86400) / 3600);
    return `${days} ${days === 1 ? 'day' : 'days'}${hours ? ` ${hours} h` : ''}`;
  }
  if (s < 60) return `${s.toFixed(1)} s`;
  if (s < 3600) return `${Math.floor(s / 60)} min ${String(Math.floor(s % 60)).padStart(2, '0')} s`;
  return `${Math.floor(s / 3600)} h ${String(Math.floor((s % 3600) / 60)).padStart(2, '0')} min`;
}

// One CSV cell, quoted. A text that a spreadsheet would run as a formula (=, +, -, @, or a tab
// or return first) is kept as text by a leading apostrophe; numbers stay numbers.
export function csvCell(cell) {
  const text = typeof cell === 'string' && /^[=+\-@\t\r]/.test(cell) ? `'${cell}` : String(cell);
  return `"${text.replaceAll('"', '""')}"`;
}

// A stretch's length to the microsecond, without a float's noise: "3.580575".
const exactSeconds = (line) => {
  const micros = (line.end_sec - line.start_sec) * 1e6 + (line.end_usec - line.start_usec);
  return `${Math.floor(micros / 1e6)}.${String(micros % 1e6).padStart(6, '0')}`;
};

const timeCell = (line, key, zone) => {
  const at = key ? seconds(line, key) : line.sec + line.usec / 1e6;
  return { text: showTime(at, zone), title: line[key || 'time'], time: true };
};

// The end of a stretch without its date when that is the start's.
const endCell = (line, zone) => {
  const cell = timeCell(line, 'end', zone);
  const start = showTime(seconds(line, 'start'), zone);
  if (start.slice(0, 10) === cell.text.slice(0, 10)) cell.text = cell.text.slice(11);
  return cell;
};

// An appearance within a span's gap of the range's edge may run past it: the search saw only
// the range.
const SPAN_GAP_S = 2;
function cutEdges(line, range) {
  if (!range) return { before: false, after: false };
  const [lo, hi] = [Math.min(range.startSeconds, range.endSeconds), Math.max(range.startSeconds, range.endSeconds)];
  return { before: seconds(line, 'start') - lo < SPAN_GAP_S, after: hi - seconds(line, 'end') < SPAN_GAP_S, lo, hi };
}

function cutText(line, range, zone) {
  const cut = cutEdges(line, range);
  const clock = (s) => showTime(s, zone).slice(11);
  return [cut.before && `began before ${clock(cut.lo)}`, cut.after && `continues after ${clock(cut.hi)}`]
    .filter(Boolean).join('; ');
}

const SVG = 'http://www.w3.org/2000/svg';

// The frame with the object's box where the appearance began (dashed) and where it ended.
function boxesPicture(line) {
  const svg = document.createElementNS(SVG, 'svg');
  svg.setAttribute('viewBox', '0 0 160 90');
  svg.setAttribute('class', 'boxes');
  svg.setAttribute('role', 'img');
  svg.setAttribute('aria-label', 'where it was at the start (dashed) and at the end');
  const frame = document.createElementNS(SVG, 'rect');
  Object.entries({ width: 160, height: 90, class: 'frame' }).forEach(([k, v]) => frame.setAttribute(k, v));
  svg.append(frame);
  for (const [key, cls] of [['box_at_start', 'start'], ['box_at_end', 'end']]) {
    const edges = (line[key] || []).map(Number);
    if (edges.length !== 4 || edges.some(Number.isNaN)) continue;
    const [l, t, r, b] = edges;
    const box = document.createElementNS(SVG, 'rect');
    Object.entries({ x: l * 160, y: t * 90, width: Math.max(1, (r - l) * 160), height: Math.max(1, (b - t) * 90), class: cls })
      .forEach(([k, v]) => box.setAttribute(k, v));
    svg.append(box);
  }
  return svg;
}

// An event at the same instant, of the same track and state, as a start-state line before it
// says nothing new: the start state is one row per track.
export function repeatsStartState(line, lines) {
  if (line.start_state || !(line.kind === 'track' || line.kind === 'recording')) return false;
  // The start state comes first, at the range's start: only a line at that time can repeat it.
  const first = lines[0];
  if (!first || !first.start_state || first.sec !== line.sec || first.usec !== line.usec) return false;
  return lines.some((other) => other.start_state && other.kind === line.kind && other.track === line.track
    && other.on === line.on && other.sec === line.sec && other.usec === line.usec && other.device === line.device);
}

export const views = {
  appearances: {
    path: 'metadata',
    unit: ['appearance', 'appearances'],
    columns: ['start', 'end', 'duration', 'what appeared', 'where', 'matching frames'],
    body: (range, filters) => ({ ...range, ...filters, spans: '2s' }),
    time: (line) => line.kind === 'span' && seconds(line, 'start'),
    row: (line, zone, range) => line.kind === 'span' && [
      timeCell(line, 'start', zone), endCell(line, zone),
      { text: durationText(seconds(line, 'end') - seconds(line, 'start')), mark: cutText(line, range, zone) },
      line.classes || line.box_at_start
        ? { text: [(line.classes || []).join(', '), line.colour, line.likelihood && `likelihood ${line.likelihood}`].filter(Boolean).join(' · '),
          title: line.likelihood ? `best likelihood ${line.likelihood}` : '' }
        : { text: 'not known (found by a walk)', title: 'Only the index knows what appeared; this stretch was walked.' },
      { text: '', node: line.box_at_start ? boxesPicture(line) : null },
      { text: String(line.matches) }],
    csv: (line, range) => line.kind === 'span' && [line.start, line.end, exactSeconds(line),
      (line.classes || []).join(' '), line.colour || '', line.likelihood || '', line.matches,
      (line.box_at_start || []).join(' '), (line.box_at_end || []).join(' '),
      ['before', 'after'].filter((edge) => cutEdges(line, range)[edge]).join(' and ')],
    csvColumns: ['start', 'end', 'duration_s', 'classes', 'colour', 'likelihood', 'matches', 'box_at_start', 'box_at_end', 'cut'],
  },
  events: {
    path: 'events',
    unit: ['event', 'events'],
    columns: ['time', 'what', 'state', 'start state'],
    body: (range) => ({ ...range, startState: true }),
    time: (line) => (line.kind === 'track' || line.kind === 'recording') && line.sec + line.usec / 1e6,
    row: (line, zone) => (line.kind === 'track' || line.kind === 'recording') && [timeCell(line, '', zone),
      { text: line.kind === 'track' ? `track ${line.track}` : 'recording' }, { text: line.on ? 'on' : 'off' },
      { text: line.start_state ? 'yes' : '' }],
    csv: (line) => (line.kind === 'track' || line.kind === 'recording') && [line.time,
      line.kind === 'track' ? line.track : 'recording', line.on ? 'on' : 'off', line.start_state ? 'yes' : ''],
    csvColumns: ['time', 'what', 'state', 'start_state'],
  },
  coverage: {
    path: 'summary',
    unit: ['bucket', 'buckets'],
    columns: ['from', 'to', 'recorded'],
    body: (range, filters, bucket, alignTo) => ({ ...range, bucket, alignTo }),
    time: () => false,
    row: (line, zone) => line.kind === 'bucket' && [timeCell(line, 'start', zone), endCell(line, zone),
      { text: `${Math.floor((100 * line.recording_on_s) / (seconds(line, 'end') - seconds(line, 'start')))} %` }],
    csv: (line) => line.kind === 'bucket' && [line.start, line.end, line.recording_on_s],
    csvColumns: ['start', 'end', 'recorded_s'],
  },
};

// One bar per bucket: the share of it that was recorded, its value said on the bar.
export function drawBar(bars, line, zone) {
  const share = line.recording_on_s / (seconds(line, 'end') - seconds(line, 'start'));
  const bar = document.createElement('div');
  bar.className = 'bar';
  const percent = `${Math.floor(share * 100)} %`;
  bar.title = `${showTime(seconds(line, 'start'), zone)}: ${percent} recorded`;
  bar.setAttribute('role', 'img');
  bar.setAttribute('aria-label', bar.title);
  const fill = document.createElement('span');
  fill.style.height = `${share * 100}%`;
  const value = document.createElement('small');
  value.textContent = percent;
  bar.append(value, fill);
  bars.append(bar);
  bars.classList.toggle('many', bars.children.length > 24);
}

export function gapItem(line, zone) {
  const item = document.createElement('li');
  item.textContent = `${line.device ? `${line.device}: ` : ''}${showTime(seconds(line, 'start'), zone)} to ${showTime(seconds(line, 'end'), zone)}: not recorded for ${durationText(line.duration_s)}`;
  item.title = `${line.start} to ${line.end}`;
  return item;
}
