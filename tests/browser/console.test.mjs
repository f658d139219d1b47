// The web console in a real browser (headless Chromium) against the real
// daemon on the virtual router: each page's main flow, live changes from
// another person and from the device's services, sessions that end, a
// restart of the router, the keyboard alone, accessibility (axe-core) and
// the screenshots of every page.  Tests wait for what the page shows, never
// for a fixed time.
import { after, before, test } from "node:test";
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import path from "node:path";
import { Router, launch, openConsole, signIn, go, waitText, accessibility, screenshots, unexpected,
         build, PHONE } from "./harness.mjs";

let router, browser;

before(async () => {
  router = await new Router().start();
  browser = await launch();
});

after(async () => {
  await browser?.close();
  await router?.close();
});

// Every page: its main content, no accessibility fault, its pictures.
const PAGES = [
  ["overview", "Overview", "#connected-count"],
  ["wifi", "Wi-Fi", "article.network"],
  ["devices", "Connected devices", "tr[data-host]"],
  ["ports", "Port forwarding", "article[data-rule]"],
  ["firmware", "Firmware", "dl.facts"],
  ["device", "Device", "article.card"],
  ["explorer", "Data model", "ul.tree button.node"],
];

test("sign-in: a wrong password says so; every page shows, is accessible, at both widths", async () => {
  const page = await openConsole(browser, router);
  page.expected.push("status 401", "status of 401");
  assert.deepEqual(await accessibility(page), []);
  await screenshots(page, "signin");
  await page.type("input[name=username]", "admin");
  await page.type("input[name=password]", "wrong-password");
  await page.click("form.signin button");
  await waitText(page, ".status.fail", "Wrong user name or password.");
  await page.type("input[name=password]", "1234abcd");
  await Promise.all([page.waitForSelector("header.top:not([hidden])"), page.click("form.signin button")]);
  for (const [name, heading, content] of PAGES) {
    await go(page, name, heading);
    await page.waitForSelector(content);
    assert.deepEqual(await accessibility(page), [], name);
    await screenshots(page, name);
  }
  assert.deepEqual(unexpected(page), []);
  await page.browserContext().close();
});

test("overview: model, firmware, up-time, the internet and the devices, kept up to date", async () => {
  const page = await openConsole(browser, router);
  await signIn(page);
  await go(page, "overview", "Overview");
  await waitText(page, "dl.facts", "NX5150");
  await waitText(page, "dl.facts", "V1.20(ABCD.7)C0");
  await waitText(page, "dl.facts", "100.64.12.34");
  const before = await page.$eval("#connected-count", (e) => Number(e.textContent));
  router.wcfgctl(["add", "Device.WiFi.AccessPoint.2.AssociatedDevice.",
                  '{"MACAddress":"02:AA:00:00:00:0C","SignalStrength":-60}']);
  await page.waitForFunction((n) => Number(document.querySelector("#connected-count")?.textContent) === n,
                             {}, before + 1);
  assert.deepEqual(unexpected(page), []);
  await page.browserContext().close();
});

test("wi-fi: a name changed in one browser shows in another within a second; the pass phrase", async () => {
  const mine = await openConsole(browser, router);
  const theirs = await openConsole(browser, router);
  await signIn(mine);
  await signIn(theirs);
  await go(mine, "wifi", "Wi-Fi");
  await go(theirs, "wifi", "Wi-Fi");
  await theirs.waitForSelector("#net-1 h2");
  const name = mine.locator("#net-1 form input:not([type=password])");
  await name.fill("home-network");
  await mine.type("#net-1 input[type=password]", "a-new-pass-phrase");
  const saved = Date.now();
  await mine.click("#net-1 form button[type=submit]");
  await waitText(mine, "#net-1 .status.ok", "Saved.");
  await waitText(theirs, "#net-1 h2", "home-network", 1000 + (Date.now() - saved));
  assert.ok(Date.now() - saved < 1500, `seen after ${Date.now() - saved} ms`);
  assert.match(router.wcfgctl(["get", "Device.WiFi.AccessPoint.1.Security."]), /"a-new-pass-phrase"/);
  assert.deepEqual(unexpected(mine), []);
  assert.deepEqual(unexpected(theirs), []);
  await mine.browserContext().close();
  await theirs.browserContext().close();
});

