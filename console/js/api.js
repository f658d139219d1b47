// The console's one client of the device's REST API: sign-in and sign-out,
// reads and writes with the session key kept current, the device's own
// error texts, a log of every call, and the live event stream.  Every page
// uses it; none talks to the device otherwise.
//
// The session cookie is the browser's (HttpOnly); the session key changes
// with every write.  Tabs of one browser share the session, so they share
// the key too: it lives in localStorage, and writes go one at a time across
// the tabs under a Web Lock, each taking the key the previous one left.

const BASE = "/api/v1/";
const KEY = "whttpd.sessionkey";
const USER = "whttpd.user";

const listeners = { ended: [], log: [] };

// How a session ended, as a person reads it.
const END_TEXTS = {
  timeout: "Your session timed out. Sign in again.",
  logout: "You were signed out.",
  "session ended": "Your session ended (signed out elsewhere, or used from another address).",
  "account locked": "Your account was locked after repeated failed sign-ins. Try again later.",
  "account disabled": "Your account was disabled.",
  "password changed": "Your password was changed. Sign in with the new one.",
  "account removed": "Your account was removed.",
  shutdown: "The router restarted. Sign in again.",
};

export function endText(reason) {
  return END_TEXTS[reason] || `Your session ended (${reason}).`;
}

// Each returns the function that stops listening.
function listen(list, fn) {
  list.push(fn);
  return () => list.splice(list.indexOf(fn), 1);
}

export function onSessionEnded(fn) {
  return listen(listeners.ended, fn);
}

// Every call as made and answered: method, URI (the key masked), status,
// the request's and the answer's JSON.
export function onCall(fn) {
  return listen(listeners.log, fn);
}

export class ApiError extends Error {
  constructor(status, text, answer) {
    super(text);
    this.status = status;
    this.answer = answer;
  }
}

export function currentUser() {
  return sessionStorage.getItem(USER) || "";
}

function storedKey() {
  return Number(localStorage.getItem(KEY) || "0");
}

function keepKey(answer) {
  if (answer && Number.isInteger(answer.sessionkey)) localStorage.setItem(KEY, String(answer.sessionkey));
}

function sessionGone(status, answer) {
  const text = answer && answer.oper_status;
  if (status === 504 || (status === 401 && text === "Invalid Session ID")) {
    const reason = status === 504 ? "timeout" : "session ended";
    for (const fn of listeners.ended) fn(reason);
    return true;
  }
  return false;
}

async function call(method, uri, body) {
  const init = { method, credentials: "same-origin", headers: {} };
  if (body !== undefined) {
    init.body = JSON.stringify(body);
    init.headers["Content-Type"] = "application/json";
  }
  const response = await fetch(BASE + uri, init);
  const text = await response.text();
  let answer = null;
  try {
    answer = text ? JSON.parse(text) : null;
  } catch {
    answer = null;
  }
  for (const fn of listeners.log)
    fn({ method, uri: uri.replace(/sessionkey=-?\d+/, "sessionkey=…"), status: response.status,
         request: body, answer: answer ?? text, eventId: response.headers.get("X-Event-Id") });
  return { status: response.status, answer, eventId: response.headers.get("X-Event-Id") };
}

// The device's own text for an answer that is no success.
function failure(status, answer) {
  const text = answer && answer.oper_status ? answer.oper_status : `HTTP ${status}`;
  return new ApiError(status, text, answer);
}

function succeeded(status, answer) {
  const text = answer && answer.oper_status;
  return status === 200 && (text === "Success" || text === "WCFG_SUCCESS");
}

export async function signIn(username, password) {
  const { status, answer } = await call("POST", "UserLogin", { username, password });
  if (!succeeded(status, answer)) throw failure(status, answer);
  keepKey(answer);
  sessionStorage.setItem(USER, username);
  return answer;
}

// A read; resolves to {Object, eventId} (eventId: the last change it shows).
export async function read(path, { subtree = false } = {}) {
  const uri = `TR181/Value/${path}${subtree ? "?first_level_only=false" : ""}`;
  const { status, answer, eventId } = await call("GET", uri);
  if (sessionGone(status, answer) || !succeeded(status, answer)) throw failure(status, answer);
  return { object: answer.Object, eventId };
}

export async function schema(path) {
  const { status, answer } = await call("GET", `TR181/SupportedDM/${path}`);
  if (sessionGone(status, answer) || status !== 200 || !answer || !answer.Object)
    throw failure(status, answer);
  return answer.Object;
}

