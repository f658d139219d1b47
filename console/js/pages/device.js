// Device: restart the router, one mesh agent or the whole mesh, and reset
// the mesh's settings; each asks first.
import * as api from "../api.js";
import { h, field, page, status, act, confirmAction } from "../ui.js";

const MAC = /^([0-9A-Fa-f]{2}:){5}[0-9A-Fa-f]{2}$/;

// Where a mesh action goes: the whole mesh, this router, or one agent.
function scopeChooser(name) {
  const agent = field("Agent's MAC address", h("input", { pattern: MAC.source, placeholder: "02:10:18:00:00:01",
                                                          autocomplete: "off" }));
  const choices = [["all", "The whole mesh"], ["controller", "This router only"], ["agent", "One agent"]];
  const radios = choices.map(([value, label], i) => {
    const input = h("input", { type: "radio", name, value, id: `${name}-${value}`, checked: i === 0 });
    return h("div", { class: "choice" }, input, h("label", { for: input.id }, label));
  });
  const fieldset = h("fieldset", {}, h("legend", {}, "Which"), radios, agent.row);
  const value = () => fieldset.querySelector("input[type=radio]:checked").value;
  return {
    el: fieldset,
    // The query of the choice; null (with the reason) when the agent is not one.
    query() {
      if (value() === "all") return "";
      if (value() === "controller") return "device=controller";
      const mac = agent.input.value.trim();
      return MAC.test(mac) ? `device=${encodeURIComponent(mac)}` : null;
    },
    label() {
      return value() === "agent" ? `the agent ${agent.input.value.trim()}`
                                 : value() === "controller" ? "this router" : "the whole mesh";
    },
  };
}

function action(title, text, button, uri, verb, withScope) {
  const scope = withScope ? scopeChooser(uri) : null;
  const st = status();
  const go = h("button", { type: "button", class: "danger" }, button);
  go.addEventListener("click", async () => {
    const query = scope ? scope.query() : "";
    if (query === null) return st.fail("Give the agent's MAC address, like 02:10:18:00:00:01.");
    const whom = scope ? scope.label() : "the router";
    if (!(await confirmAction(`${title}?`, `${text} This applies to ${whom}.`, button))) return;
    act(st, "Sending…", () => api.write("POST", query ? `${uri}?${query}` : uri),
        `${verb} ${whom}: done.`);
  });
  const id = `act-${uri}`;
  return h("article", { class: "card", "aria-labelledby": id }, h("h2", { id }, title),
    h("p", {}, text), scope && scope.el, go, st.el);
}

export function devicePage() {
  const el = page("Device",
    action("Restart the router", "The network is down for a minute or two.", "Restart", "Reboot",
           "Restarting", false),
    action("Restart the mesh", "Every device of the mesh you choose restarts.", "Restart",
           "MeshReboot", "Restarting", true),
    action("Reset the mesh settings", "The settings go back to the factory's, and the devices restart.",
           "Reset", "MeshResetAllSetting", "Resetting", true));
  return { el, title: "Device" };
}