test("wi-fi: the WPS push button's status follows the session from start to outcome", async () => {
  router.wcfgctl(["knob", "wifi.wps.walk_seconds", "30"]);
  router.wcfgctl(["knob", "wifi.wps.outcome", "success"]);
  const page = await openConsole(browser, router);
  await signIn(page);
  await go(page, "wifi", "Wi-Fi");
  await page.waitForSelector("#net-1 .wps button");
  await page.click("#net-1 .wps button");
  await waitText(page, "#net-1 .status.ok", "WPS started");
  await waitText(page, '.wps-status[data-ap="1"]', "NoError, WPS ok!", 20000);
  assert.deepEqual(unexpected(page), []);
  await page.browserContext().close();
});

test("wi-fi and sign-in by keyboard alone", async () => {
  const page = await openConsole(browser, router);
  await page.waitForSelector("input[name=username]:focus");
  await page.keyboard.type("admin");
  await page.keyboard.press("Tab");
  await page.keyboard.type("1234abcd");
  await page.keyboard.press("Enter");
  await page.waitForSelector("header.top:not([hidden])");
  // Through the navigation to the Wi-Fi page, then to its first name field.
  const focusText = () => page.evaluate(() => document.activeElement?.textContent?.trim() || "");
  let steps = 0;
  while ((await focusText()) !== "Wi-Fi" && steps++ < 20) await page.keyboard.press("Tab");
  await page.keyboard.press("Enter");
  await page.waitForFunction(() => document.querySelector("main h1")?.textContent === "Wi-Fi");
  await page.waitForSelector("#net-1 form input");
  const inName = () => page.evaluate(() => document.activeElement?.closest("#net-1 form") !== null &&
                                            document.activeElement.type !== "password");
  steps = 0;
  while (!(await inName()) && steps++ < 30) await page.keyboard.press("Tab");
  assert.ok(await inName(), "the network name field is reached with Tab");
  await page.keyboard.down("Control");
  await page.keyboard.press("a");
  await page.keyboard.up("Control");
  await page.keyboard.type("by-keyboard");
  await page.keyboard.press("Enter");
  await waitText(page, "#net-1 .status.ok", "Saved.");
  assert.match(router.wcfgctl(["get", "Device.WiFi.SSID.1."]), /"by-keyboard"/);
  assert.deepEqual(unexpected(page), []);
  await page.browserContext().close();
});

test("connected devices: a device that joins appears and one that leaves goes, with no reload", async () => {
  const page = await openConsole(browser, router);
  await signIn(page);
  await go(page, "devices", "Connected devices");
  await page.waitForSelector("tr[data-host]");
  router.wcfgctl(["add", "Device.WiFi.AccessPoint.2.AssociatedDevice.",
                  '{"MACAddress":"02:AA:00:00:00:0D","SignalStrength":-55}']);
  await waitText(page, "tbody tr", "02:AA:00:00:00:0D");
  const list = JSON.parse(router.wcfgctl(["get", "Device.WiFi.AccessPoint.2.AssociatedDevice."]));
  const n = Object.entries(list).find(([, v]) => v.MACAddress === "02:AA:00:00:00:0D")[0];
  router.wcfgctl(["del", n]);
  await page.waitForFunction(() => [...document.querySelectorAll("tbody tr")].some(
    (r) => r.textContent.includes("02:AA:00:00:00:0D") && r.textContent.includes("Away")));
  assert.deepEqual(unexpected(page), []);
  await page.browserContext().close();
});

