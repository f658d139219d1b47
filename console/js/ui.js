// Small pieces every page builds with: elements, the status line of an
// action, a confirmation, and values as a person reads them.

// An element: h("button", {type: "submit", onclick: f}, "Save").
export function h(tag, attrs = {}, ...children) {
  const el = document.createElement(tag);
  for (const [name, value] of Object.entries(attrs)) {
    if (value === undefined || value === null || value === false) continue;
    if (name.startsWith("on")) el.addEventListener(name.slice(2), value);
    else if (name === "text") el.textContent = value;
    else el.setAttribute(name, value === true ? "" : String(value));
  }
  for (const child of children.flat(Infinity)) {
    if (child === null || child === undefined || child === false) continue;
    el.append(child instanceof Node ? child : document.createTextNode(String(child)));
  }
  return el;
}

let ids = 0;
export function uid(prefix) {
  ids += 1;
  return `${prefix}-${ids}`;
}

// A labelled field; returns {row, input}.
export function field(label, input, hint) {
  input.id = input.id || uid("f");
  const hintEl = hint ? h("p", { class: "hint", id: `${input.id}-hint` }, hint) : null;
  if (hintEl) input.setAttribute("aria-describedby", hintEl.id);
  return { row: h("div", { class: "field" }, h("label", { for: input.id }, label), input, hintEl), input };
}

// Where an action's outcome is told, beside the action (read out as it changes).
export function status() {
  const el = h("p", { class: "status", role: "status", "aria-live": "polite" });
  return {
    el,
    busy(text) { el.className = "status busy"; el.textContent = text; },
    ok(text) { el.className = "status ok"; el.textContent = text; },
    fail(text) { el.className = "status fail"; el.textContent = text; },
    clear() { el.className = "status"; el.textContent = ""; },
  };
}

// Runs an action with its outcome in `st`: success, or the device's own text.
export async function act(st, busyText, fn, okText) {
  st.busy(busyText);
  try {
    const result = await fn();
    st.ok(okText);
    return result;
  } catch (e) {
    st.fail(e.message || String(e));
    return undefined;
  }
}

// Asks before something that cannot be undone (a native dialog: focus and
// keyboard as the browser does them).
export function confirmAction(title, text, confirmLabel) {
  return new Promise((resolve) => {
    const dialog = h("dialog", { class: "confirm", "aria-labelledby": "confirm-title" },
      h("h2", { id: "confirm-title" }, title), h("p", {}, text),
      h("form", { method: "dialog", class: "buttons" },
        h("button", { value: "cancel", class: "secondary" }, "Cancel"),
        h("button", { value: "ok", class: "danger" }, confirmLabel)));
    dialog.addEventListener("close", () => {
      resolve(dialog.returnValue === "ok");
      dialog.remove();
    });
    document.body.append(dialog);
    dialog.showModal();
  });
}

export function duration(seconds) {
  const s = Number(seconds) || 0;
  const d = Math.floor(s / 86400), hh = Math.floor((s % 86400) / 3600), mm = Math.floor((s % 3600) / 60);
  return d ? `${d} d ${hh} h ${mm} min` : hh ? `${hh} h ${mm} min` : `${mm} min ${s % 60} s`;
}

// A page's heading and body.
export function page(title, ...children) {
  return h("section", { class: "page" }, h("h1", { tabindex: "-1" }, title), ...children);
}

// A key/value list.
export function facts(pairs) {
  return h("dl", { class: "facts" },
    pairs.map(([k, v]) => [h("dt", {}, k),
                           h("dd", {}, v instanceof Node ? v : v === "" || v === undefined ? "—" : String(v))]));
}
