// The report as a chart: a bar per snapshot for what deleting it frees
// after the older ones, and a line for what deleting it with every older
// one frees. Ticked snapshots stand out; deleted ones are hollow.

import { svg } from './dom.js';
import { formatAxisTime, formatBytes } from './format.js';

const HEIGHT = 240;
const LEFT = 70;
const RIGHT = 14;
const TOP = 12;
const BOTTOM = 34;

// A round step for about `count` ticks up to `max`.
function tickStep(max, count) {
  const raw = max / count;
  const power = 1024 ** Math.max(0, Math.floor(Math.log(raw) / Math.log(1024)));
  const nice = [1, 2, 4, 5, 8, 10, 16, 20, 32, 50, 64, 100, 128, 256, 512, 1024].find((n) => n >= raw / power) ?? 1024;
  return nice * power;
}

// rows: [{time, marginal, cumulative, ticked, deleted}], oldest first.
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
  const first = rows[0].time;
  const last = rows[rows.length - 1].time;

  const chart = svg('svg', {
    width,
    height: HEIGHT,
    viewBox: `0 0 ${width} ${HEIGHT}`,
    role: 'img',
    'aria-label': `Chart of ${rows.length} snapshots: deleting all of them frees ${formatBytes(rows[rows.length - 1].cumulative)}`,
  });
  for (let v = 0; v <= top; v += step) {
    chart.append(
      svg('line', { x1: LEFT, x2: width - RIGHT, y1: y(v), y2: y(v), class: 'grid' }),
      svg('text', { x: LEFT - 6, y: y(v) + 4, class: 'tick end' }, formatBytes(v)),
    );
  }
  const barWidth = Math.max(1, Math.min(40, slot * 0.7));
  rows.forEach((row, i) => {
    const kind = row.deleted ? 'bar deleted' : row.ticked ? 'bar ticked' : 'bar';
    chart.append(svg('rect', {
      x: cx(i) - barWidth / 2, y: y(row.marginal), width: barWidth, height: y(0) - y(row.marginal), class: kind,
    }));
  });
  chart.append(svg('polyline', { points: rows.map((row, i) => `${cx(i)},${y(row.cumulative)}`).join(' '), class: 'line' }));
  // The first and last snapshot's dates, and a few between when they fit.
  const labels = Math.max(2, Math.floor(plotWidth / 120));
  const every = Math.max(1, Math.ceil(rows.length / labels));
  rows.forEach((row, i) => {
    const lastOne = i === rows.length - 1;
    if ((i % every !== 0 && !lastOne) || (!lastOne && rows.length - 1 - i < every)) return;
    const anchor = rows.length === 1 ? 'middle' : i === 0 ? 'start' : lastOne ? 'end' : 'middle';
    const x = anchor === 'start' ? cx(i) - barWidth / 2 : anchor === 'end' ? cx(i) + barWidth / 2 : cx(i);
    chart.append(svg('text', { x, y: HEIGHT - 12, class: `tick ${anchor}` }, formatAxisTime(row.time, first, last)));
  });
  container.append(chart);
}
