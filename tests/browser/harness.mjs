// The browser tests' harness: a virtual router (a fresh device root and the
// real daemon, which serves the console), headless Chromium driven by
// puppeteer-core, axe-core for accessibility, screenshots, and the checks
// every page passes (no console error, no failed request).  Programs are
// started with a parent-death signal, so that a test that dies leaves none.
import { spawn, spawnSync } from "node:child_process";
import { createRequire } from "node:module";
import fs from "node:fs";
import net from "node:net";
import os from "node:os";
import path from "node:path";
import { fileURLToPath } from "node:url";

const here = path.dirname(fileURLToPath(import.meta.url));
export const top = path.resolve(here, "../..");
const require = createRequire(path.join(top, "build-tools/node_modules/"));
const puppeteer = require("puppeteer-core");
const axeSource = fs.readFileSync(require.resolve("axe-core/axe.min.js"), "utf8");

export const build = process.env.WHTTPD_BUILD || path.join(top, "build");
export const shots = path.join(build, "screenshots");
export const PHONE = { width: 390, height: 844, deviceScaleFactor: 1, isMobile: true, hasTouch: true };
export const DESKTOP = { width: 1280, height: 860, deviceScaleFactor: 1 };

// A TCP port nobody listens on now, outside the kernel's range for client ports.
async function freePort() {
  for (;;) {
    const port = 20000 + Math.floor(Math.random() * 12000);
    const free = await new Promise((done) => {
      const s = net.createServer().once("error", () => done(false))
        .once("listening", () => s.close(() => done(true))).listen(port, "::");
    });
    if (free) return port;
  }
}

function run(program, args, env) {
  const r = spawnSync(program, args, { env: { ...process.env, ...env }, encoding: "utf8" });
  if (r.status !== 0) throw new Error(`${program} ${args.join(" ")}: ${r.stderr || r.stdout}`);
  return r.stdout;
}

// A program of this build that dies with the test process.
function start(program, args, env, log) {
  const out = fs.openSync(log, "a");
  return spawn("setpriv", ["--pdeathsig", "KILL", "--", program, ...args],
               { env: { ...process.env, ...env }, stdio: ["ignore", out, out] });
}

// The virtual router: its device root, its clock and its daemon.
export class Router {
  constructor({ limits = "", accounts = true } = {}) {
    this.root = fs.mkdtempSync(path.join(os.tmpdir(), "whttpd-browser-"));
    this.uptimeFile = path.join(this.root, ".uptime");
    this.seconds = 1000;
    this.limits = limits;
    this.wcfgctl(["init"]);
    if (accounts) this.wcfgctl(["set", "Device.X_OLVEX_LoginCfg.", '{"MaximumLoginAccountNumber":0}']);
    this.setUptime(this.seconds);
  }
  env() {
    return { WHTTPD_ROOT: this.root, WHTTPD_SECOND_MS: "10", WHTTPD_UPTIME_FILE: this.uptimeFile,
             WHTTPD_DISCOVERY_PORT: String(this.discovery), WHTTPD_HTTP_LIMITS: this.limits };
  }
  wcfgctl(args) {
    return run(path.join(build, "wcfgctl"), args, { WHTTPD_ROOT: this.root });
  }
  // The daemon's clock (its idle time-outs), moved by the test.
  setUptime(seconds) {
    this.seconds = seconds;
    fs.writeFileSync(`${this.uptimeFile}.tmp`, `${seconds.toFixed(2)} ${seconds.toFixed(2)}\n`);
    fs.renameSync(`${this.uptimeFile}.tmp`, this.uptimeFile);
  }
  async start() {
    this.port = this.port || await freePort();
    this.discovery = this.discovery || await freePort();
    this.daemon = start(path.join(build, "whttpd_rest"), ["-s", String(this.port)], this.env(),
                        path.join(this.root, ".daemon.log"));
    this.url = `https://localhost:${this.port}/`;
    for (let i = 0; i < 300; ++i) {
      if (await this.answers()) return this;
      await new Promise((done) => setTimeout(done, 100));
    }
    throw new Error(`the daemon did not come up: ${fs.readFileSync(path.join(this.root, ".daemon.log"))}`);
  }
  answers() {
    return new Promise((done) => {
      const s = net.connect(this.port, "127.0.0.1", () => { s.destroy(); done(true); });
      s.on("error", () => done(false));
    });
  }
  async stop() {
    if (!this.daemon || this.daemon.exitCode !== null) return;
    const gone = new Promise((done) => this.daemon.once("exit", done));
    this.daemon.kill("SIGTERM");
    await gone;
  }
  async close() {
    await this.stop();
    if (!process.env.WHTTPD_KEEP_ROOT) fs.rmSync(this.root, { recursive: true, force: true });
  }
}

