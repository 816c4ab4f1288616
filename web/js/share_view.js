// One share: its volume's space, its snapshots, the range to calculate, the
// calculation from start to report, what deleting any of the snapshots
// frees, a plan, and deleting them. The page follows the share's real state
// on the server, so that every open tab shows the same calculation.

import { ApiError, deleteSnapshots, listSnapshots, listVolumes, usage } from './api.js';
import { calculationKey, emptyCalculation, getCalculation } from './calculation.js';
import { confirmAction } from './confirm_dialog.js';
import { announce, byId, drawOnResize, el, isFocusLost, setShown } from './dom.js';
import { formatBytes, formatExactBytes, formatTime, plural } from './format.js';
import { PlanPanel } from './plan_panel.js';
import { SnapshotTable, timeOfName } from './snapshot_table.js';
import { drawUsageChart } from './usage_chart.js';
import { WhatIf } from './what_if.js';

const FOLLOW_RUNNING_MS = 1000;
const FOLLOW_IDLE_MS = 3000;
const RELIST_EVERY_POLLS = 4;
// An open tab nobody uses stops asking after this long, so that sessions
// still end when idle; any key or click resumes.
const FOLLOW_UNATTENDED_MS = 10 * 60 * 1000;
const RUNNING = new Set(['ready', 'process']);

function volumeText(volume) {
  if (!volume) return '';
  return `Volume ${volume.volume} (${volume.path}): ${formatBytes(volume.free_bytes)} free of ${formatBytes(volume.size_bytes)}`;
}

export class ShareView {
  // onFailure(error) handles what the view cannot (an ended session);
  // onStateChange() after a calculation of the share started or ended;
  // onUrl(state) when the range or the ticks change.
  constructor({ onFailure, onStateChange, onUrl }) {
    this.onFailure = onFailure;
    this.onStateChange = onStateChange;
    this.onUrl = onUrl;
    this.share = null;
    this.snapshots = [];
    this.volume = null;
    this.calc = emptyCalculation();
    this.key = '';
    this.listKey = '';
    this.pendingTicks = [];
    this.sequence = 0;
    this.polls = 0;
    this.timer = null;
    this.paused = false;
    this.lastInput = Date.now();
    this.table = new SnapshotTable(() => this.ticksChanged());
    this.whatIf = new WhatIf((error) => this.fail(error), () => this.deleteTicked());
    this.plan = new PlanPanel((ids) => this.table.setTicks(ids), (error) => this.fail(error));
    byId('range-from').addEventListener('change', () => this.rangeChanged());
    byId('range-to').addEventListener('change', () => this.rangeChanged());
    byId('start').addEventListener('click', () => this.start());
    byId('cancel').addEventListener('click', () => this.cancel());
    byId('recalc').addEventListener('click', () => this.recalculate());
    byId('forget').addEventListener('click', () => this.forget());
    byId('tick-oldest').addEventListener('click', () => this.tickOldest());
    byId('tick-none').addEventListener('click', () => this.table.setTicks([]));
    drawOnResize(byId('chart'), () => this.drawChart());
    for (const kind of ['keydown', 'pointerdown']) {
      document.addEventListener(kind, () => {
        this.lastInput = Date.now();
        if (this.paused && this.share) this.refresh();
      });
    }
    document.addEventListener('visibilitychange', () => {
      if (!document.hidden && this.share) this.refresh({ relist: true });
    });
  }

  // Opens `share` (an entry of the share list) with the range and ticks of
  // `wanted` ({from, to, ticks}: subvolume IDs), when they still apply.
  async open(share, wanted, { focus = true } = {}) {
    this.stopFollowing();
    this.share = share;
    this.snapshots = [];
    this.calc = emptyCalculation();
    this.key = '';
    this.listKey = '';
    this.pendingTicks = wanted.ticks;
    this.wantedRange = wanted;
    this.table.ticks.clear();
    byId('range-from').replaceChildren();
    byId('range-to').replaceChildren();
    byId('share-panel').hidden = false;
    byId('share-title').textContent = `Share ${share.name}`;
    byId('share-meta').textContent = '';
    this.showError('');
    byId('action-result').textContent = '';
    this.render();
    if (focus) byId('share-title').focus();
    await this.refresh({ relist: true });
  }

