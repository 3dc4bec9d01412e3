// The timeline strip above the results: how many results fell in each stretch of the range.
// Clicking a stretch (or Enter on it, after the arrow keys) searches it alone; dragging across
// the strip picks several.
const BUCKETS = 48;

export function makeStrip(element, onPick, timeText) {
  const box = element.parentElement;
  let from = 0;
  let to = 0;
  let counts = [];
  let dragFrom = null;
  let chosen = 0;
  let drawing = false;

  const at = (event) => {
    const r = element.getBoundingClientRect();
    return Math.min(BUCKETS - 1, Math.max(0, Math.floor(((event.clientX - r.left) / r.width) * BUCKETS)));
  };
  const edge = (i) => from + ((to - from) * i) / BUCKETS;
  const stretchText = (i) => `${timeText(edge(i))} to ${timeText(edge(i + 1))}: ${counts[i]} ${counts[i] === 1 ? 'result' : 'results'}`;
  const mark = (a, b) => {
    [...element.children].forEach((cell, i) => cell.classList.toggle('picked', i >= Math.min(a, b) && i <= Math.max(a, b)));
  };
  const choose = (i) => {
    chosen = Math.min(BUCKETS - 1, Math.max(0, i));
    element.setAttribute('aria-valuenow', String(chosen + 1));
    element.setAttribute('aria-valuetext', stretchText(chosen));
    mark(chosen, chosen);
  };
  const draw = () => {
    const most = Math.max(1, ...counts);
    element.replaceChildren(...counts.map((n, i) => {
      const cell = document.createElement('div');
      cell.className = 'cell';
      cell.dataset.count = n;
      cell.style.setProperty('--share', n / most);
      cell.title = stretchText(i);
      return cell;
    }));
    if (counts.length) {
      element.setAttribute('aria-valuetext', stretchText(chosen));
      document.getElementById('strip-from').textContent = timeText(from);
      document.getElementById('strip-to').textContent = timeText(to);
    }
  };

  element.addEventListener('pointerdown', (event) => {
    if (!counts.length) return;
    dragFrom = at(event);
    element.setPointerCapture(event.pointerId);
    mark(dragFrom, dragFrom);
  });
  element.addEventListener('pointermove', (event) => { if (dragFrom !== null) mark(dragFrom, at(event)); });
  element.addEventListener('pointerup', (event) => {
    if (dragFrom === null) return;
    const a = Math.min(dragFrom, at(event));
    const b = Math.max(dragFrom, at(event));
    dragFrom = null;
    onPick(edge(a), edge(b + 1));
  });
  element.addEventListener('keydown', (event) => {
    if (!counts.length) return;
    const step = { ArrowRight: 1, ArrowUp: 1, ArrowLeft: -1, ArrowDown: -1, Home: -BUCKETS, End: BUCKETS }[event.key];
    if (step) {
      event.preventDefault();
      choose(chosen + step);
    } else if (event.key === 'Enter') {
      event.preventDefault();
      onPick(edge(chosen), edge(chosen + 1));
    }
  });

  return {
    // A new range, counted from nothing.
    reset(start, end) {
      [from, to] = [Math.min(start, end), Math.max(start, end)];
      counts = Number.isFinite(from) && Number.isFinite(to) && to > from ? new Array(BUCKETS).fill(0) : [];
      chosen = 0;
      box.hidden = true;
      element.setAttribute('aria-valuenow', '1');
      draw();
    },
    add(seconds) {
      if (!counts.length || seconds < from || seconds > to) return;
      counts[Math.min(BUCKETS - 1, Math.floor(((seconds - from) / (to - from)) * BUCKETS))] += 1;
      box.hidden = false;
      if (drawing) return;
      drawing = true;
      requestAnimationFrame(() => { drawing = false; draw(); });
    },
  };
}
