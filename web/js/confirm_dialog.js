// Asks before anything is removed: a modal dialog naming what goes, with
// the safe answer focused. Escape keeps things as they are; the focus
// returns to where it was.

import { byId } from './dom.js';

let wired = false;

// Resolves true when the user confirms.
export function confirmAction({ title, body, confirm, keep }) {
  const dialog = byId('confirm');
  if (!wired) {
    byId('confirm-yes').addEventListener('click', () => dialog.close('yes'));
    byId('confirm-no').addEventListener('click', () => dialog.close('no'));
    wired = true;
  }
  const opener = document.activeElement;
  byId('confirm-title').textContent = title;
  byId('confirm-body').replaceChildren(...body);
  byId('confirm-yes').textContent = confirm;
  byId('confirm-no').textContent = keep;
  return new Promise((resolve) => {
    dialog.addEventListener(
      'close',
      () => {
        if (opener instanceof HTMLElement && opener.isConnected && !opener.hidden) opener.focus();
        resolve(dialog.returnValue === 'yes');
      },
      { once: true },
    );
    dialog.returnValue = '';
    dialog.showModal();
    byId('confirm-no').focus();
  });
}