  close() {
    this.stopFollowing();
    this.share = null;
    byId('share-panel').hidden = true;
  }

  // The range and ticks of an address the user went Back or Forward to.
  applyUrl(wanted) {
    this.wantedRange = wanted;
    this.fillRange();
    this.renderNotices();
    this.table.setTicks(wanted.ticks);
  }

  stopFollowing() {
    clearTimeout(this.timer);
    this.timer = null;
  }

  follow() {
    this.stopFollowing();
    const running = RUNNING.has(this.calc.state);
    this.paused = !running && (document.hidden || Date.now() - this.lastInput > FOLLOW_UNATTENDED_MS);
    if (this.paused) return;
    this.timer = setTimeout(() => this.refresh(), running ? FOLLOW_RUNNING_MS : FOLLOW_IDLE_MS);
  }

  // Asks where the share's calculation stands (and now and then, or when
  // told, lists its snapshots and its volume's space again), and draws
  // what changed. An answer overtaken by a later question is dropped.
  async refresh({ relist = false } = {}) {
    const share = this.share;
    const asked = ++this.sequence;
    this.stopFollowing();
    this.polls += 1;
    const listing = relist || this.polls % RELIST_EVERY_POLLS === 0;
    try {
      const [calc, snapshots, volumes] = await Promise.all([
        getCalculation(share.name),
        listing ? listSnapshots(share.name) : null,
        listing ? listVolumes() : null,
      ]);
      if (this.share !== share || asked !== this.sequence) return;
      if (snapshots) this.snapshots = snapshots;
      if (volumes) this.volume = volumes.find((v) => v.volume === share.volume) ?? null;
      if (this.askFailed) this.showError('');
      this.askFailed = false;
      this.update(calc);
    } catch (error) {
      if (this.share !== share || asked !== this.sequence) return;
      // Said until an answer comes again.
      this.askFailed = true;
      this.fail(error);
    } finally {
      if (this.share === share && asked === this.sequence) this.follow();
    }
  }

  update(calc) {
    const before = this.calc.state;
    const key = calculationKey(calc);
    const listKey = this.snapshots.map((s) => `${s.subvol_id}:${s.name}`).join(',');
    const changed = key !== this.key;
    this.calc = calc;
    if (!changed && listKey === this.listKey) {
      this.renderProgress();
      return;
    }
    this.key = key;
    this.listKey = listKey;
    if (changed) this.plan.reset(this.share.name, this.coveredRows());
    this.render();
    if (changed && before !== calc.state) this.announceState(before);
  }

  announceState(before) {
    const { state } = this.calc;
    if (RUNNING.has(state) && !RUNNING.has(before)) announce('A calculation of this share is running.');
    else if (state === 'done') announce(`The calculation is done: a report of ${plural(this.calc.rows.length, 'snapshot')}.`);
    else if (state === 'stop') announce('The calculation was cancelled.');
    else if (state === 'fail') announce(`The calculation failed: ${this.failureText()}`);
    if (before !== '' || state !== '') this.onStateChange();
  }

  // The report's rows with the time of each (from the listing, or its name
  // when the snapshot is gone).
  coveredRows() {
    const times = new Map(this.snapshots.map((s) => [s.subvol_id, s.time]));
    return this.calc.rows.map((row) => ({ ...row, time: times.get(row.subvolId) ?? timeOfName(row.name) }));
  }

  render() {
    byId('share-meta').textContent = [volumeText(this.volume), this.share && plural(this.snapshots.length, 'snapshot')]
      .filter(Boolean).join(' · ');
    this.fillRange();
    this.renderProgress();
    this.renderReport();
  }

  // ----- the range to calculate

  fillRange() {
    const from = byId('range-from');
    const to = byId('range-to');
    const ids = new Set(this.snapshots.map((s) => s.subvol_id));
    const pick = (wanted, current, fallback) =>
      [wanted, current, fallback].find((id) => id && ids.has(id)) ?? 0;
    const [first, last] = this.defaultRange();
    const fromId = pick(this.wantedRange?.from, Number(from.value), first);
    const toId = pick(this.wantedRange?.to, Number(to.value), last);
    this.wantedRange = null;
    for (const [select, chosen] of [[from, fromId], [to, toId]]) {
      select.replaceChildren(...this.snapshots.map((s) =>
        el('option', { value: s.subvol_id }, `${formatTime(s.time)} · ${s.tool}`)));
      select.value = String(chosen);
    }
    this.describeRange();
  }

