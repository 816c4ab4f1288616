// Choosing a range of a share's snapshots: on a timeline (a click on the
// first snapshot, then one on the last) or with two dates. The range is
// inclusive at both ends.

import { byId, clear, drawOnResize, svg } from './dom.js';
import { formatAxisTime, formatTime, fromInputValue, toInputValue } from './format.js';

const HEIGHT = 84;
const PAD = 18;
const AXIS_Y = 46;

export class RangePicker {
  constructor(onChange) {
    this.timeline = byId('timeline');
    this.fromInput = byId('range-from');
    this.toInput = byId('range-to');
    this.summary = byId('range-summary');
    this.onChange = onChange;
    this.snapshots = [];
    this.from = NaN;
    this.to = NaN;
    this.awaitingLast = false;
    this.width = 0;
    drawOnResize(this.timeline, (width) => {
      this.width = width;
      this.draw();
    });
    this.fromInput.addEventListener('change', () => this.setRange(fromInputValue(this.fromInput.value), this.to));
    this.toInput.addEventListener('change', () => this.setRange(this.from, fromInputValue(this.toInput.value)));
  }

  // Snapshots oldest first, each {name, time, subvol_id}; all are selected.
  setSnapshots(snapshots) {
    this.snapshots = snapshots;
    this.awaitingLast = false;
    const times = snapshots.map((s) => s.time);
    this.setRange(times.length ? times[0] : NaN, times.length ? times[times.length - 1] : NaN);
  }

  setRange(from, to) {
    this.from = from;
    this.to = to;
    this.fromInput.value = Number.isNaN(from) ? '' : toInputValue(from);
    this.toInput.value = Number.isNaN(to) ? '' : toInputValue(to);
    this.draw();
    this.describe();
    this.onChange();
  }

  // The chosen snapshots, oldest first; empty when the range is not usable.
  selected() {
    if (!this.valid()) return [];
    return this.snapshots.filter((s) => s.time >= this.from && s.time <= this.to);
  }

  valid() {
    return !Number.isNaN(this.from) && !Number.isNaN(this.to) && this.from <= this.to;
  }

  describe() {
    const chosen = this.selected();
    if (!this.snapshots.length) this.summary.textContent = 'This share has no snapshot yet.';
    else if (Number.isNaN(this.from) || Number.isNaN(this.to)) this.summary.textContent = 'Give both dates.';
    else if (this.from > this.to) this.summary.textContent = 'The end of the range lies before its start.';
    else if (!chosen.length) this.summary.textContent = 'No snapshot lies in this range.';
    else {
      const first = chosen[0];
      const last = chosen[chosen.length - 1];
      this.summary.textContent =
        chosen.length === 1
          ? `1 snapshot chosen: ${formatTime(first.time)}.`
          : `${chosen.length} snapshots chosen, from ${formatTime(first.time)} to ${formatTime(last.time)}.`;
    }
    if (this.awaitingLast) this.summary.textContent += ' Now click the last snapshot of the range.';
  }

  pick(snapshot) {
    if (this.awaitingLast) {
      this.awaitingLast = false;
      const first = this.from;
      this.setRange(Math.min(first, snapshot.time), Math.max(first, snapshot.time));
    } else {
      this.awaitingLast = true;
      this.setRange(snapshot.time, snapshot.time);
    }
  }

  draw() {
    clear(this.timeline);
    const width = this.width;
    if (!width || !this.snapshots.length) return;
    const first = this.snapshots[0].time;
    const last = this.snapshots[this.snapshots.length - 1].time;
    const span = Math.max(last - first, 1);
    const x = (t) => (this.snapshots.length === 1 ? width / 2 : PAD + ((t - first) / span) * (width - 2 * PAD));
    const chart = svg('svg', {
      width,
      height: HEIGHT,
      viewBox: `0 0 ${width} ${HEIGHT}`,
      role: 'group',
      'aria-label': 'Snapshots on a timeline',
    });
    chart.append(svg('line', { x1: PAD, x2: width - PAD, y1: AXIS_Y, y2: AXIS_Y, class: 'axis' }));
    if (this.valid()) {
      const left = x(Math.max(this.from, first));
      const right = x(Math.min(this.to, last));
      if (right >= left) {
        chart.append(svg('rect', { x: left - 8, y: AXIS_Y - 16, width: right - left + 16, height: 32, rx: 8, class: 'band' }));
      }
    }
    chart.append(
      svg('text', { x: PAD, y: HEIGHT - 6, class: 'tick' }, formatAxisTime(first, span)),
      svg('text', { x: width - PAD, y: HEIGHT - 6, class: 'tick end' }, formatAxisTime(last, span)),
    );
    const chosen = new Set(this.selected().map((s) => s.name));
    for (const snapshot of this.snapshots) {
      const dot = svg(
        'circle',
        {
          cx: x(snapshot.time),
          cy: AXIS_Y,
          r: 7,
          tabindex: 0,
          role: 'button',
          class: chosen.has(snapshot.name) ? 'dot chosen' : 'dot',
          'data-name': snapshot.name,
          'aria-label': `Snapshot of ${formatTime(snapshot.time)}`,
          onclick: () => this.pick(snapshot),
          onkeydown: (event) => {
            if (event.key === 'Enter' || event.key === ' ') {
              event.preventDefault();
              this.pick(snapshot);
            }
          },
        },
        svg('title', {}, `${formatTime(snapshot.time)} (subvolume ${snapshot.subvol_id})`),
      );
      chart.append(dot);
    }
    this.timeline.append(chart);
  }
}
