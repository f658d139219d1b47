// Wi-Fi: every network (SSID) with its settings; its name and pass phrase
// changed in place; the WPS push button, whose progress the event stream
// shows as it goes.
import * as api from "../api.js";
import { h, field, facts, page, status, act } from "../ui.js";

const BANDS = { "Device.WiFi.Radio.1": "2.4 GHz", "Device.WiFi.Radio.2": "5 GHz" };

// The access point of each SSID (its number), by the AP's SSIDReference.
function accessPointOf(aps, ssidNumber) {
  const i = aps.findIndex((ap) => ap && ap.SSIDReference === `WiFi.SSID.${ssidNumber}`);
  return i >= 0 ? i + 1 : 0;
}

function networkCard(n, ssid, ap, security, wps) {
  const id = `net-${n}`;
  const name = field("Network name", h("input", { value: ssid.SSID || "", maxlength: 32, required: true,
                                                    autocomplete: "off" }));
  const pass = field("Pass phrase", h("input", { type: "password", autocomplete: "new-password",
                                                  minlength: 8, maxlength: 63, placeholder: "unchanged" }),
                     "8 to 63 characters; leave empty to keep the present one.");
  const saved = status();
  const form = h("form", { class: "settings", "aria-label": `Settings of ${ssid.SSID}` },
    name.row, ap ? pass.row : null, h("button", { type: "submit" }, "Save"), saved.el);
  form.addEventListener("submit", (e) => {
    e.preventDefault();
    act(saved, "Saving…", async () => {
      await api.setValues(`Device.WiFi.SSID.${n}.`, { SSID: name.input.value });
      if (ap && pass.input.value)
        await api.setValues(`Device.WiFi.AccessPoint.${ap}.Security.`, { KeyPassphrase: pass.input.value });
      pass.input.value = "";
    }, "Saved.");
  });
  const wpsState = h("span", { class: "wps-status", "data-ap": ap, role: "status", "aria-live": "polite" },
                     (wps && wps.X_OLVEX_WPSRunningStatus) || "Not running");
  const pressed = status();
  const wpsButton = h("button", { type: "button", class: "secondary", onclick: () =>
    act(pressed, "Starting WPS…", () => api.setValues(`Device.WiFi.AccessPoint.${ap}.WPS.`,
                                                       { X_OlVEX_TriggerWPSPushButton: true }),
        "WPS started: press the button on your device within two minutes.") }, "Start WPS");
  return h("article", { class: "card network", id, "aria-labelledby": `${id}-title` },
    h("h2", { id: `${id}-title` }, ssid.SSID || `Network ${n}`),
    facts([["Band", BANDS[ssid.LowerLayers] || ssid.LowerLayers], ["Status", ssid.Status],
           ["Security", security ? security.ModeEnabled : ""], ["BSSID", ssid.BSSID]]),
    form,
    ap && wps && wps.Enable ? h("div", { class: "wps" }, h("h3", {}, "WPS"),
      h("p", {}, "Status: ", wpsState), wpsButton, pressed.el) : null);
}

export function wifiPage() {
  const list = h("div", { class: "cards" });
  const st = status();
  const el = page("Wi-Fi", st.el, list);

  function load() {
    return api.readForPage(["Device.WiFi.SSID.", ["Device.WiFi.AccessPoint.", { subtree: true }]], st,
      (ssidList, apList) => {
        const [ssids, aps] = [ssidList || [], apList || []];
        list.replaceChildren(...ssids.map((ssid, i) => {
          if (!ssid || ssid._EmptyInstance) return null;
          const ap = accessPointOf(aps, i + 1);
          const point = ap ? aps[ap - 1] : null;
          return networkCard(i + 1, ssid, ap, point && point.Security, point && point.WPS);
        }));
      });
  }

  // A network's name changed (here, in another tab, by anyone): shown at
  // once, without touching what a person is typing.  A WPS step: its status.
  function onEvent(kind, data) {
    const wps = /^Device\.WiFi\.AccessPoint\.(\d+)\.WPS\.$/.exec(data.path || "");
    if (wps && data.Object) {
      const s = el.querySelector(`.wps-status[data-ap="${wps[1]}"]`);
      if (s) s.textContent = data.Object.X_OLVEX_WPSRunningStatus || "Not running";
      return;
    }
    const ssid = /^Device\.WiFi\.SSID\.(\d+)\.$/.exec(data.path || "");
    if (ssid && data.Object) {
      const card = el.querySelector(`#net-${ssid[1]}`);
      const input = card && card.querySelector("input:not([type=password])");
      if (card) card.querySelector("h2").textContent = data.Object.SSID;
      if (input && document.activeElement !== input) input.value = data.Object.SSID;
      return;
    }
    if (kind !== "change") load();
  }

  const stop = api.live(["Device.WiFi."], load, onEvent);
  return { el, title: "Wi-Fi", cleanup: stop };
}
