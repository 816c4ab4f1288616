// The page: log in, list the shares, weigh a share's snapshots, settings.

import { ApiError, listShares, login, logout, resumeSession, usage } from './api.js';
import { byId, clear, el } from './dom.js';
import { formatDay } from './format.js';
import { ShareView } from './share_view.js';

let shareView = null;
let selectedShare = '';

function showLogin(message = '') {
  shareView?.close();
  byId('app-view').hidden = true;
  byId('account').hidden = true;
  byId('login-view').hidden = false;
  byId('login-error').textContent = message;
  byId('login-password').value = '';
  byId('login-user').focus();
}

const sessionEnded = () => showLogin('Your session has ended. Please log in again.');

function errorText(error) {
  return error instanceof ApiError ? error.message : 'Something went wrong on this page.';
}

// Runs `work`; a lost session leads back to the login form, other errors
// are shown in `errorElement`.
async function guarded(errorElement, work) {
  try {
    errorElement.textContent = '';
    await work();
  } catch (error) {
    if (error instanceof ApiError && error.code === 105) sessionEnded();
    else errorElement.textContent = errorText(error);
  }
}

function snapshotSpan(share) {
  if (!share.snapshot_count) return 'no snapshots';
  const count = share.snapshot_count === 1 ? '1 snapshot' : `${share.snapshot_count} snapshots`;
  const first = formatDay(share.first_snapshot_time);
  const last = formatDay(share.last_snapshot_time);
  return first === last ? `${count}, ${first}` : `${count}, ${first} to ${last}`;
}

const STATUS_BADGES = { process: 'calculating', done: 'report ready' };

async function loadShares() {
  await guarded(byId('shares-error'), async () => {
    const [{ shares }, status] = await Promise.all([listShares(), usage('status', { additional: [] })]);
    const states = new Map((status?.share_list ?? []).map((s) => [s.share_name, s.status]));
    const list = byId('share-list');
    clear(list);
    byId('shares-empty').hidden = shares.length > 0;
    for (const share of shares) {
      const badge = STATUS_BADGES[states.get(share.name)];
      const button = el(
        'button',
        {
          type: 'button',
          class: 'share',
          'aria-pressed': share.name === selectedShare ? 'true' : 'false',
          'data-share': share.name,
          onclick: () => selectShare(share),
        },
        el('span', { class: 'share-name' }, share.name),
        el('span', { class: 'share-meta' }, `volume ${share.volume} · ${snapshotSpan(share)}`),
        badge ? el('span', { class: 'badge' }, badge) : null,
      );
      list.append(el('li', {}, button));
    }
  });
}

function selectShare(share) {
  selectedShare = share.name;
  for (const button of byId('share-list').querySelectorAll('button.share')) {
    button.setAttribute('aria-pressed', button.dataset.share === share.name ? 'true' : 'false');
  }
  shareView.open(share);
}

async function loadSettings() {
  await guarded(byId('settings-error'), async () => {
    const conf = await usage('get_conf', { additional: ['reminder'] });
    const reminder = conf?.reminder !== false;
    byId('reminder').checked = reminder;
    byId('reminder-banner').hidden = !reminder;
  });
}

async function showApp(user) {
  byId('login-view').hidden = true;
  byId('app-view').hidden = false;
  byId('account').hidden = false;
  byId('account-user').textContent = user;
  await Promise.all([loadShares(), loadSettings()]);
}

function wire() {
  shareView = new ShareView(sessionEnded, loadShares);
  byId('login-form').addEventListener('submit', async (event) => {
    event.preventDefault();
    const submit = byId('login-submit');
    submit.disabled = true;
    byId('login-error').textContent = '';
    try {
      const user = await login(byId('login-user').value, byId('login-password').value);
      byId('login-password').value = '';
      await showApp(user);
    } catch (error) {
      byId('login-error').textContent = errorText(error);
    } finally {
      submit.disabled = false;
    }
  });
  byId('logout').addEventListener('click', async () => {
    try {
      await logout();
    } finally {
      selectedShare = '';
      showLogin();
    }
  });
  byId('reminder').addEventListener('change', async (event) => {
    const reminder = event.target.checked;
    await guarded(byId('settings-error'), async () => {
      await usage('set_conf', { reminder });
      byId('reminder-banner').hidden = !reminder;
    });
  });
}

async function boot() {
  wire();
  try {
    const user = await resumeSession();
    if (user) await showApp(user);
    else showLogin();
  } catch (error) {
    showLogin(errorText(error));
  }
}

boot();
