// The web API host as the page uses it: logins, the session's CSRF token,
// and the modules' methods. Failures are thrown as ApiError, whose message
// says in words what went wrong.

let csrfToken = '';

// What the page knows of its session, to tell the user why one ended.
export const session = { user: '', idleTimeout: 0, maxAge: 0, startedAt: 0, lastAnswerAt: 0 };

const MESSAGES = {
  0: 'The server cannot be reached.',
  1: 'The work failed on the server.',
  3: 'The request lacked something or held a wrong value.',
  8: 'Nothing was found for this share.',
  100: 'The server failed to answer this request.',
  101: 'The server does not offer this function: is its module installed?',
  102: 'The server does not offer this version of the function.',
  103: 'The server does not offer this function: is its module up to date?',
  104: 'The server could not read the request.',
  105: 'Your session has ended. Please log in again.',
  106: 'This is not permitted.',
  107: 'The request is too large.',
  108: 'Too many failed logins. Wait a while before trying again.',
  109: 'Wrong user name or password.',
  110: 'The server is busy or restarting. Try again in a moment.',
  5001: 'No snapshot lies in that range.',
  5002: 'A calculation of this share is already running.',
};

export const SESSION_ENDED = 105;
export const LOCKED_OUT = 108;

export function describeError(code) {
  return MESSAGES[code] ?? `The server reported a problem it did not name (code ${code}).`;
}

export class ApiError extends Error {
  constructor(code, retryAfter = 0) {
    super(describeError(code));
    this.code = code;
    this.retryAfter = retryAfter;
  }
}

async function send(path, init) {
  let answer;
  try {
    const response = await fetch(path, { credentials: 'same-origin', ...init });
    answer = await response.json();
  } catch {
    throw new ApiError(0);
  }
  if (answer.success) {
    session.lastAnswerAt = Date.now();
    return answer.data;
  }
  const wait = answer.error?.errors?.retry_after;
  throw new ApiError(answer.error?.code ?? 0, Number.isInteger(wait) ? wait : 0);
}

function post(path, body) {
  return send(path, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json', 'X-Vela-CSRF': csrfToken },
    body: JSON.stringify(body),
  });
}

function begin(data, fresh) {
  csrfToken = data.csrf_token;
  session.user = data.user;
  session.idleTimeout = data.session_idle_timeout ?? 0;
  session.maxAge = data.session_max_age ?? 0;
  // A resumed session began before this page loaded: its age is unknown.
  session.startedAt = fresh ? Date.now() : 0;
  return data.user;
}

// The user of the current session, or null when there is none.
export async function resumeSession() {
  try {
    return begin(await send('/auth/session', { method: 'GET' }), false);
  } catch (error) {
    if (error.code === SESSION_ENDED) return null;
    throw error;
  }
}

// An account that may not manage the system is refused as a wrong
// password is: the host does not tell which.
export async function login(user, password) {
  return begin(await post('/auth/login', { user, password }), true);
}

export async function logout() {
  await post('/auth/logout', {});
  csrfToken = '';
}

export function call(api, version, method, params = {}) {
  return post(`/api/${encodeURIComponent(api)}/${version}/${encodeURIComponent(method)}`, params);
}

export const usage = (method, params) => call('VELA.Snap.Usage.Share', 1, method, params);
export const space = (method, params) => call('VELA.Snap.Usage.Space', 1, method, params);
export const listVolumes = async () => (await call('VELA.Storage.Volume', 1, 'list')).volumes;
export const listShares = async () => (await call('VELA.Storage.Share', 1, 'list')).shares;
export const listSnapshots = async (shareName) =>
  (await call('VELA.Storage.Share.Snapshot', 1, 'list', { share_name: shareName })).snapshots;

// Deletes snapshots by their listed names; their IDs go along so that a
// name that came to mean another snapshot since is left alone.
export const deleteSnapshots = async (shareName, snapshots) =>
  (await call('VELA.Storage.Share.Snapshot', 1, 'delete', {
    share_name: shareName,
    names: snapshots.map((s) => s.name),
    subvol_ids: snapshots.map((s) => s.subvol_id),
  })).results;
