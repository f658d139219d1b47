// Overview: the router at a glance, kept up to date by the event stream.
import * as api from "../api.js";
import { h, facts, page, duration, status } from "../ui.js";

export function overviewPage() {
  const body = h("div", { class: "cards" });
  const st = status();
  const el = page("Overview", st.el, body);
  let info = {}, wan = {}, hosts = [], readAt = 0;

  const uptime = () => duration((info.UpTime || 0) + Math.floor((Date.now() - readAt) / 1000));
  function render() {
    const known = hosts.filter((x) => x && !x._EmptyInstance);
    body.replaceChildren(
      h("article", { class: "card", "aria-labelledby": "ov-dev" }, h("h2", { id: "ov-dev" }, "Router"),
        facts([["Model", info.ModelName], ["Firmware", info.SoftwareVersion],
               ["Up for", h("span", { id: "uptime" }, uptime())], ["Serial number", info.SerialNumber]])),
      h("article", { class: "card", "aria-labelledby": "ov-wan" }, h("h2", { id: "ov-wan" }, "Internet"),
        facts([["Status", wan.Status === "Enable" ? "Connected" : wan.Status || "Unknown"],
               ["Address", wan.IPAddress], ["DNS server", wan.DNSServer], ["Mode", wan.Mode],
               ["WAN MAC address", wan.MAC]])),
      h("article", { class: "card", "aria-labelledby": "ov-hosts" }, h("h2", { id: "ov-hosts" }, "Devices"),
        facts([["Connected now", h("span", { id: "connected-count" },
                                   String(known.filter((x) => x.Active).length))],
               ["Known", String(known.length)]]),
        h("a", { href: "#/devices" }, "See connected devices")));
  }

  function load() {
    return api.readForPage(["Device.DeviceInfo.", "Device.DeviceInfo.WanInfo.", "Device.Hosts.Host."],
      st, (i, w, hs) => {
        [info, wan, hosts] = [i, w, hs || []];
        readAt = Date.now();
        render();
      });
  }

  const stop = api.live(["Device.DeviceInfo.", "Device.Hosts."], load, () => load());
  const ticker = setInterval(() => {
    const u = el.querySelector("#uptime");
    if (u) u.textContent = uptime();
  }, 1000);
  return { el, title: "Overview", cleanup: () => { stop(); clearInterval(ticker); } };
}
