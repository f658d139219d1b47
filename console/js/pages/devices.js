// Connected devices: the host list with what the mesh's host-probe database
// adds (connection, signal, the access point it uses).  A device that joins
// or leaves appears or goes as it happens.
import * as api from "../api.js";
import { h, page, status } from "../ui.js";

function row(n, host) {
  const signal = host.X_OLVEX_RSSI ? `${host.X_OLVEX_RSSI} dBm (${host.X_OLVEX_RSSI_STAT || ""})` : "—";
  return h("tr", { "data-host": n, class: host.Active ? "" : "inactive" },
    h("th", { scope: "row" }, host.HostName || host.PhysAddress || `Device ${n}`),
    h("td", {}, host.IPAddress || "—"), h("td", { class: "mono" }, host.PhysAddress || "—"),
    h("td", {}, host.X_OLVEX_ConnectionType || host.InterfaceType || "—"), h("td", {}, signal),
    h("td", {}, host.X_OLVEX_ConnectedAP || "—"), h("td", {}, host.Active ? "Connected" : "Away"));
}

export function devicesPage() {
  const body = h("tbody");
  const count = h("p", { class: "count", role: "status", "aria-live": "polite" });
  const st = status();
  const table = h("table", { class: "list" },
    h("caption", {}, "Devices the router knows"),
    h("thead", {}, h("tr", {}, ["Name", "Address", "MAC address", "Connection", "Signal", "Access point",
                                 "State"].map((c) => h("th", { scope: "col" }, c)))), body);
  const el = page("Connected devices", st.el, count, h("div", { class: "scroll" }, table));
  const hosts = new Map();  // number -> host

  function render() {
    const numbers = [...hosts.keys()].sort((a, b) => a - b);
    body.replaceChildren(...numbers.map((n) => row(n, hosts.get(n))));
    const active = [...hosts.values()].filter((x) => x.Active).length;
    count.textContent = `${active} connected, ${hosts.size} known.`;
  }

  function load() {
    return api.readForPage(["Device.Hosts.Host."], st, (all) => {
      hosts.clear();
      (all || []).forEach((x, i) => { if (x && !x._EmptyInstance) hosts.set(i + 1, x); });
      render();
    });
  }

  // Each event carries the host as a read shows it: no read needed.
  function onEvent(kind, data) {
    const m = /^Device\.Hosts\.Host\.(\d+)\.$/.exec(data.path || "");
    if (!m) return;
    if (kind === "delete") hosts.delete(Number(m[1]));
    else if (data.Object) hosts.set(Number(m[1]), data.Object);
    render();
  }

  const stop = api.live(["Device.Hosts.Host."], load, onEvent);
  return { el, title: "Connected devices", cleanup: stop };
}
