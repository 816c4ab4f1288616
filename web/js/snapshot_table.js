// The share's snapshots in one table, oldest first: every snapshot there is
// now and every one the report covers, with what the report says each
// frees. Snapshots the report covers and that are still there can be
// ticked: a click (anywhere on the row), a shift-click for the run from the
// last one clicked, or the keyboard: arrows move, Space ticks, Shift+Space
// ticks the run, Shift+arrow ticks on the way. Only one check box is in the
// Tab order, so that Tab leaves a table of 200 snapshots at once.

import { byId, el } from './dom.js';
import { formatBytes, formatExactBytes, formatTime } from './format.js';

// "GMT-2026.01.05-10.00.01" (and "_ID" after it): the snapshot's time in
// UTC, as listings name snapshots; NaN for any other text.
export function timeOfName(name) {
  const m = /^GMT-(\d{4})\.(\d\d)\.(\d\d)-(\d\d)\.(\d\d)\.(\d\d)(_\d+)?$/.exec(name);
  return m ? Date.UTC(m[1], m[2] - 1, m[3], m[4], m[5], m[6]) / 1000 : NaN;
}

function figureCell(bytes, label) {
  if (bytes === undefined || bytes === null) return el('td', { class: 'number none', 'data-label': label }, '—');
  return el('td', { class: 'number', 'data-label': label, 'data-bytes': bytes, title: formatExactBytes(bytes) },
    formatBytes(bytes));
}

export class SnapshotTable {
  // onTicks(ids) after every change of the ticked set.
  constructor(onTicks) {
    this.table = byId('snapshot-table');
    this.body = this.table.tBodies[0];
    this.onTicks = onTicks;
    this.rows = [];
    this.byId = new Map();
    this.ticks = new Set();
    this.anchor = null;
    this.current = null;
    // Where each snapshot seen lay and which tool took it, for the rows of
    // snapshots deleted since.
    this.seen = new Map();
    this.body.addEventListener('mousedown', (event) => {
      if (event.shiftKey) event.preventDefault();  // no text selection on shift-click
    });
    this.body.addEventListener('click', (event) => this.clicked(event));
    this.body.addEventListener('keydown', (event) => this.keyed(event));
    // Shift+Space is a run, not a toggle: the box's own toggle comes on key up.
    this.body.addEventListener('keyup', (event) => {
      if (event.key === ' ' && event.shiftKey) event.preventDefault();
    });
  }

  // `snapshots`: the listing of now; `covered`: the report's rows (none
  // without a report); `tickable`: whether ticking makes sense now.
  show(snapshots, covered, tickable) {
    const focusedId = this.body.contains(document.activeElement) ? this.current : null;
    const now = new Map(snapshots.map((s) => [s.subvol_id, s]));
    for (const snapshot of snapshots) this.seen.set(snapshot.subvol_id, snapshot);
    const reported = new Map(covered.map((r) => [r.subvolId, r]));
    const ids = new Set([...now.keys(), ...reported.keys()]);
    this.rows = [...ids].map((id) => {
      const listed = now.get(id);
      const figures = reported.get(id);
      const known = listed ?? this.seen.get(id);
      const state = !listed ? 'deleted' : figures ? 'covered' : covered.length ? 'outside' : 'listed';
      return {
        subvolId: id,
        name: listed?.name ?? figures.name,
        time: listed?.time ?? timeOfName(figures.name),
        tool: known?.tool ?? '',
        path: known?.path ?? figures.path,
        figures,
        state,
        tickable: tickable && state === 'covered',
      };
    });
    this.rows.sort((a, b) => a.time - b.time || a.subvolId - b.subvolId);
    this.byId = new Map(this.rows.map((row) => [row.subvolId, row]));
    const kept = [...this.ticks].filter((id) => this.byId.get(id)?.tickable);
    const changed = kept.length !== this.ticks.size;
    this.ticks = new Set(kept);
    if (!this.byId.get(this.anchor)?.tickable) this.anchor = null;
    this.current = this.byId.get(this.current)?.tickable ? this.current : this.firstTickable()?.subvolId ?? null;
    this.body.replaceChildren(...this.rows.map((row) => this.buildRow(row)));
    this.table.classList.toggle('bare', !covered.length);
    if (focusedId !== null) this.focusRow(this.byId.get(focusedId)?.tickable ? focusedId : this.current);
    if (changed) this.onTicks(this.tickedIds());
  }