  // The report's range when there is one, else every snapshot.
  defaultRange() {
    const list = this.snapshots;
    if (!list.length) return [0, 0];
    const { rangeStart, rangeEnd } = this.calc;
    const inside = rangeStart === null ? [] : list.filter((s) => s.time >= rangeStart && s.time <= rangeEnd);
    const span = inside.length ? inside : list;
    return [span[0].subvol_id, span[span.length - 1].subvol_id];
  }

  // The snapshots a calculation of the chosen range covers: every one
  // taken from the first's second to the last's.
  chosen() {
    const byIdNow = new Map(this.snapshots.map((s) => [s.subvol_id, s]));
    const first = byIdNow.get(Number(byId('range-from').value));
    const last = byIdNow.get(Number(byId('range-to').value));
    if (!first || !last || last.time < first.time) return [];
    return this.snapshots.filter((s) => s.time >= first.time && s.time <= last.time);
  }

  describeRange() {
    const chosen = this.chosen();
    const summary = byId('range-summary');
    if (!this.snapshots.length) summary.textContent = 'This share has no snapshot yet.';
    else if (!chosen.length) summary.textContent = 'The last snapshot lies before the first: choose them the other way round.';
    else summary.textContent = `${plural(chosen.length, 'snapshot')} to calculate.`;
    byId('start').disabled = chosen.length === 0;
  }

  rangeChanged() {
    this.describeRange();
    this.renderNotices();
    this.saveUrl();
  }

  saveUrl() {
    this.onUrl({
      share: this.share.name,
      from: Number(byId('range-from').value) || 0,
      to: Number(byId('range-to').value) || 0,
      ticks: this.table.tickedIds(),
    });
  }

  // The range sent for the chosen snapshots. Equal bounds would mean
  // "every snapshot" to the module, so one snapshot alone gets a one-second
  // range that holds no other.
  rangeFor(chosen) {
    const first = chosen[0].time;
    const last = chosen[chosen.length - 1].time;
    if (first !== last) return { range_start: first, range_end: last };
    const taken = new Set(this.snapshots.map((s) => s.time));
    if (!taken.has(first + 1)) return { range_start: first, range_end: first + 1 };
    if (!taken.has(first - 1)) return { range_start: first - 1, range_end: first };
    return null;
  }

  // ----- the calculation

  failureText() {
    return this.calc.reason || 'the server did not say why.';
  }

  stateText() {
    const { state, rangeStart, rangeEnd, endTime } = this.calc;
    const over = rangeStart === null ? '' : ` over ${formatTime(rangeStart)} to ${formatTime(rangeEnd)}`;
    const at = endTime === null ? '' : `, at ${formatTime(endTime)}`;
    if (state === 'stop') return `The calculation${over} was cancelled${at}. It left no report.`;
    if (state === 'fail') return `The calculation${over} failed${at}: ${this.failureText()}`;
    return '';
  }

  renderProgress() {
    const { state, processed, estimated, startTime } = this.calc;
    const running = RUNNING.has(state);
    // The one shown first, so that the focus can move to it.
    const [shown, gone] = running ? ['cancel', 'start'] : ['start', 'cancel'];
    setShown(byId(shown), true);
    setShown(byId(gone), false, byId(shown));
    byId('progress-box').hidden = !running;
    byId('calc-state').textContent = running ? '' : this.stateText();
    byId('calc-state').classList.toggle('failed', state === 'fail');
    if (!running) return;
    const bar = byId('progress');
    const since = startTime === null ? '' : `, since ${formatTime(startTime)}`;
    if (estimated > 0) {
      const percent = Math.min(100, Math.floor((processed / estimated) * 100));
      bar.value = percent;
      byId('progress-text').textContent =
        `Calculating: ${percent} % (${formatBytes(processed)} of about ${formatBytes(estimated)} examined${since}).`;
    } else {
      bar.removeAttribute('value');
      byId('progress-text').textContent = `Calculating: starting${since}.`;
    }
  }

