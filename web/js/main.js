// The page: log in, the shares with their volumes' space, one share open at
// a time (kept in the address), settings; and what to say when a session
// ends or logins are refused for a while.

import {
  ApiError, LOCKED_OUT, SESSION_ENDED, listShares, listVolumes, login, logout, resumeSession, session, usage,
} from './api.js';
import { byId, el } from './dom.js';
import { formatBytes, formatClock, formatDay, formatDuration, formatTime, plural } from './format.js';
import { ShareView } from './share_view.js';
import { readUrl, writeUrl } from './url_state.js';

let shareView = null;
let shares = [];
let lockoutTimer = null;

const KEPT = 'Kept: the share you had open and the snapshots you ticked (they are in this page\'s address), ' +
  'and any calculation, which goes on on the server. Log in to go on where you were.';

// Why the session is over, as far as the page can tell.
function sessionEndText() {
  const now = Date.now();
  const idle = session.idleTimeout * 1000;
  if (idle && now - session.lastAnswerAt >= idle - 5000) {
    return `Your session ended after ${formatDuration(session.idleTimeout)} without use.`;
  }
  if (session.maxAge && session.startedAt && now - session.startedAt >= session.maxAge * 1000 - 5000) {
    return `Your session ended: sessions last ${formatDuration(session.maxAge)} at most.`;
  }
  return 'Your session ended: you logged out in another tab, or your account\'s rights or password changed.';
}

// `message` is news (a session that ended) unless it is an error.
function showLogin(message = '', { error = false } = {}) {
  shareView?.close();
  byId('app-view').hidden = true;
  byId('account').hidden = true;
  byId('login-view').hidden = false;
  byId('login-error').textContent = message;
  byId('login-error').classList.toggle('info', !error);
  byId('login-password').value = '';
  if (!byId('login-user').value) byId('login-user').value = session.user;
  byId(byId('login-user').value ? 'login-password' : 'login-user').focus();
}

const sessionEnded = () => showLogin(`${sessionEndText()} ${KEPT}`);

// Handles what concerns the whole page; false for anything else.
function handleFailure(error) {
  if (error instanceof ApiError && error.code === SESSION_ENDED) {
    sessionEnded();
    return true;
  }
  return false;
}

async function guarded(errorElement, work) {
  try {
    errorElement.textContent = '';
    await work();
  } catch (error) {
    if (!handleFailure(error)) {
      errorElement.textContent = error instanceof ApiError ? error.message : 'Something went wrong on this page.';
    }
  }
}

function snapshotSpan(share) {
  if (!share.snapshot_count) return 'no snapshots';
  const first = formatDay(share.first_snapshot_time);
  const last = formatDay(share.last_snapshot_time);
  return `${plural(share.snapshot_count, 'snapshot')}, ${first === last ? first : `${first} to ${last}`}`;
}

const BADGES = { process: 'calculating', done: 'report ready' };

async function loadShares() {
  await guarded(byId('shares-error'), async () => {
    const [list, volumes, status] = await Promise.all([listShares(), listVolumes(), usage('status', { additional: [] })]);
    shares = list;
    const states = new Map((status?.share_list ?? []).map((s) => [s.share_name, s.status]));
    const space = new Map(volumes.map((v) => [v.volume, v]));
    const open = readUrl().share;
    const focused = document.activeElement?.dataset?.share;
    byId('shares-empty').hidden = shares.length > 0;
    byId('share-list').replaceChildren(...shares.map((share) => {
      const volume = space.get(share.volume);
      const badge = BADGES[states.get(share.name)];
      return el('li', {}, el(
        'button',
        { type: 'button', class: 'share', 'aria-pressed': String(share.name === open), 'data-share': share.name,
          onclick: () => openShare(share.name, { push: true }) },
        el('span', { class: 'share-name' }, share.name),
        el('span', { class: 'share-meta' }, `volume ${share.volume}`,
          volume ? ` · ${formatBytes(volume.free_bytes)} free of ${formatBytes(volume.size_bytes)}` : '',
          ` · ${snapshotSpan(share)}`),
        badge ? el('span', { class: 'badge' }, badge) : null,
      ));
    }));
    // The list is drawn anew: the button that had the focus keeps it.
    if (focused !== undefined) byId('share-list').querySelector(`[data-share="${CSS.escape(focused)}"]`)?.focus();
  });
}