export async function launch() {
  return puppeteer.launch({
    executablePath: process.env.CHROMIUM || "/usr/bin/chromium",
    headless: true,
    pipe: true,
    acceptInsecureCerts: true,
    args: ["--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--lang=en-US"],
  });
}

// A page of its own browser context (its own cookies: another person), at
// the router's console, that notes every console error and failed request.
export async function openConsole(browser, router, viewport = DESKTOP) {
  const context = await browser.createBrowserContext();
  const page = await context.newPage();
  await page.setViewport(viewport);
  page.problems = [];
  page.expected = [];  // texts of problems a test causes on purpose
  page.on("console", (m) => {
    if (m.type() === "error") page.problems.push(`console: ${m.text()}`);
  });
  page.on("pageerror", (e) => page.problems.push(`page: ${e.message}`));
  page.on("requestfailed", (r) => {
    // A stream that the page closes (leaving a page, signing out) ends so.
    if (r.failure()?.errorText === "net::ERR_ABORTED") return;
    page.problems.push(`request: ${r.url()} ${r.failure()?.errorText}`);
  });
  page.on("response", (r) => {
    if (r.status() >= 400) page.problems.push(`status ${r.status()}: ${r.url()}`);
  });
  await page.goto(router.url, { waitUntil: "domcontentloaded" });
  return page;
}

// The problems a page met, but for those the test expects (by a fragment
// of their text).
export function unexpected(page) {
  return page.problems.filter((p) => !page.expected.some((e) => p.includes(e)));
}

export async function signIn(page, user = "admin", password = "1234abcd") {
  await page.waitForSelector("form.signin input[name=username]");
  await page.type("input[name=username]", user);
  await page.type("input[name=password]", password);
  await Promise.all([page.waitForSelector("header.top:not([hidden])"), page.click("form.signin button")]);
}

// Shows a page of the console and waits for its heading.
export async function go(page, name, heading) {
  await page.evaluate((n) => { location.hash = `#/${n}`; }, name);
  await page.waitForFunction((t) => document.querySelector("main h1")?.textContent === t, {}, heading);
}

// Waits until the text of `selector` satisfies `test` (a string it holds).
export function waitText(page, selector, text, timeout = 10000) {
  return page.waitForFunction((s, t) => [...document.querySelectorAll(s)].some((e) => e.textContent.includes(t)),
                              { timeout }, selector, text);
}

// axe-core's serious and critical findings on the page as it is now.
export async function accessibility(page) {
  await page.evaluate(axeSource);
  const result = await page.evaluate(() => window.axe.run(document, { resultTypes: ["violations"] }));
  return result.violations.filter((v) => v.impact === "serious" || v.impact === "critical")
    .map((v) => `${v.id}: ${v.help} (${v.nodes.map((n) => n.target.join(" ")).slice(0, 3).join(", ")})`);
}

// The page as a picture, at a phone's width and at a desktop's.
export async function screenshots(page, name) {
  fs.mkdirSync(shots, { recursive: true });
  for (const [label, viewport] of [["phone", PHONE], ["desktop", DESKTOP]]) {
    await page.setViewport(viewport);
    await page.screenshot({ path: path.join(shots, `${name}-${label}.png`), fullPage: true });
  }
  await page.setViewport(DESKTOP);
}
