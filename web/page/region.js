// A region of the picture, drawn by dragging on a 16:9 frame or typed as four numbers from 0 to 1.

const EDGES = ['left', 'top', 'right', 'bottom'];

export function setUpRegion(onChange) {
  const frame = document.getElementById('frame');
  const box = document.getElementById('box');
  const inputs = EDGES.map((edge) => document.getElementById(`region-${edge}`));
  let from = null;

  const round = (v) => Math.round(Math.min(1, Math.max(0, v)) * 100) / 100;
  const at = (event) => {
    const r = frame.getBoundingClientRect();
    return [round((event.clientX - r.left) / r.width), round((event.clientY - r.top) / r.height)];
  };
  const show = () => {
    const v = inputs.map((input) => Number(input.value));
    const complete = inputs.every((input) => input.value !== '') && v[0] < v[2] && v[1] < v[3];
    box.hidden = !complete;
    if (complete) {
      Object.assign(box.style, {
        left: `${v[0] * 100}%`, top: `${v[1] * 100}%`,
        width: `${(v[2] - v[0]) * 100}%`, height: `${(v[3] - v[1]) * 100}%`,
      });
    }
  };
  const set = (values) => {
    values.forEach((v, i) => { inputs[i].value = v === '' ? '' : String(v); });
    show();
    onChange();
  };

  frame.addEventListener('pointerdown', (event) => {
    if (frame.closest('fieldset:disabled')) return;  // an XPath of one's own holds
    from = at(event);
    frame.setPointerCapture(event.pointerId);
    event.preventDefault();
  });
  frame.addEventListener('pointermove', (event) => {
    if (!from) return;
    const to = at(event);
    set([Math.min(from[0], to[0]), Math.min(from[1], to[1]),
      Math.max(from[0], to[0]), Math.max(from[1], to[1])]);
  });
  frame.addEventListener('pointerup', () => { from = null; });
  for (const input of inputs) input.addEventListener('input', () => { show(); onChange(); });
  document.getElementById('region-clear').addEventListener('click', () => set(['', '', '', '']));

  // The region as the API takes it, or undefined when no edge is given.
  return () => (inputs.every((input) => input.value === '')
    ? undefined : inputs.map((input) => input.value.trim()));
}
