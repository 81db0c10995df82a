// Building the screen's elements. All text from the service goes in as text, never as markup.

export function el(tag, attributes = {}, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (value === false || value === null || value === undefined) continue;
    if (name === "onclick") node.addEventListener("click", value);
    else if (name === "class") node.className = value;
    else node.setAttribute(name, value === true ? "" : value);
  }
  for (const child of children.flat()) {
    if (child !== null && child !== undefined && child !== false) {
      node.append(child instanceof Node ? child : String(child));
    }
  }
  return node;
}

export function button(label, onclick, attributes = {}) {
  return el("button", { class: "focusable", onclick, ...attributes }, label);
}

// The labels of button1..button10 that are not empty, in order.
export function buttonLabels(record) {
  const labels = [];
  for (let i = 1; i <= 10; ++i) {
    if (record[`button${i}`] !== "") labels.push({ index: i, label: record[`button${i}`] });
  }
  return labels;
}

// "details" is plain text, or for the privacy record a JSON array of sections.
function sections(details) {
  const text = details.trim();
  if (!text.startsWith("[")) return null;
  try {
    const parsed = JSON.parse(text);
    return Array.isArray(parsed) ? parsed : null;
  } catch (e) {
    return null;
  }
}

export function renderDetails(details) {
  const box = el("div", { class: "details focusable scroll", tabindex: "0", "data-role": "details", "data-key": "details" });
  const list = sections(details);
  if (list) {
    box.append(
      el(
        "ol",
        {},
        list.map((section) => {
          if (section !== null && typeof section === "object") {
            const title = typeof section.title === "string" ? section.title : "";
            const content = Object.entries(section)
              .filter(([key, value]) => key !== "title" && typeof value === "string")
              .map(([, value]) => value)
              .join(" ");
            return el("li", {}, title ? el("strong", {}, title) : null, content);
          }
          return el("li", {}, String(section));
        }),
      ),
    );
  } else {
    for (const paragraph of details.split(/\n+/)) {
      if (paragraph.trim() !== "") box.append(el("p", {}, paragraph));
    }
  }
  return box;
}

// The answer state a screen shows: agreed, not agreed, waiting for another record, or a notice.
export function answerState(record, dependency) {
  if (record.only_notice) return { state: "notice", text: "Notice" };
  if (dependency && !dependency.is_agreed) {
    return { state: "waiting", text: `Waiting for “${dependency.title || dependency.id}”` };
  }
  return record.is_agreed ? { state: "agreed", text: "Agreed" } : { state: "not-agreed", text: "Not agreed" };
}

// One disclaimer on its own screen. `actions` holds the buttons as {index, label, run, agrees};
// an agreeing button is disabled while the record waits for another one.
export function renderDisclaimer(record, { dependency, actions, extra, untagged }) {
  const shown = answerState(record, dependency);
  const blocked = (action) => action.agrees && shown.state === "waiting";
  const first = actions.findIndex((action) => !blocked(action));
  const card = el(
    "section",
    { class: "disclaimer", "data-id": record.id, dir: record.reverse ? "rtl" : "ltr" },
    el("h1", {}, record.title),
    record.intro ? el("p", { class: "intro" }, record.intro) : null,
    untagged ? null : el("div", { class: "tags" }, el("span", { class: "tag", "data-state": shown.state }, shown.text)),
    extra || null,
    record.details ? renderDetails(record.details) : null,
    el(
      "div",
      { class: "buttons" },
      actions.map((action, i) =>
        button(action.label, action.run, {
          "data-button": action.index,
          "data-key": `button${action.index}`,
          "data-autofocus": i === first,
          disabled: blocked(action),
        }),
      ),
    ),
  );
  return card;
}
