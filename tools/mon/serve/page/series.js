// Depth and rates over time, a bounded number of points for each channel, and their small picture.
const kPoints = 300;
class Series {
  constructor(points = kPoints) {
    this.limit = points;
    this.clear();
  }
  clear() { this.depth = []; this.in = []; this.out = []; }
  add(depth, into, out) {
    for (const [list, value] of [[this.depth, depth], [this.in, into], [this.out, out]]) {
      list.push(value);
      if (list.length > this.limit) list.shift();
    }
  }
}

const colours = {};
const readColours = () => {
  const style = getComputedStyle(document.documentElement);
  for (const name of ["flow", "wait", "warn", "bad", "dim", "line"])
    colours[name] = style.getPropertyValue(`--${name}`).trim();
};

// The canvas's drawing in units of CSS pixels, as sharp as the screen.
const sharp = canvas => {
  const scale = window.devicePixelRatio || 1;
  const width = canvas.clientWidth, height = canvas.clientHeight;
  if (canvas.width !== Math.round(width * scale)) canvas.width = Math.round(width * scale);
  if (canvas.height !== Math.round(height * scale)) canvas.height = Math.round(height * scale);
  const pen = canvas.getContext("2d");
  pen.setTransform(scale, 0, 0, scale, 0, 0);
  pen.clearRect(0, 0, width, height);
  return { pen, width, height };
};
const trace = (box, values, limit, most, from, to) => {
  const step = box.width / Math.max(1, limit - 1);
  const first = box.width - (values.length - 1) * step;
  values.forEach((value, i) => {
    const y = from - (from - to) * Math.min(1, value / most);
    if (i === 0) box.pen.moveTo(first, y); else box.pen.lineTo(first + i * step, y);
  });
  return first;
};
const line = (box, values, limit, most, colour, width) => {
  box.pen.beginPath();
  trace(box, values, limit, most, box.height - 1, 2);
  box.pen.strokeStyle = colour;
  box.pen.lineWidth = width;
  box.pen.stroke();
};
const area = (box, values, limit, most, colour) => {
  box.pen.beginPath();
  const first = trace(box, values, limit, most, box.height - 1, 2);
  box.pen.lineTo(box.width, box.height);
  box.pen.lineTo(first, box.height);
  box.pen.globalAlpha = 0.42;
  box.pen.fillStyle = colour;
  box.pen.fill();
  box.pen.globalAlpha = 1;
};
const peak = values => values.reduce((most, value) => Math.max(most, value), 0);

// The filled area is the depth, its full height the slots of the ring or, beyond those, the most that
// waited; the line is the rate in, its full height the highest of the time shown.
const draw = (canvas, series, slots, level, rates) => {
  const box = sharp(canvas);
  if (!box.width || !series.depth.length) return;
  const most = Math.max(slots, peak(series.depth), 1);
  box.pen.fillStyle = colours.line;
  box.pen.fillRect(0, box.height - 1, box.width, 1);
  if (peak(series.depth) > 0) area(box, series.depth, series.limit, most, colours[level] || colours.wait);
  const fastest = Math.max(peak(series.in), peak(series.out), 1);
  if (rates) line(box, series.out, series.limit, fastest, colours.dim, 1);
  if (rates || peak(series.in) > 0) line(box, series.in, series.limit, fastest, colours.flow, 1.2);
};