// Opens a share by name with the range and ticks of the address; a click
// makes a new history entry, so that Back returns to the share before.
async function openShare(name, { push = false, focus = true } = {}) {
  const share = shares.find((s) => s.name === name);
  const wanted = push ? { from: 0, to: 0, ticks: [] } : readUrl();
  if (push) writeUrl({ share: name });
  for (const button of byId('share-list').querySelectorAll('button.share')) {
    button.setAttribute('aria-pressed', String(button.dataset.share === name));
  }
  if (!share) {
    shareView.close();
    if (name) byId('shares-error').textContent = `There is no share named ${name} now.`;
    return;
  }
  await shareView.open(share, wanted, { focus });
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
  const { share } = readUrl();
  if (share) await openShare(share);
  else byId('shares-heading').focus();
}

// Logins refused for a while: say until when, and let the form wait.
function lockOut(seconds) {
  const until = Date.now() + seconds * 1000;
  const submit = byId('login-submit');
  const tick = () => {
    const left = Math.ceil((until - Date.now()) / 1000);
    if (left <= 0) {
      clearInterval(lockoutTimer);
      submit.disabled = false;
      byId('login-error').textContent = 'You may try to log in again.';
      return;
    }
    const at = formatDay(until / 1000) === formatDay(Date.now() / 1000) ? formatClock(until / 1000) : formatTime(until / 1000);
    byId('login-error').textContent = `Too many failed logins: try again in ${formatDuration(left)}, at ${at}. ` +
      'The page keeps what you had open.';
  };
  clearInterval(lockoutTimer);
  submit.disabled = true;
  tick();
  lockoutTimer = setInterval(tick, 1000);
}

function wire() {
  shareView = new ShareView({
    onFailure: handleFailure,
    onStateChange: () => loadShares(),
    onUrl: (state) => writeUrl(state),
  });
  byId('login-form').addEventListener('submit', async (event) => {
    event.preventDefault();
    const submit = byId('login-submit');
    if (submit.disabled) return;
    submit.disabled = true;
    byId('login-error').textContent = '';
    byId('login-error').classList.remove('info');
    try {
      const user = await login(byId('login-user').value, byId('login-password').value);
      byId('login-password').value = '';
      submit.disabled = false;
      await showApp(user);
    } catch (error) {
      submit.disabled = false;
      byId('login-password').value = '';
      if (error instanceof ApiError && error.code === LOCKED_OUT && error.retryAfter > 0) lockOut(error.retryAfter);
      else byId('login-error').textContent = error instanceof ApiError ? error.message : String(error);
    }
  });
  byId('logout').addEventListener('click', async () => {
    try {
      await logout();
    } finally {
      writeUrl({ share: '' });
      showLogin('You are logged out.');
    }
  });
  byId('reminder').addEventListener('change', async (event) => {
    const reminder = event.target.checked;
    await guarded(byId('settings-error'), async () => {
      await usage('set_conf', { reminder });
      byId('reminder-banner').hidden = !reminder;
    });
  });
  window.addEventListener('popstate', () => {
    if (byId('app-view').hidden) return;
    const wanted = readUrl();
    if (wanted.share && wanted.share === shareView.share?.name) shareView.applyUrl(wanted);
    else openShare(wanted.share);
  });
}

async function boot() {
  wire();
  try {
    const user = await resumeSession();
    if (user) await showApp(user);
    else showLogin();
  } catch (error) {
    showLogin(error instanceof ApiError ? error.message : String(error), { error: true });
  }
}

boot();
