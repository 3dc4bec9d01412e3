// The three views: what each asks the API, and how each result line becomes a row.

const seconds = (line, key) => line[`${key}_sec`] + line[`${key}_usec`] / 1e6;

export function durationText(s) {
  if (s < 60) return `${s.toFixed(1)} s`;
  if (s < 3600) return `${Math.floor(s / 60)} min ${String(Math.floor(s % 60)).padStart(2, '0')} s`;
  return `${Math.floor(s / 3600)} h ${String(Math.floor((s % 3600) / 60)).padStart(2, '0')} min`;
}

export const views = {
  appearances: {
    path: 'metadata',
    columns: ['start', 'end', 'duration', 'matches'],
    body: (range, filters) => ({ ...range, ...filters, spans: '2s' }),
    row: (line) => line.kind === 'span' && [line.start, line.end,
      durationText(seconds(line, 'end') - seconds(line, 'start')), line.matches],
  },
  events: {
    path: 'events',
    columns: ['time', 'what', 'state', 'start state'],
    body: (range) => ({ ...range, startState: true }),
    row: (line) => (line.kind === 'track' || line.kind === 'recording') && [line.time,
      line.kind === 'track' ? `track ${line.track}` : 'recording', line.on ? 'on' : 'off',
      line.start_state ? 'yes' : ''],
  },
  coverage: {
    path: 'summary',
    columns: ['from', 'to', 'recorded'],
    body: (range, filters, bucket) => ({ ...range, bucket }),
    row: (line) => line.kind === 'bucket' && [line.start, line.end,
      `${Math.floor((100 * line.recording_on_s) / (seconds(line, 'end') - seconds(line, 'start')))} %`],
  },
};

// One bar per bucket: the share of it that was recorded.
export function drawBar(bars, line) {
  const share = line.recording_on_s / (seconds(line, 'end') - seconds(line, 'start'));
  const bar = document.createElement('div');
  bar.className = 'bar';
  bar.title = `${line.start}: ${Math.floor(share * 100)} % recorded`;
  const fill = document.createElement('span');
  fill.style.height = `${share * 100}%`;
  bar.append(fill);
  bars.append(bar);
}

export function gapItem(line) {
  const item = document.createElement('li');
  item.textContent = `${line.start} to ${line.end}: not recorded for ${durationText(line.duration_s)}`;
  return item;
}
