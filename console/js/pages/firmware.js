// Firmware: the version running, a check for a newer one online, and the
// upgrade, with its steps as the router reports them.
import * as api from "../api.js";
import { h, facts, page, status, act, confirmAction } from "../ui.js";

const OBJECT = "Device.X_OLVEX_PeriodicOnlineFWUpgrade.";
// What LastFWUpdateStatus says.
const STEPS = {
  0: "No check yet",
  10: "No newer firmware",
  15: "New firmware found",
  16: "The firmware service's answer could not be used",
  18: "The firmware image was refused",
  20: "The upgrade failed",
  21: "The firmware service failed",
  22: "Upgrade started: the router installs the new firmware and restarts",
};

export function firmwarePage() {
  const info = h("div");
  const st = status();
  const checked = status();
  const upgraded = status();
  const progress = h("p", { class: "progress", role: "status", "aria-live": "polite" });
  let fw = {}, device = {};
  const check = h("button", { type: "button" }, "Check for new firmware");
  const upgrade = h("button", { type: "button", class: "danger" }, "Upgrade now");
  const el = page("Firmware", st.el, info,
    h("div", { class: "buttons" }, check, upgrade), checked.el, progress, upgraded.el);

  function render() {
    info.replaceChildren(facts([
      ["Running", device.SoftwareVersion],
      ["Newer firmware", fw.NewFWAvailable ? `Available, released ${fw.ReleaseDate}` : "None found"],
      ["Notes", fw.NewFWAvailable ? fw.Description : "—"],
      ["Last result", STEPS[fw.LastFWUpdateStatus] || `Code ${fw.LastFWUpdateStatus}`]]));
    upgrade.disabled = !fw.NewFWAvailable;
    progress.textContent = STEPS[fw.LastFWUpdateStatus] || "";
  }

  function load() {
    return api.readForPage([OBJECT, "Device.DeviceInfo."], st, (f, d) => {
      [fw, device] = [f, d];
      render();
    });
  }

  check.addEventListener("click", () =>
    act(checked, "Asking the firmware service…", () => api.get("FOTA"), "Checked."));
  upgrade.addEventListener("click", async () => {
    if (!(await confirmAction("Upgrade the firmware?", `The router downloads the firmware released ` +
                              `${fw.ReleaseDate}, installs it and restarts; the network is down for a ` +
                              "few minutes.",
                              "Upgrade"))) return;
    act(upgraded, "Downloading the new firmware…", () => api.write("POST", "FOTA?action=online"),
        "The download is done and the upgrade has started.");
  });

  const stop = api.live([OBJECT, "Device.DeviceInfo."], load, (kind, data) => {
    if (data.path === OBJECT && data.Object) fw = data.Object;
    else if (data.path === "Device.DeviceInfo." && data.Object) device = data.Object;
    render();
  });
  return { el, title: "Firmware", cleanup: stop };
}
