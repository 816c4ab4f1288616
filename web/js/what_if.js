// What deleting the ticked snapshots frees, to the byte, data and metadata
// apart, and the largest files behind it: asked of the calculation's space
// map at every change of the ticks, no new calculation needed. Answers that
// come back after a newer question are dropped.

import { announce, byId, el, setShown } from './dom.js';
import { freedBy } from './calculation.js';
import { formatBytes, formatExactBytes, plural } from './format.js';

const ASK_DELAY_MS = 120;

export class WhatIf {
  // onError(error) for a failed question; onDelete() for the delete button.
  constructor(onError, onDelete) {
    this.onError = onError;
    this.figure = byId('whatif-figure');
    this.button = byId('delete');
    this.files = byId('files');
    this.asked = 0;
    this.timer = null;
    this.answer = null;
    this.pending = Promise.resolve();
    this.button.addEventListener('click', () => onDelete());
  }

  // `rows`: the ticked snapshots; `shareName` the share they are of.
  update(shareName, rows) {
    clearTimeout(this.timer);
    const asked = ++this.asked;
    this.answer = null;
    byId('whatif').classList.toggle('active', rows.length > 0);
    if (!rows.length) {
      this.figure.textContent = 'Tick snapshots to see what deleting them frees.';
      setShown(this.button, false, byId('tick-none'));
      this.files.hidden = true;
      this.pending = Promise.resolve();
      return;
    }
    this.figure.textContent = `${plural(rows.length, 'snapshot')} ticked: working out what deleting them frees…`;
    this.pending = new Promise((resolve) => {
      this.timer = setTimeout(async () => {
        try {
          const answer = await freedBy(shareName, rows.map((row) => row.subvolId));
          if (asked === this.asked) this.show(rows, answer);
        } catch (error) {
          if (asked === this.asked) this.onError(error);
        }
        resolve();
      }, ASK_DELAY_MS);
    });
  }

  show(rows, answer) {
    this.answer = { rows, ...answer };
    const freed = formatBytes(answer.freed);
    this.figure.replaceChildren(
      `${plural(rows.length, 'snapshot')} ticked: deleting them frees `,
      el('strong', { id: 'freed-bytes', 'data-bytes': answer.freed }, freed),
      ` (${formatExactBytes(answer.freed)}: data ${formatBytes(answer.data)}, metadata ${formatBytes(answer.metadata)}).`,
    );
    this.button.textContent = `Delete ${rows.length === 1 ? 'this snapshot' : `these ${rows.length} snapshots`}, freeing ${freed}`;
    this.button.hidden = false;
    this.showFiles(answer);
    announce(`${plural(rows.length, 'snapshot')} ticked: deleting them frees ${freed}.`);
  }

  showFiles({ files, filesComplete }) {
    this.files.hidden = files.length === 0;
    byId('files-list').replaceChildren(
      ...files.map((file) =>
        el('li', {}, el('span', { class: 'file-path' }, file.path), ' ',
          el('span', { class: 'file-bytes', title: formatExactBytes(file.bytes) }, formatBytes(file.bytes)))),
    );
    byId('files-note').textContent = filesComplete
      ? ''
      : 'The calculation kept only the largest files of this share, so some may be missing here.';
  }

  // The answer for the ticks of now, once it is there (null when none).
  async current() {
    await this.pending;
    return this.answer;
  }
}
