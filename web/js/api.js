// The web API host as the page uses it: logins, the session's CSRF token,
// and the modules' methods. Failures are thrown as ApiError, whose message
// says in words what went wrong.

let csrfToken = '';

const MESSAGES = {
  0: 'The server cannot be reached.',
  1: 'The work failed on the server.',
  3: 'The request lacked something or held a wrong value.',
  4: 'A calculation of this share is still running.',
  6: 'The server has no btrfs size tool.',
  7: 'The calculation could not be prepared.',
  8: 'Nothing was found for this share.',
  11: 'The calculation could not be created.',
  12: 'The calculation was stopped.',
  13: 'The size tool could not be run.',
  15: 'No snapshot lies in that range.',
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

export function describeError(code) {
  return MESSAGES[code] ?? `The server reported a problem it did not name (code ${code}).`;
}

export class ApiError extends Error {
  constructor(code, message = describeError(code)) {
    super(message);
    this.code = code;
  }
}

export const SESSION_ENDED = 105;

async function send(path, init) {
  let answer;
  try {
    const response = await fetch(path, { credentials: 'same-origin', ...init });
    answer = await response.json();
  } catch {
    throw new ApiError(0);
  }
  if (answer.success) return answer.data;
  const code = answer.error?.code ?? 0;
  const wait = answer.error?.errors?.retry_after;
  if (code === 108 && Number.isInteger(wait)) {
    throw new ApiError(code, `Too many failed logins. Try again in ${wait} second${wait === 1 ? '' : 's'}.`);
  }
  throw new ApiError(code);
}

function post(path, body) {
  return send(path, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json', 'X-Vela-CSRF': csrfToken },
    body: JSON.stringify(body),
  });
}

// The user of the current session, or null when there is none.
export async function resumeSession() {
  try {
    const data = await send('/auth/session', { method: 'GET' });
    csrfToken = data.csrf_token;
    return data.user;
  } catch (error) {
    if (error.code === SESSION_ENDED) return null;
    throw error;
  }
}

// An account that may not manage the system is refused as a wrong
// password is: the host does not tell which.
export async function login(user, password) {
  const data = await post('/auth/login', { user, password });
  csrfToken = data.csrf_token;
  return data.user;
}

export async function logout() {
  await post('/auth/logout', {});
  csrfToken = '';
}

export function call(api, version, method, params = {}) {
  return post(`/api/${encodeURIComponent(api)}/${version}/${encodeURIComponent(method)}`, params);
}

// The snapshot usage module and the storage listing module.
export const usage = (method, params) => call('VELA.Snap.Usage.Share', 1, method, params);
export const listShares = () => call('VELA.Storage.Share', 1, 'list');
export const listSnapshots = (shareName) =>
  call('VELA.Storage.Share.Snapshot', 1, 'list', { share_name: shareName });
