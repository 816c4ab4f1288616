// One share: its snapshots, the range to weigh, and the calculation from
// start to report, with cancel and clean-up.

import { ApiError, describeError, listSnapshots, usage } from './api.js';
import { byId, clear, drawOnResize, el } from './dom.js';
import { formatAxisTime, formatBytes, formatClock, formatDay } from './format.js';
import { RangePicker } from './range_picker.js';
import { drawUsageChart } from './usage_chart.js';

const POLL_MS = 1000;
const START_GRACE_POLLS = 3;
const PROGRESS_FIELDS = ['processed_in_bytes', 'estimated_in_bytes'];

const STATE_WORDS = {
  process: 'Calculating…',
  done: 'Done.',
  stop: 'The calculation was cancelled.',
  fail: 'The calculation ended without a report: it failed.',
};

export class ShareView {
  // onSessionEnded is called when an answer says the session is over;
  // onChange after a calculation started, ended or was cleaned up.
  constructor(onSessionEnded, onChange) {
    this.onSessionEnded = onSessionEnded;
    this.onChange = onChange;
    this.share = null;
    this.snapshots = [];
    this.rows = [];
    this.timer = null;
    this.picker = new RangePicker(() => this.updateButtons());
    this.state = '';
    this.startedHere = false;
    this.cancelled = false;
    byId('start').addEventListener('click', () => this.start());
    byId('cancel').addEventListener('click', () => this.cancel());
    byId('clean').addEventListener('click', () => this.clean());
    drawOnResize(byId('chart'), (width) => drawUsageChart(byId('chart'), this.rows, width));
  }

  async open(share) {
    this.stopPolling();
    this.share = share;
    byId('share-panel').hidden = false;
    byId('share-title').textContent = `Share ${share.name} on volume ${share.volume}`;
    this.showError('');
    this.showReport(null);
    this.setState('');
    this.startedHere = false;
    this.cancelled = false;
    try {
      const data = await listSnapshots(share.name);
      if (this.share !== share) return;
      this.snapshots = data.snapshots;
      this.picker.setSnapshots(this.snapshots);
      await this.refresh();
    } catch (error) {
      this.fail(error);
    }
  }

  close() {
    this.stopPolling();
    this.share = null;
    byId('share-panel').hidden = true;
  }

  // Where the share's calculation stands. "status" lists the running and
  // finished ones; a calculation that was cancelled or failed has no entry
  // there and no report.
  async refresh() {
    const share = this.share;
    const entry = await this.statusEntry();
    if (this.share !== share) return;
    if (entry?.status === 'process') {
      this.setState('process');
      this.showProgress(entry.processed_in_bytes ?? 0, entry.estimated_in_bytes ?? 0);
      this.poll();
    } else if (entry?.status === 'done') {
      const report = await usage('get_report', { share_name: share.name });
      if (this.share !== share) return;
      this.setState('done');
      this.showReport(report);
    } else if (this.startedHere && !this.cancelled && this.graceLeft > 0) {
      // Just started: the calculation may not be under way yet.
      this.graceLeft -= 1;
      this.poll();
    } else {
      this.setState(this.startedHere ? (this.cancelled ? 'stop' : 'fail') : '');
    }
  }

  async statusEntry() {
    const status = await usage('status', { additional: PROGRESS_FIELDS });
    return status?.share_list?.find((s) => s.share_name === this.share.name);
  }

  setState(state) {
    this.state = state;
    byId('share-state').textContent = STATE_WORDS[state] ?? '';
    byId('progress-box').hidden = state !== 'process';
    byId('cancel').hidden = state !== 'process';
    byId('clean').hidden = !['done', 'stop', 'fail'].includes(state);
    this.updateButtons();
  }

  updateButtons() {
    byId('start').disabled = this.state === 'process' || this.picker.selected().length === 0;
  }

