// Port forwarding: the rules, added, changed and removed; each answer shown
// where the person acted, success or the router's own words.
import * as api from "../api.js";
import { h, field, page, status, act, confirmAction } from "../ui.js";

const TABLE = "Device.NAT.PortMapping.";

// The inputs of one rule, filled from `rule` (a new one when empty).
function ruleFields(rule = {}) {
  const f = {
    Description: field("Description", h("input", { value: rule.Description || "", maxlength: 256 })),
    ExternalPort: field("Outside port", h("input", { type: "number", min: 1, max: 65535, required: true,
                                                     value: rule.ExternalPort || "" })),
    InternalClient: field("Device address", h("input", { value: rule.InternalClient || "", required: true,
                                                         placeholder: "192.168.1.20" })),
    InternalPort: field("Device port", h("input", { type: "number", min: 1, max: 65535, required: true,
                                                    value: rule.InternalPort || "" })),
    Protocol: field("Protocol", h("select", {}, ["TCP", "UDP"].map((p) =>
      h("option", { value: p, selected: (rule.Protocol || "TCP") === p }, p)))),
    Enable: field("Enabled", h("input", { type: "checkbox", checked: rule.Enable !== false })),
  };
  const values = () => ({
    Description: f.Description.input.value,
    ExternalPort: Number(f.ExternalPort.input.value),
    InternalClient: f.InternalClient.input.value.trim(),
    InternalPort: Number(f.InternalPort.input.value),
    Protocol: f.Protocol.input.value,
    Enable: f.Enable.input.checked,
  });
  return { rows: Object.values(f).map((x) => x.row), values };
}

function ruleForm(label, rule, submitLabel, onSubmit, extra) {
  const fields = ruleFields(rule);
  const st = status();
  const form = h("form", { class: "rule", "aria-label": label }, fields.rows,
    h("div", { class: "buttons" }, h("button", { type: "submit" }, submitLabel), extra), st.el);
  form.addEventListener("submit", (e) => {
    e.preventDefault();
    onSubmit(fields.values(), st);
  });
  return form;
}

export function portsPage() {
  const list = h("div", { class: "rules" });
  const st = status();
  const adding = ruleForm("New rule", {}, "Add rule", (values, s) =>
    act(s, "Adding…", () => api.addRow(TABLE, values), "Rule added."));
  const empty = h("p", {}, "No rule yet.");
  const el = page("Port forwarding", st.el,
    h("p", {}, "Each rule sends connections that reach the router on its outside port to a device of " +
                "your network."),
    list, h("details", { class: "card" }, h("summary", {}, "Add a rule"), adding));
  const rows = new Map();  // rule number -> its article

  function article(n, rule) {
    const remove = h("button", { type: "button", class: "danger" }, "Delete");
    const form = ruleForm(`Rule ${n}`, rule, "Save", (values, s) =>
      act(s, "Saving…", () => api.setValues(`${TABLE}${n}.`, values), "Saved."), remove);
    remove.addEventListener("click", async () => {
      if (!(await confirmAction("Delete this rule?", `Outside port ${rule.ExternalPort} will no ` +
                                "longer reach the device.", "Delete"))) return;
      act(st, "Deleting…", () => api.deleteRow(`${TABLE}${n}.`), `Rule ${n} deleted.`);
    });
    return h("article", { class: "card", "data-rule": n, "aria-labelledby": `rule-${n}` },
      h("h2", { id: `rule-${n}` }, rule.Description || `Rule ${n}`), form);
  }

  // One rule as it is now (null: gone); a rule being edited keeps what the
  // person typed.
  function show(n, rule) {
    const old = rows.get(n);
    if (old && old.contains(document.activeElement) && rule) return;
    if (!rule) {
      old?.remove();
      rows.delete(n);
    } else {
      const fresh = article(n, rule);
      if (old) old.replaceWith(fresh);
      else {
        const after = [...rows.keys()].filter((k) => k > n).sort((a, b) => a - b)[0];
        list.insertBefore(fresh, after ? rows.get(after) : null);
      }
      rows.set(n, fresh);
    }
    if (rows.size) empty.remove();
    else list.append(empty);
  }

  function load() {
    return api.readForPage([TABLE], st, (rules) => {
      for (const n of [...rows.keys()]) show(n, null);
      (rules || []).forEach((rule, i) => { if (rule && !rule._EmptyInstance) show(i + 1, rule); });
      if (!rows.size) list.append(empty);
    });
  }

  // The list follows every change, the person's own included.
  function onEvent(kind, data) {
    const m = /^Device\.NAT\.PortMapping\.(\d+)\.$/.exec(data.path || "");
    if (m) show(Number(m[1]), kind === "delete" ? null : data.Object);
  }

  const stop = api.live([TABLE], load, onEvent);
  return { el, title: "Port forwarding", cleanup: stop };
}
