// The console's shell: which page the address names (#/wifi), whether a
// session is open, the navigation, and the way back to the sign-in page
// when a session ends (with why), to the page the person was on after it.
import * as api from "./api.js";
import { signInPage, lockedText } from "./pages/signin.js";
import { overviewPage } from "./pages/overview.js";
import { wifiPage } from "./pages/wifi.js";
import { devicesPage } from "./pages/devices.js";
import { portsPage } from "./pages/ports.js";
import { firmwarePage } from "./pages/firmware.js";
import { devicePage } from "./pages/device.js";
import { explorerPage } from "./pages/explorer.js";

const PAGES = {
  overview: overviewPage,
  wifi: wifiPage,
  devices: devicesPage,
  ports: portsPage,
  firmware: firmwarePage,
  device: devicePage,
  explorer: explorerPage,
};

const main = document.getElementById("main");
const header = document.querySelector("header.top");
let leave = null;      // the shown page's clean-up (its streams)
let signedIn = false;

function routeName() {
  const name = location.hash.replace(/^#\/?/, "");
  return PAGES[name] ? name : "overview";
}

function clear() {
  if (leave) leave();
  leave = null;
  main.replaceChildren();
}

function showSignIn(message) {
  signedIn = false;
  clear();
  header.hidden = true;
  document.title = "Sign in · Router console";
  main.append(signInPage(message, () => {
    signedIn = true;
    show();
  }));
}

function show() {
  if (!signedIn) return;
  clear();
  header.hidden = false;
  const name = routeName();
  for (const a of header.querySelectorAll("nav a"))
    if (a.getAttribute("href") === `#/${name}`) a.setAttribute("aria-current", "page");
    else a.removeAttribute("aria-current");
  const { el, title, cleanup } = PAGES[name]();
  document.title = `${title} · Router console`;
  leave = cleanup || null;
  main.append(el);
  main.querySelector("h1")?.focus();
}

api.onSessionEnded((reason) => {
  if (signedIn) showSignIn(reason === "account locked" ? lockedText(api.currentUser()) : api.endText(reason));
});

document.getElementById("signout").addEventListener("click", async () => {
  try {
    await api.signOut();
  } catch {
    // the session had ended already
  }
  showSignIn("You signed out.");
});

window.addEventListener("hashchange", show);

// This tab signed in before (a reload): a read tells whether the session
// is still open.  Otherwise the sign-in page, without asking the router.
(async () => {
  if (!api.currentUser()) return showSignIn("");
  try {
    await api.read("Device.DeviceInfo.");
    signedIn = true;
    show();
  } catch {
    api.forget();
    showSignIn("");
  }
})();
