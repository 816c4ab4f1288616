// The report as a chart: a bar per snapshot for what deleting it frees
// after the older ones, and a line for what deleting everything up to it
// frees.

import { svg } from './dom.js';
import { formatBytes } from './format.js';

const HEIGHT = 260;
const LEFT = 74;
const RIGHT = 16;
const TOP = 12;
const BOTTOM = 34;

// A round step for about `count` ticks up to `max`.
function tickStep(max, count) {
  const raw = max / count;
  const power = 1024 ** Math.max(0, Math.floor(Math.log(raw) / Math.log(1024)));
  const scaled = raw / power;
  const nice = [1, 2, 4, 5, 8, 10, 16, 20, 32, 50, 64, 100, 128, 256, 512, 1024].find((n) => n >= scaled) ?? 1024;
  return nice * power;
}

// rows: [{label, marginal, cumulative}], oldest first.
export function drawUsageChart(container, rows, width) {
  container.replaceChildren();
  if (!rows.length || width <= LEFT + RIGHT) return;
  const max = Math.max(1, ...rows.map((r) => r.cumulative));
  const step = tickStep(max, 4);
  const top = Math.ceil(max / step) * step;
  const plotWidth = width - LEFT - RIGHT;
  const plotHeight = HEIGHT - TOP - BOTTOM;
  const slot = plotWidth / rows.length;
  const y = (v) => TOP + plotHeight - (v / top) * plotHeight;
  const cx = (i) => LEFT + slot * (i + 0.5);

  const chart = svg('svg', {
    width,
    height: HEIGHT,
    viewBox: `0 0 ${width} ${HEIGHT}`,
    role: 'img',
    'aria-label': `Bytes freed per snapshot and in total, up to ${formatBytes(max)}`,
  });
  for (let v = 0; v <= top; v += step) {
    chart.append(
      svg('line', { x1: LEFT, x2: width - RIGHT, y1: y(v), y2: y(v), class: 'grid' }),
      svg('text', { x: LEFT - 6, y: y(v) + 4, class: 'tick end' }, formatBytes(v)),
    );
  }
  const barWidth = Math.max(2, Math.min(48, slot * 0.6));
  rows.forEach((row, i) => {
    chart.append(
      svg(
        'rect',
        { x: cx(i) - barWidth / 2, y: y(row.marginal), width: barWidth, height: y(0) - y(row.marginal), class: 'bar' },
        svg('title', {}, `${row.label}: ${formatBytes(row.marginal)} after the ones before`),
      ),
    );
  });
  const points = rows.map((row, i) => `${cx(i)},${y(row.cumulative)}`).join(' ');
  chart.append(svg('polyline', { points, class: 'line' }));
  rows.forEach((row, i) =>
    chart.append(
      svg('circle', { cx: cx(i), cy: y(row.cumulative), r: 3.5, class: 'point' },
        svg('title', {}, `${row.label}: ${formatBytes(row.cumulative)} up to here`)),
    ),
  );
  // Dates of the first and last snapshot, and of a few between when they fit.
  const labels = Math.max(2, Math.floor(plotWidth / 110));
  const every = Math.max(1, Math.ceil(rows.length / labels));
  rows.forEach((row, i) => {
    if (i % every !== 0 && i !== rows.length - 1) return;
    if (i !== rows.length - 1 && rows.length - 1 - i < every) return;
    chart.append(svg('text', { x: cx(i), y: HEIGHT - 12, class: 'tick middle' }, row.label));
  });
  container.append(chart);
}