  buildRow(row) {
    const when = formatTime(row.time);
    const notes = { deleted: 'deleted since the calculation', outside: 'not in the report' };
    const box = row.tickable
      ? el('input', {
        type: 'checkbox',
        class: 'tick',
        'aria-label': `Snapshot of ${when}`,
        tabindex: row.subvolId === this.current ? 0 : -1,
        'data-id': row.subvolId,
      })
      : null;
    if (box) box.checked = this.ticks.has(row.subvolId);
    row.box = box;
    row.element = el(
      'tr',
      { class: `${row.state}${this.ticks.has(row.subvolId) ? ' ticked' : ''}`, 'data-id': row.subvolId },
      el('td', { class: 'tick-cell' }, box),
      el(
        'td',
        { class: 'when' },
        el('span', { class: 'time' }, when),
        row.tool ? el('span', { class: 'tool' }, row.tool) : null,
        notes[row.state] ? el('span', { class: `note ${row.state}` }, notes[row.state]) : null,
        el('span', { class: 'path' }, row.path),
      ),
      figureCell(row.figures?.alone, 'Alone'),
      figureCell(row.figures?.added, 'Added'),
      figureCell(row.figures?.accum, 'With older'),
    );
    return row.element;
  }

  firstTickable() {
    return this.rows.find((row) => row.tickable);
  }

  tickableRows() {
    return this.rows.filter((row) => row.tickable);
  }

  // The ticked snapshots, oldest first.
  tickedRows() {
    return this.rows.filter((row) => this.ticks.has(row.subvolId));
  }

  tickedIds() {
    return this.tickedRows().map((row) => row.subvolId);
  }

  // Ticks exactly these (those that can be).
  setTicks(ids) {
    const wanted = new Set(ids);
    this.apply(this.tickableRows().map((row) => [row, wanted.has(row.subvolId)]));
  }

  tickOldest(count) {
    this.setTicks(this.tickableRows().slice(0, count).map((row) => row.subvolId));
  }

  apply(changes) {
    for (const [row, ticked] of changes) {
      if (ticked) this.ticks.add(row.subvolId);
      else this.ticks.delete(row.subvolId);
      row.box.checked = ticked;
      row.element.classList.toggle('ticked', ticked);
    }
    this.onTicks(this.tickedIds());
  }

  // Every tickable row from the anchor to `row` gets `ticked`.
  tickRun(row, ticked) {
    const list = this.tickableRows();
    const from = list.findIndex((r) => r.subvolId === (this.anchor ?? row.subvolId));
    const to = list.indexOf(row);
    const [low, high] = from < to ? [from, to] : [to, from];
    this.apply(list.slice(low, high + 1).map((r) => [r, ticked]));
  }

  clicked(event) {
    const tr = event.target.closest('tr');
    const row = tr && this.byId.get(Number(tr.dataset.id));
    if (!row?.tickable) return;
    // A click on the box has ticked or unticked it already.
    const ticked = event.target === row.box ? row.box.checked : !this.ticks.has(row.subvolId);
    if (event.shiftKey && this.anchor !== null) this.tickRun(row, ticked);
    else this.apply([[row, ticked]]);
    this.anchor = row.subvolId;
    this.focusRow(row.subvolId);
  }

  keyed(event) {
    const row = this.byId.get(Number(event.target.dataset.id));
    if (!row?.tickable) return;
    const list = this.tickableRows();
    const at = list.indexOf(row);
    const moves = { ArrowDown: at + 1, ArrowUp: at - 1, Home: 0, End: list.length - 1 };
    if (event.key in moves) {
      event.preventDefault();
      const next = list[Math.max(0, Math.min(list.length - 1, moves[event.key]))];
      if (event.shiftKey && next !== row) {
        this.apply([[row, true], [next, true]]);
        this.anchor = next.subvolId;
      }
      this.focusRow(next.subvolId);
    } else if (event.key === ' ' && event.shiftKey) {
      event.preventDefault();
      const ticked = !this.ticks.has(row.subvolId);
      if (this.anchor !== null) this.tickRun(row, ticked);
      else this.apply([[row, ticked]]);
      this.anchor = row.subvolId;
    }
  }

  // Moves the one Tab stop of the table to this row and focuses it.
  focusRow(id) {
    const row = this.byId.get(id);
    if (!row?.box) return;
    this.byId.get(this.current)?.box?.setAttribute('tabindex', '-1');
    this.current = id;
    row.box.setAttribute('tabindex', '0');
    row.box.focus();
  }
}
