// The desk's HTTP interface.

/**
 * A failure in words for a person. `status` is that of the answer, 0 if there was none; `code` is the desk's name
 * for the cause.
 */
export class DeskError extends Error {
  constructor(message, { status = 0, code = null } = {}) {
    super(message);
    this.status = status;
    this.code = code;
  }
}

// A desk with a token prints a link that contains it. The token is stored for this tab and removed from the address.
const link = new URL(location.href);
const token = link.searchParams.get("token") ?? sessionStorage.getItem("token");
if (link.searchParams.has("token")) {
  sessionStorage.setItem("token", token);
  link.searchParams.delete("token");
  history.replaceState(null, "", link);
}

/** `path` with the token, if there is one. */
export function addressOf(path) {
  if (!token) return path;
  return `${path}${path.includes("?") ? "&" : "?"}token=${encodeURIComponent(token)}`;
}

const ANSWER_LIMIT = 120_000; // in milliseconds; several writes may each wait five seconds for a busy store

async function request(method, path, body, signal = AbortSignal.timeout(ANSWER_LIMIT)) {
  const options = { method, signal };
  if (body !== undefined) {
    options.headers = { "Content-Type": "application/json" };
    options.body = JSON.stringify(body);
  }
  let response, answer;
  try {
    response = await fetch(addressOf(path), options);
    answer = await response.json();
  } catch {
    throw new DeskError("The desk does not answer.");
  }
  if (!response.ok) throw new DeskError(sentence(answer.error), { status: response.status, code: answer.code });
  return answer;
}

const sentence = (text) => /[.!?]$/.test(text) ? text : `${text}.`;

export const get = (path) => request("GET", path);
export const post = (path, body) => request("POST", path, body);
export const put = (path, body) => request("PUT", path, body);
export const patch = (path, body) => request("PATCH", path, body);
export const remove = (path) => request("DELETE", path);

/**
 * Returns a function that runs each action after the previous one has ended, and resolves with its result. Requests
 * that are sent at the same time may arrive in any order.
 */
export function inOrder() {
  let last = Promise.resolve();
  return (action) => {
    last = last.then(action, action);
    return last;
  };
}

/** The address of the key at `path`, which may contain any character. */
export const keyAddress = (path) => `/api/store/${encodeURIComponent(path)}`;

/** Sends `{send: M}` or `{post: M}` to the plug-in of a page. Waits without limit: the set may delay the command. */
export const say = (page, message) => request("POST", `/api/pages/${page}/messages`, message, null);
