// The timeline strip above the results: how many results fell in each stretch of the range.
// Clicking a stretch narrows the range to it; dragging across the strip picks a range.
const BUCKETS = 48;

export function makeStrip(element, onPick) {
  let from = 0;
  let to = 0;
  let counts = [];
  let dragFrom = null;
  let drawing = false;

  const at = (event) => {
    const r = element.getBoundingClientRect();
    return Math.min(BUCKETS - 1, Math.max(0, Math.floor(((event.clientX - r.left) / r.width) * BUCKETS)));
  };
  const edge = (i) => from + ((to - from) * i) / BUCKETS;
  const draw = () => {
    const most = Math.max(1, ...counts);
    element.replaceChildren(...counts.map((n, i) => {
      const cell = document.createElement('div');
      cell.className = 'cell';
      cell.dataset.count = n;
      cell.style.setProperty('--share', n / most);
      cell.title = `${n} in this stretch`;
      return cell;
    }));
  };
  const mark = (a, b) => {
    [...element.children].forEach((cell, i) => cell.classList.toggle('picked', i >= Math.min(a, b) && i <= Math.max(a, b)));
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

  return {
    // A new range, counted from nothing.
    reset(start, end) {
      [from, to] = [Math.min(start, end), Math.max(start, end)];
      counts = Number.isFinite(from) && Number.isFinite(to) && to > from ? new Array(BUCKETS).fill(0) : [];
      element.hidden = true;
      draw();
    },
    add(seconds) {
      if (!counts.length || seconds < from || seconds > to) return;
      counts[Math.min(BUCKETS - 1, Math.floor(((seconds - from) / (to - from)) * BUCKETS))] += 1;
      element.hidden = false;
      if (drawing) return;
      drawing = true;
      requestAnimationFrame(() => { drawing = false; draw(); });
    },
  };
}