  async start(chosen = this.chosen()) {
    if (!chosen.length) return;
    const range = this.rangeFor(chosen);
    if (!range) {
      this.showError('That snapshot cannot be calculated alone: others were taken within a second of it.');
      return;
    }
    this.showError('');
    byId('action-result').textContent = '';
    try {
      await usage('start', { share_name: this.share.name, range });
      announce('The calculation started.');
      byId('cancel').hidden = false;
      byId('cancel').focus();
    } catch (error) {
      if (error instanceof ApiError && error.code === 5002) {
        this.showError('A calculation of this share is already running, started elsewhere: it is shown here.');
      } else {
        this.fail(error);
      }
    }
    await this.refresh();
  }

  async cancel() {
    try {
      await usage('cancel', { share_name: this.share.name });
    } catch (error) {
      if (!(error instanceof ApiError && error.code === 8)) this.fail(error);
    }
    await this.refresh();
  }

  async recalculate() {
    const { rangeStart, rangeEnd } = this.calc;
    const inside = this.snapshots.filter((s) => s.time >= rangeStart && s.time <= rangeEnd);
    if (inside.length) {
      byId('range-from').value = String(inside[0].subvol_id);
      byId('range-to').value = String(inside[inside.length - 1].subvol_id);
      this.rangeChanged();
    }
    await this.start(inside.length ? inside : this.chosen());
  }

  async forget() {
    const { rangeStart, rangeEnd, rows } = this.calc;
    const forget = await confirmAction({
      title: 'Forget this report?',
      body: [el('p', {}, `The figures of the calculation over ${formatTime(rangeStart)} to ${formatTime(rangeEnd)} ` +
        `(${plural(rows.length, 'snapshot')}) are removed from the server. The snapshots themselves stay.`)],
      confirm: 'Forget the report',
      keep: 'Keep it',
    });
    if (!forget) return;
    try {
      await usage('clean', { share_name: this.share.name });
      byId('action-result').textContent = 'The report is forgotten; the snapshots are all still there.';
      announce('The report is forgotten.');
    } catch (error) {
      this.fail(error);
    }
    await this.refresh();
    if (isFocusLost() || byId('report').hidden) byId('start').focus();
  }

  // ----- the report

  renderReport() {
    const done = this.calc.state === 'done';
    const rows = done ? this.coveredRows() : [];
    const listed = new Set(this.snapshots.map((s) => s.subvol_id));
    this.deletedSince = rows.filter((row) => !listed.has(row.subvolId)).length;
    setShown(byId('report'), done, byId('start'));
    const tickable = done && this.deletedSince === 0;
    this.table.show(this.snapshots, rows, tickable);
    for (const id of ['tick-tools', 'whatif', 'plan']) byId(id).hidden = !tickable;
    if (tickable && this.pendingTicks.length) {
      this.table.setTicks(this.pendingTicks);
      this.pendingTicks = [];
    } else if (!tickable) {
      this.whatIf.update(this.share?.name, []);
    }
    if (done) {
      const { rangeStart, rangeEnd, endTime } = this.calc;
      byId('report-about').textContent = `Calculated over ${formatTime(rangeStart)} to ${formatTime(rangeEnd)}: ` +
        `${plural(rows.length, 'snapshot')}, ended ${endTime === null ? 'at an unknown time' : formatTime(endTime)}.`;
      byId('oldest-n').max = String(this.table.tickableRows().length);
    }
    this.renderNotices();
    this.drawChart();
    if (isFocusLost() && !byId('share-panel').hidden) byId('share-title').focus();
  }