  // The range sent for the chosen snapshots. Equal bounds would mean "every
  // snapshot" to the module, so one snapshot alone gets a one-second range
  // that holds no other.
  rangeFor(chosen) {
    const first = chosen[0].time;
    const last = chosen[chosen.length - 1].time;
    if (first !== last) return { range_start: first, range_end: last };
    const taken = new Set(this.snapshots.map((s) => s.time));
    if (!taken.has(first + 1)) return { range_start: first, range_end: first + 1 };
    if (!taken.has(first - 1)) return { range_start: first - 1, range_end: first };
    return null;
  }

  async start() {
    const chosen = this.picker.selected();
    if (!chosen.length) return;
    const range = this.rangeFor(chosen);
    if (!range) {
      this.showError('That snapshot cannot be weighed alone: others were taken within a second of it.');
      return;
    }
    this.showError('');
    this.showReport(null);
    try {
      await usage('start', { share_name: this.share.name, range });
      this.startedHere = true;
      this.cancelled = false;
      this.graceLeft = START_GRACE_POLLS;
      this.setState('process');
      this.showProgress(0, 0);
      this.onChange();
      this.poll();
    } catch (error) {
      this.fail(error);
    }
  }

  async cancel() {
    try {
      await usage('cancel', { share_name: this.share.name });
      this.cancelled = true;
    } catch (error) {
      if (error.code === 8) this.showError('No calculation of this share is running.');
      else this.fail(error);
    }
  }

  async clean() {
    try {
      await usage('clean', { share_name: this.share.name });
      this.showReport(null);
      this.setState('');
      byId('share-state').textContent = 'The calculation and its report are cleaned up.';
      this.onChange();
    } catch (error) {
      this.fail(error);
    }
  }

  poll() {
    this.stopPolling();
    this.timer = setTimeout(() => this.pollOnce(), POLL_MS);
  }

  stopPolling() {
    clearTimeout(this.timer);
    this.timer = null;
  }

  async pollOnce() {
    try {
      await this.refresh();
      if (this.state !== 'process') this.onChange();
    } catch (error) {
      this.fail(error);
    }
  }

  showProgress(processed, estimated) {
    const bar = byId('progress');
    const text = byId('progress-text');
    if (estimated > 0) {
      bar.value = Math.min(1, processed / estimated);
      text.textContent = `${formatBytes(processed)} of about ${formatBytes(estimated)} examined`;
    } else {
      bar.removeAttribute('value');
      text.textContent = 'Starting…';
    }
  }

  showReport(report) {
    const box = byId('report');
    const body = byId('report-table').tBodies[0];
    clear(body);
    this.rows = [];
    box.hidden = !report;
    if (!report) return;
    const byName = new Map(this.snapshots.map((s) => [s.name, s]));
    const times = report.snap_list.map((entry) => byName.get(entry.time)?.time).filter((t) => t !== undefined);
    const span = times.length ? Math.max(...times) - Math.min(...times) : 0;
    let before = 0;
    for (const entry of report.snap_list) {
      const time = byName.get(entry.time)?.time;
      const marginal = entry.accum_usage - before;
      before = entry.accum_usage;
      this.rows.push({
        label: time === undefined ? entry.time : formatAxisTime(time, span),
        marginal,
        cumulative: entry.accum_usage,
      });
      body.append(
        el(
          'tr',
          {},
          el('td', {}, time === undefined ? entry.time : [
            el('span', { class: 'day' }, formatDay(time)), ' ',
            el('span', { class: 'day' }, formatClock(time)),
          ]),
          el('td', { class: 'number' }, entry.subvol_id),
          el('td', { class: 'number', title: `${marginal} bytes` }, formatBytes(marginal)),
          el('td', { class: 'number', title: `${entry.accum_usage} bytes` }, formatBytes(entry.accum_usage)),
        ),
      );
    }
    const chart = byId('chart');
    drawUsageChart(chart, this.rows, chart.clientWidth);
  }

  showError(text) {
    byId('share-error').textContent = text;
  }

  fail(error) {
    if (error instanceof ApiError && error.code === 105) {
      this.onSessionEnded();
      return;
    }
    this.showError(error instanceof ApiError ? error.message : describeError(0));
  }
}
