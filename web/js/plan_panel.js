// "I need X back, keep the newest K": the two proposals of the space map,
// the oldest snapshots first and the fewest snapshots, each ready to tick.

import { byId, el } from './dom.js';
import { planFor } from './calculation.js';
import { formatBytes, formatExactBytes, formatTime, parseSize, plural } from './format.js';

const SHOWN_TIMES = 12;

export class PlanPanel {
  // onTick(ids) ticks a proposal; onError(error) shows a failed question.
  constructor(onTick, onError) {
    this.onTick = onTick;
    this.onError = onError;
    this.shareName = '';
    this.times = new Map();
    byId('plan-form').addEventListener('submit', (event) => {
      event.preventDefault();
      this.propose();
    });
  }

  // The share and its report's snapshots ({subvolId, time}); clears any
  // earlier proposal, which was of another report.
  reset(shareName, rows) {
    this.shareName = shareName;
    this.times = new Map(rows.map((row) => [row.subvolId, row.time]));
    byId('plan-result').replaceChildren();
    byId('plan-error').textContent = '';
  }

  async propose() {
    const bytes = parseSize(byId('plan-size').value, byId('plan-unit').value);
    const keep = Number(byId('plan-keep').value || 0);
    const error = byId('plan-error');
    if (Number.isNaN(bytes)) {
      error.textContent = 'Give the space you need as a number above 0.';
      return;
    }
    if (!Number.isInteger(keep) || keep < 0) {
      error.textContent = 'Give the number of newest snapshots to keep as a whole number, 0 or more.';
      return;
    }
    error.textContent = '';
    try {
      const plan = await planFor(this.shareName, bytes, keep);
      byId('plan-result').replaceChildren(
        this.card('Oldest first', 'the oldest snapshots, one after the other', plan.oldestFirst, bytes, keep),
        this.card('Fewest snapshots',
          plan.fewest.exact ? 'proven to be the fewest that free it' : 'the fewest found; fewer may exist',
          plan.fewest, bytes, keep),
      );
    } catch (failure) {
      this.onError(failure);
    }
  }

  // The snapshots' times, the first dozen of a long list.
  timesText(times) {
    const shown = times.slice(0, SHOWN_TIMES).flatMap((t, i) => [i ? ', ' : '', el('span', { class: 'nowrap' }, formatTime(t))]);
    return times.length > SHOWN_TIMES ? [...shown, ` and ${times.length - SHOWN_TIMES} more`] : shown;
  }

  card(title, how, proposal, wanted, keep) {
    const count = proposal.subvolIds.length;
    const times = proposal.subvolIds.map((id) => this.times.get(id)).filter((t) => t !== undefined);
    const outcome = proposal.reached
      ? `${plural(count, 'snapshot')} free ${formatBytes(proposal.freed)} (${formatExactBytes(proposal.freed)}).`
      : `${formatBytes(wanted)} cannot be freed while the newest ${plural(keep, 'snapshot')} stay: ` +
        `at most ${formatBytes(proposal.freed)}, by deleting ${plural(count, 'snapshot')}.`;
    return el(
      'div',
      { class: 'proposal' },
      el('h5', {}, title),
      el('p', { class: 'hint' }, how),
      el('p', { 'data-bytes': proposal.freed }, outcome),
      times.length ? el('p', { class: 'proposal-times' }, this.timesText(times)) : null,
      count
        ? el('button', { type: 'button', class: 'quiet', onclick: () => this.onTick(proposal.subvolIds) },
          `Tick ${count === 1 ? 'it' : `these ${count}`}`)
        : null,
    );
  }
}