  // What makes the report less than the whole truth now: snapshots deleted
  // or taken since, or a range chosen that it does not cover.
  renderNotices() {
    const notes = [];
    if (this.calc.state === 'done') {
      const covered = new Set(this.calc.rows.map((row) => row.subvolId));
      const taken = this.snapshots.filter((s) => !covered.has(s.subvol_id) && s.time >= (this.calc.startTime ?? Infinity));
      if (this.deletedSince) {
        notes.push(`${plural(this.deletedSince, 'snapshot')} of this report ${this.deletedSince === 1 ? 'was' : 'were'} ` +
          'deleted since (marked below): what deleting the others frees may have grown. Calculate again before ' +
          'choosing more to delete.');
      }
      if (taken.length) {
        notes.push(`${plural(taken.length, 'snapshot')} ${taken.length === 1 ? 'was' : 'were'} taken since this ` +
          'report: it does not cover them.');
      }
      const chosen = this.chosen().map((s) => s.subvol_id);
      const stillCovered = [...covered].filter((id) => this.snapshots.some((s) => s.subvol_id === id));
      const same = chosen.length === stillCovered.length && chosen.every((id) => covered.has(id));
      if (!same) notes.push('The range chosen above is not the one of this report: calculate to see its figures.');
    }
    byId('report-stale').replaceChildren(...notes.map((text) => el('p', {}, text)));
    byId('report-stale').hidden = notes.length === 0;
    byId('recalc').hidden = this.deletedSince === 0;
  }

  drawChart() {
    const chart = byId('chart');
    const ticked = new Set(this.table.tickedIds());
    const listed = new Set(this.snapshots.map((s) => s.subvol_id));
    let before = 0;
    const rows = this.calc.state !== 'done' ? [] : this.table.rows.filter((row) => row.figures).map((row) => {
      const marginal = row.figures.accum - before;
      before = row.figures.accum;
      return { time: row.time, marginal, cumulative: row.figures.accum, ticked: ticked.has(row.subvolId),
        deleted: !listed.has(row.subvolId) };
    });
    drawUsageChart(chart, rows, chart.clientWidth);
  }

  // ----- what if, and deleting

  ticksChanged() {
    this.whatIf.update(this.share.name, this.table.tickedRows());
    this.drawChart();
    this.saveUrl();
  }

  tickOldest() {
    const count = Number(byId('oldest-n').value || 0);
    if (!Number.isInteger(count) || count < 1) {
      this.showError('Give how many of the oldest snapshots to tick: a whole number, 1 or more.');
      return;
    }
    this.showError('');
    this.table.tickOldest(count);
  }

  async deleteTicked() {
    const answer = await this.whatIf.current();
    if (!answer) return;
    const byIdNow = new Map(this.snapshots.map((s) => [s.subvol_id, s]));
    const doomed = answer.rows.map((row) => byIdNow.get(row.subvolId)).filter(Boolean);
    const count = plural(doomed.length, 'snapshot');
    const yes = await confirmAction({
      title: `Delete ${count}?`,
      body: [
        el('p', {}, `Deleting ${doomed.length === 1 ? 'it' : 'them'} frees ${formatBytes(answer.freed)} ` +
          `(${formatExactBytes(answer.freed)}) on volume ${this.share.volume}, as the file system cleans up. ` +
          'This cannot be undone.'),
        el('ul', { class: 'doomed' }, doomed.map((s) =>
          el('li', {}, el('span', { class: 'time' }, formatTime(s.time)), ` · ${s.tool} · `,
            el('span', { class: 'path' }, s.path)))),
      ],
      confirm: `Delete ${count}`,
      keep: 'Keep them',
    });
    if (!yes) return;
    let text = null;
    try {
      const results = await deleteSnapshots(this.share.name, doomed);
      const deleted = results.filter((r) => r.deleted).length;
      const refused = results.filter((r) => !r.deleted);
      text = [`Deleted ${plural(deleted, 'snapshot')}.`,
        deleted ? 'The file system gives their space back in the background, within a minute or so.' : '',
        ...refused.map((r) => `Not deleted: ${r.name}, as ${r.message}.`)].filter(Boolean).join(' ');
    } catch (error) {
      this.fail(error);
    }
    await this.refresh({ relist: true });
    this.onStateChange();
    (byId('recalc').hidden ? byId('report-heading') : byId('recalc')).focus();
    // Told only once the table shows them deleted: the words and the
    // rows never disagree, not even for a moment.
    if (text !== null) {
      byId('action-result').textContent = text;
      announce(text);
    }
  }

  // ----- errors

  showError(text) {
    byId('share-error').textContent = text;
  }

  fail(error) {
    if (!(error instanceof ApiError)) throw error;
    if (!this.onFailure(error)) this.showError(error.message);
  }
}