test("port forwarding: add, edit and delete, each answer where the person acted", async () => {
  const page = await openConsole(browser, router);
  await signIn(page);
  await go(page, "ports", "Port forwarding");
  await page.waitForSelector("article[data-rule]");
  await page.click("details summary");
  const add = "form[aria-label='New rule']";
  await page.type(`${add} input:not([type=number]):not([type=checkbox])`, "game server");
  const numbers = await page.$$(`${add} input[type=number]`);
  await numbers[0].type("2300");
  await numbers[1].type("2300");
  await page.locator(`${add} .field:nth-of-type(3) input`).fill("192.168.1.50");
  await page.click(`${add} button[type=submit]`);
  await waitText(page, `${add} .status.ok`, "Rule added.");
  await waitText(page, "article[data-rule] h2", "game server");
  const rule = await page.$$eval("article[data-rule]", (as) =>
    as.find((a) => a.textContent.includes("game server")).dataset.rule);
  const form = `article[data-rule="${rule}"] form`;
  // An answer of the router's own: a port it does not take.
  await page.$eval(`${form} input[type=number]`, (e) => e.removeAttribute("max"));
  await page.locator(`${form} input[type=number]`).fill("70000");
  await page.click(`${form} button[type=submit]`);
  await page.waitForSelector(`${form} .status.fail`);
  const refusal = await page.$eval(`${form} .status.fail`, (e) => e.textContent);
  assert.ok(refusal.length > 0 && refusal !== "Saved.", refusal);
  await page.locator(`${form} input[type=number]`).fill("2301");
  await page.click(`${form} button[type=submit]`);
  await waitText(page, `${form} .status.ok`, "Saved.");
  assert.match(router.wcfgctl(["get", `Device.NAT.PortMapping.${rule}.`]), /"ExternalPort":2301/);
  await page.click(`${form} button.danger`);
  await page.waitForSelector("dialog.confirm[open]");
  await page.click("dialog.confirm button.danger");
  await waitText(page, ".status.ok", `Rule ${rule} deleted.`);
  await page.waitForFunction((n) => !document.querySelector(`article[data-rule="${n}"]`), {}, rule);
  assert.deepEqual(unexpected(page), []);
  await page.browserContext().close();
});

test("firmware: check online, then upgrade, with its steps and its result", async () => {
  const port = 20000 + Math.floor(Math.random() * 12000);
  const cloud = spawn("setpriv", ["--pdeathsig", "KILL", "--", path.join(build, "fwcloud"), "--port",
                                  String(port)], { env: { ...process.env, WHTTPD_ROOT: router.root },
                                                   stdio: ["ignore", "pipe", "inherit"] });
  try {
    await new Promise((done) => cloud.stdout.on("data", (d) => d.includes("serving") && done()));
    router.wcfgctl(["set", "Device.X_OLVEX_PeriodicOnlineFWUpgrade.",
                    `{"ServerURL":"https://127.0.0.1:${port}/check?"}`]);
    const page = await openConsole(browser, router);
    await signIn(page);
    await go(page, "firmware", "Firmware");
    await page.waitForSelector("dl.facts");
    await page.click("main .buttons button:not(.danger)");
    await waitText(page, ".progress", "New firmware found");
    await waitText(page, "dl.facts", "Available, released 2024-05-01");
    await page.click("main .buttons button.danger");
    await page.waitForSelector("dialog.confirm[open]");
    await page.click("dialog.confirm button.danger");
    await waitText(page, ".progress", "Upgrade started", 30000);
    await waitText(page, ".status.ok", "the upgrade has started", 30000);
    await waitText(page, "dl.facts", "V1.21(ABCD.8)C0");
    assert.deepEqual(unexpected(page), []);
    await page.browserContext().close();
  } finally {
    cloud.kill("SIGKILL");
  }
});

test("device: restart, restart one mesh agent after a confirmation, reset the mesh", async () => {
  const page = await openConsole(browser, router, PHONE);
  await signIn(page);
  await go(page, "device", "Device");
  const [reboot, mesh, reset] = await page.$$("article.card");
  await (await reboot.$("button.danger")).click();
  await page.waitForSelector("dialog.confirm[open]");
  await page.click("dialog.confirm button.secondary");  // cancelled: nothing happens
  await page.waitForSelector("dialog.confirm", { hidden: true });
  assert.doesNotMatch(router.wcfgctl(["requests"]), /reboot/);
  await (await mesh.$("input[value=agent]")).click();
  await (await mesh.$("input:not([type=radio])")).type("02:10:18:3A:6D:00");
  await (await mesh.$("button.danger")).click();
  await page.waitForSelector("dialog.confirm[open]");
  await page.click("dialog.confirm button.danger");
  await waitText(page, "article.card .status.ok", "Restarting the agent 02:10:18:3A:6D:00: done.");
  await (await reset.$("button.danger")).click();
  await page.waitForSelector("dialog.confirm[open]");
  await page.click("dialog.confirm button.danger");
  await waitText(page, "article.card .status.ok", "Resetting the whole mesh: done.");
  assert.match(router.wcfgctl(["requests"]), /vx1905App/);
  assert.deepEqual(unexpected(page), []);
  await page.browserContext().close();
});