export async function get(uri) {
  const { status, answer } = await call("GET", uri);
  if (sessionGone(status, answer) || !succeeded(status, answer)) throw failure(status, answer);
  return answer;
}

// A write: one at a time across this browser's tabs, each with the key the
// last one was given; the answer's key is kept for the next.
export async function write(method, uri, body) {
  const run = async () => {
    const sep = uri.includes("?") ? "&" : "?";
    const { status, answer } = await call(method, `${uri}${sep}sessionkey=${storedKey()}`, body);
    keepKey(answer);
    if (sessionGone(status, answer) || !succeeded(status, answer)) throw failure(status, answer);
    return answer;
  };
  return navigator.locks ? navigator.locks.request("whttpd-write", run) : run();
}

export function setValues(path, values) {
  return write("PUT", `TR181/Value/${path}`, values);
}

export function addRow(table, values) {
  return write("POST", `TR181/Value/${table}`, values);
}

export function deleteRow(path) {
  return write("DELETE", `TR181/Value/${path}`);
}

export async function signOut() {
  try {
    await write("POST", "UserLogout");
  } finally {
    localStorage.removeItem(KEY);
    sessionStorage.removeItem(USER);
  }
}

export function forget() {
  sessionStorage.removeItem(USER);
}

// A live stream of the device's changes under `paths`, from `since` (the
// X-Event-Id of a read, so that nothing between the read and the stream is
// missed).  The browser reconnects by itself after a drop (and after a
// restart of the router), resuming from the last id it saw.  `handlers`:
// change, add, delete (each given {path, Object}), resync, open.
export function follow(paths, since, handlers) {
  const query = paths.map((p) => `path=${encodeURIComponent(p)}`);
  if (since) query.push(`lastEventId=${encodeURIComponent(since)}`);
  const source = new EventSource(`${BASE}Events${query.length ? "?" + query.join("&") : ""}`);
  for (const kind of ["change", "add", "delete"])
    source.addEventListener(kind, (e) => handlers[kind] && handlers[kind](JSON.parse(e.data)));
  source.addEventListener("resync", () => handlers.resync && handlers.resync());
  // Open: from now on every change of the paths reaches it.
  source.addEventListener("open", () => handlers.open && handlers.open());
  source.addEventListener("end", (e) => {
    const { reason } = JSON.parse(e.data);
    source.close();
    if (reason === "shutdown") {
      // The router restarts: the session is gone with it, but the page waits
      // for it to come back before it asks for a sign-in.
      waitForRouter().then(() => { for (const fn of listeners.ended) fn("shutdown"); });
      return;
    }
    for (const fn of listeners.ended) fn(reason);
  });
  source.addEventListener("error", () => {
    // A stream refused for good (the session ended while it was away) is
    // closed by the browser; the next read tells why.
    if (source.readyState === EventSource.CLOSED && handlers.lost) handlers.lost();
  });
  return { close: () => source.close() };
}

// A page's live view: `load` reads what the page shows and resolves to the
// X-Event-Id of its reads (the smallest, when several); the stream then
// follows `paths` from there, and `onEvent(kind, data)` hears each change
// (a resync reads everything again).  Returns the function that stops it.
export function live(paths, load, onEvent) {
  let stream = null, stopped = false;
  (async () => {
    const since = await load();
    if (stopped || since === null || since === undefined) return;
    stream = follow(paths, since, {
      change: (d) => onEvent("change", d),
      add: (d) => onEvent("add", d),
      delete: (d) => onEvent("delete", d),
      resync: () => load(),
    });
  })();
  return () => {
    stopped = true;
    stream?.close();
  };
}

// The smallest position of several reads.
function earliest(reads) {
  return reads.map((r) => Number(r.eventId)).reduce((a, b) => Math.min(a, b));
}

// What a page shows, read at once: `specs` are paths, or [path, options] of
// read(); `show` gets their objects in order and the page's status `st`
// clears, or says what failed.  Resolves to the position a live view follows
// from (live()), null when a read failed.
export async function readForPage(specs, st, show) {
  try {
    const reads = await Promise.all(specs.map((s) => (Array.isArray(s) ? read(...s) : read(s))));
    show(...reads.map((r) => r.object));
    st.clear();
    return earliest(reads);
  } catch (e) {
    st.fail(e.message);
    return null;
  }
}

// Resolves once the router answers again.
async function waitForRouter() {
  for (;;) {
    try {
      const r = await fetch(`${BASE}MethodList`, { credentials: "same-origin" });
      if (r.status) return;
    } catch {
      // not back yet
    }
    await new Promise((done) => setTimeout(done, 1000));
  }
}
