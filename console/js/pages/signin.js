// Sign in.  The router does not say whether a refused sign-in was a wrong
// password or a locked account (it answers both the same, so that nobody
// can probe accounts); what this page knows of the lock comes from the
// account's own settings, which it read the last time the account signed in
// here (retries allowed, lock time), and from the failures it has seen since.
import * as api from "../api.js";
import { h, field, status } from "../ui.js";

const MEMORY = "whttpd.accounts";

function memory() {
  try {
    return JSON.parse(localStorage.getItem(MEMORY) || "{}");
  } catch {
    return {};
  }
}

function remember(user, change) {
  const all = memory();
  all[user] = { ...(all[user] || {}), ...change };
  localStorage.setItem(MEMORY, JSON.stringify(all));
  return all[user];
}

function clock(ms) {
  return new Date(ms).toLocaleTimeString([], { hour: "2-digit", minute: "2-digit" });
}

// What a refused sign-in means, as far as this browser knows.
function refusal(user, text) {
  if (text !== "Invalid Username or Password") return text;
  const now = Date.now();
  const known = memory()[user] || {};
  const count = (known.lockedUntil && now >= known.lockedUntil ? 0 : known.failures || 0) + 1;
  const seen = remember(user, { failures: count });
  if (seen.retries && count >= seen.retries && seen.lockSeconds) {
    const until = seen.lockedUntil && seen.lockedUntil > now ? seen.lockedUntil
                                                               : now + seen.lockSeconds * 1000;
    remember(user, { lockedUntil: until });
    return `The account "${user}" is locked after ${seen.retries} failed sign-ins, for ` +
           `${Math.round(seen.lockSeconds / 60)} minutes: try again after ${clock(until)}.`;
  }
  return "Wrong user name or password." +
         (count >= 2 ? " After repeated failures the router locks the account for a while." : "");
}

// The signed-in account's lock settings, for the next refusal.
async function learnLock(user) {
  try {
    const { object } = await api.read("Device.X_OLVEX_LoginCfg.", { subtree: true });
    for (const group of object.LogGp || [])
      for (const account of (group && group.Account) || [])
        if (account && account.Username === user)
          remember(user, { retries: account.AccountRetryTime, lockSeconds: account.AccountLockTime,
                           failures: 0, lockedUntil: 0 });
  } catch {
    remember(user, { failures: 0, lockedUntil: 0 });
  }
}

// The message when a session ended because the account was locked, with
// how long, when this browser knows.
export function lockedText(user) {
  const seen = memory()[user] || {};
  if (!seen.lockSeconds) return api.endText("account locked");
  const until = Date.now() + seen.lockSeconds * 1000;
  remember(user, { lockedUntil: until, failures: seen.retries || 0 });
  return `Your account was locked after repeated failed sign-ins, for ` +
         `${Math.round(seen.lockSeconds / 60)} minutes: try again after ${clock(until)}.`;
}

export function signInPage(message, done) {
  const user = field("User name", h("input", { name: "username", autocomplete: "username", required: true }));
  const pass = field("Password", h("input", { name: "password", type: "password",
                                              autocomplete: "current-password", required: true }));
  const st = status();
  if (message) st.fail(message);
  const form = h("form", { class: "signin", "aria-labelledby": "signin-title" },
    h("h1", { id: "signin-title", tabindex: "-1" }, "Sign in to your router"),
    user.row, pass.row, h("button", { type: "submit" }, "Sign in"), st.el);
  form.addEventListener("submit", async (e) => {
    e.preventDefault();
    const name = user.input.value.trim();
    st.busy("Signing in…");
    try {
      await api.signIn(name, pass.input.value);
      await learnLock(name);
      st.clear();
      done();
    } catch (err) {
      pass.input.value = "";
      st.fail(refusal(name, err.message));
      pass.input.focus();
    }
  });
  queueMicrotask(() => user.input.focus());
  return form;
}