test("data-model explorer: the tree, values, an edit, the exact calls and a live event log", async () => {
  const page = await openConsole(browser, router);
  await signIn(page);
  await go(page, "explorer", "Data model");
  const open = async (label) => {
    await page.waitForSelector(`button[aria-label="Open ${label}"]`);
    await page.click(`button[aria-label="Open ${label}"]`);
  };
  await open("Device.");
  await open("Device.NAT.");
  await open("Device.NAT.PortMapping.");
  await page.waitForSelector('button[aria-label="Open Device.NAT.PortMapping.1."]');
  await page.click('button[aria-label="Open Device.NAT.PortMapping.1."] + button.node');
  await page.waitForSelector("#p-Description:not([disabled])");
  await page.locator("#p-Description").fill("from the explorer");
  await page.click(".values-pane button[type=submit]");
  await waitText(page, ".values-pane .status.ok", "Saved.");
  await waitText(page, "ol.calls", "PUT /api/v1/TR181/Value/Device.NAT.PortMapping.1.?sessionkey=… → 200");
  await waitText(page, "ol.calls pre", '"Description": "from the explorer"');
  await page.locator("#watch-path").fill("Device.WiFi.");
  await page.click("form.watch button");
  await waitText(page, "form.watch .status", "Following Device.WiFi.");
  router.wcfgctl(["set", "Device.WiFi.SSID.2.", '{"SSID":"seen-live"}']);
  await waitText(page, "ol.events", "seen-live");
  assert.deepEqual(unexpected(page), []);
  await page.browserContext().close();
});

test("a session that times out, and a locked account, bring the person back to sign in", async () => {
  const page = await openConsole(browser, router);
  page.expected.push("status 401", "status 504", "status of 401", "status of 504");
  await signIn(page);
  await go(page, "wifi", "Wi-Fi");
  await page.waitForSelector("#net-1");
  router.setUptime(router.seconds + 400);  // past the admin's 300 s
  await waitText(page, "form.signin .status.fail", "Your session timed out.");
  // The account's lock, as this browser learnt it at the sign-in: three
  // failures, five minutes.
  for (let i = 0; i < 3; ++i) {
    await page.locator("input[name=username]").fill("admin");
    await page.locator("input[name=password]").fill(`wrong-${i}`);
    await page.click("form.signin button");
    await page.waitForFunction((n) => document.querySelector("input[name=password]").value === "", {}, i);
  }
  await waitText(page, "form.signin .status.fail", 'The account "admin" is locked after 3 failed sign-ins');
  await waitText(page, "form.signin .status.fail", "5 minutes: try again after");
  assert.deepEqual(unexpected(page), []);
  await page.browserContext().close();
  router.setUptime(router.seconds + 400);
});

test("a restart of the router with the console open: back on the same page, live again", async () => {
  const page = await openConsole(browser, router);
  page.expected.push("status 504", "status of 504", "status 401", "status of 401",
                     "ERR_CONNECTION_REFUSED", "ERR_CONNECTION_RESET", "ERR_INCOMPLETE_CHUNKED_ENCODING");
  await signIn(page, "user", "user1234");
  await go(page, "devices", "Connected devices");
  await page.waitForSelector("tr[data-host]");
  await router.stop();
  await router.start();
  await waitText(page, "form.signin .status.fail", "The router restarted. Sign in again.", 30000);
  await signIn(page, "user", "user1234");
  await page.waitForFunction(() => document.querySelector("main h1")?.textContent === "Connected devices");
  await page.waitForSelector("tr[data-host]");
  router.wcfgctl(["add", "Device.WiFi.AccessPoint.2.AssociatedDevice.",
                  '{"MACAddress":"02:AA:00:00:00:0E","SignalStrength":-58}']);
  await waitText(page, "tbody tr", "02:AA:00:00:00:0E");
  assert.deepEqual(unexpected(page), []);
  await page.browserContext().close();
});
