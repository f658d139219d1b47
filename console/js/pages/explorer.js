// The data-model explorer, for app developers: the tree of the data model
// (TR181/SupportedDM), the values of any object, every writable parameter
// edited in place, the exact request and answer of each call (to copy into
// one's own client), and a live log of the events of a chosen path.
import * as api from "../api.js";
import { h, page, status, act } from "../ui.js";

const isObject = (node) => node && (node._Node === "object" || node._Node === "index_object");

// An input for a parameter of `type` holding `value`.
function inputFor(name, type, value, writable) {
  const attrs = { id: `p-${name}`, name, disabled: !writable };
  if (type === "boolean") return h("input", { ...attrs, type: "checkbox", checked: value === true });
  if (/int/.test(type)) return h("input", { ...attrs, type: "number", value: value ?? "" });
  return h("input", { ...attrs, value: value ?? "" });
}

function valueOf(input, type) {
  if (type === "boolean") return input.checked;
  if (/int/.test(type)) return Number(input.value);
  return input.value;
}

export function explorerPage() {
  const tree = h("ul", { class: "tree" });
  const values = h("div", { class: "values" }, h("p", {}, "Choose an object of the tree."));
  const calls = h("ol", { class: "calls", "aria-label": "Calls, newest first" });
  const events = h("ol", { class: "events", "aria-label": "Events, newest first" });
  const st = status();
  const watchPath = h("input", { id: "watch-path", value: "Device.", pattern: "Device\\.([A-Za-z0-9_\\-]+\\.)*" });
  const watchButton = h("button", { type: "submit" }, "Follow");
  const watching = status();
  const watch = h("form", { class: "watch" }, h("label", { for: "watch-path" }, "Path to follow"),
    watchPath, watchButton, watching.el);
  const el = page("Data model", st.el,
    h("div", { class: "explorer" },
      h("nav", { class: "tree-pane", "aria-label": "Data model tree" }, tree),
      h("section", { class: "values-pane", "aria-label": "Values" }, values)),
    h("section", { "aria-labelledby": "calls-title" }, h("h2", { id: "calls-title" }, "Calls"),
      h("p", { class: "hint" }, "Each request of this page and the router's answer, as your own client " +
        "would send it (the session key masked)."), calls),
    h("section", { "aria-labelledby": "events-title" }, h("h2", { id: "events-title" }, "Live events"),
      watch, events));
  let schema = null, following = null;

  // One call, as made and answered.
  const offCall = api.onCall((c) => {
    const item = h("li", {},
      h("p", { class: "mono" }, `${c.method} /api/v1/${c.uri} → ${c.status}`,
        c.eventId ? ` (X-Event-Id: ${c.eventId})` : ""),
      c.request !== undefined ? h("pre", { class: "mono", "aria-label": "Request body" },
                                  JSON.stringify(c.request, null, 2)) : null,
      h("pre", { class: "mono", "aria-label": "Answer" },
        typeof c.answer === "string" ? c.answer : JSON.stringify(c.answer, null, 2)));
    calls.prepend(item);
    while (calls.children.length > 12) calls.lastElementChild.remove();
  });

  // The node of the schema at `path` ("Device.NAT.PortMapping.2." reads the
  // table's node).
  function nodeAt(path) {
    let node = { Device: schema };
    for (const part of path.split(".").filter(Boolean)) {
      if (!node) return null;
      node = /^\d+$/.test(part) ? node : node[part];
    }
    return node;
  }

  async function showValues(path) {
    const node = nodeAt(path);
    const saved = status();
    try {
      const { object } = await api.read(path);
      if (Array.isArray(object)) {
        values.replaceChildren(h("h2", {}, path),
          h("p", {}, `A table of ${object.filter((x) => x && !x._EmptyInstance).length} rows: open one ` +
                      "in the tree."));
        return;
      }
      const params = Object.entries(node || {}).filter(([k, v]) => !k.startsWith("_") && v._Node === "parameter");
      const rows = params.map(([name, p]) => {
        const writable = /write/.test(p._Attribute);
        const input = inputFor(name, p._Type, object[name], writable);
        input.dataset.type = p._Type;
        return h("tr", {}, h("th", { scope: "row" }, h("label", { for: input.id }, name)),
          h("td", {}, input), h("td", { class: "hint" }, `${p._Type}${writable ? "" : ", read only"}`));
      });
      const form = h("form", { "aria-label": `Values of ${path}` },
        h("table", { class: "list" }, h("caption", {}, path),
          h("thead", {}, h("tr", {}, ["Parameter", "Value", "Type"].map((c) => h("th", { scope: "col" }, c)))),
          h("tbody", {}, rows)),
        params.some(([, p]) => /write/.test(p._Attribute)) ? h("button", { type: "submit" }, "Save changes")
                                                            : null, saved.el);
      form.addEventListener("submit", (e) => {
        e.preventDefault();
        const changed = {};
        for (const input of form.querySelectorAll("input:not([disabled])")) {
          const v = valueOf(input, input.dataset.type);
          if (v !== object[input.name]) changed[input.name] = v;
        }
        if (!Object.keys(changed).length) return saved.ok("Nothing changed.");
        act(saved, "Saving…", () => api.setValues(path, changed), "Saved.");
      });
      values.replaceChildren(form);
    } catch (e) {
      values.replaceChildren(h("h2", {}, path), saved.el);
      saved.fail(e.message);
    }
  }

  // A tree item: its object, and a button that opens its children.
  function item(path, label, node) {
    const children = h("ul", { hidden: true });
    const open = h("button", { type: "button", class: "twisty", "aria-expanded": "false",
                               "aria-label": `Open ${path}` }, "▸");
    const choose = h("button", { type: "button", class: "node", onclick: () => {
      for (const b of tree.querySelectorAll(".node[aria-current]")) b.removeAttribute("aria-current");
      choose.setAttribute("aria-current", "true");
      showValues(path);
    } }, label);
    open.addEventListener("click", async () => {
      const expanded = open.getAttribute("aria-expanded") === "true";
      open.setAttribute("aria-expanded", String(!expanded));
      open.textContent = expanded ? "▸" : "▾";
      children.hidden = expanded;
      if (!expanded && !children.children.length) children.append(...(await childItems(path, node)));
    });
    return h("li", {}, open, choose, children);
  }

  // The objects below a node; a table's rows as the device has them now.
  async function childItems(path, node) {
    if (node._Node === "index_object" && !/\d+\.$/.test(path)) {
      try {
        const { object } = await api.read(path);
        return (object || []).map((row, i) => row && !row._EmptyInstance ? item(`${path}${i + 1}.`, `${i + 1}`, node)
                                                                          : null).filter(Boolean);
      } catch (e) {
        return [h("li", {}, e.message)];
      }
    }
    return Object.entries(node).filter(([k, v]) => !k.startsWith("_") && isObject(v))
      .map(([k, v]) => item(`${path}${k}.`, k, v));
  }

  watch.addEventListener("submit", (e) => {
    e.preventDefault();
    if (following) {
      following.close();
      following = null;
      watching.clear();
      watchButton.textContent = "Follow";
      return;
    }
    events.replaceChildren();
    const note = (kind, data) => {
      events.prepend(h("li", { class: "mono" }, `${new Date().toLocaleTimeString()} ${kind} `,
                       JSON.stringify(data)));
      while (events.children.length > 50) events.lastElementChild.remove();
    };
    const path = watchPath.value;
    following = api.follow([path], null, {
      change: (d) => note("change", d), add: (d) => note("add", d), delete: (d) => note("delete", d),
      resync: () => note("resync", {}), open: () => watching.ok(`Following ${path}`),
    });
    watching.busy(`Opening the stream of ${path}…`);
    watchButton.textContent = "Stop";
  });

  (async () => {
    try {
      schema = await api.schema("Device.?first_level_only=false");
      tree.replaceChildren(item("Device.", "Device", schema));
    } catch (e) {
      st.fail(e.message);
    }
  })();
  return { el, title: "Data model", cleanup: () => { offCall(); following?.close(); } };
}
