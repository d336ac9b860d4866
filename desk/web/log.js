// The plug-in's log of all pages, filtered by priority and text.
import { appendRows, byId, make, timeOf } from "./dom.js";

const ORDER = "VDIWEF";
const NAMES = { V: "verbose", D: "debug", I: "info", W: "warning", E: "error", F: "fatal" };
const list = byId("log");

function passes(row) {
  const { priority, text } = row.dataset;
  const good = !priority || ORDER.indexOf(priority) >= ORDER.indexOf(byId("log-priority").value);
  return good && text.includes(byId("log-find").value.toLowerCase());
}

function filter() {
  for (const row of list.children) row.hidden = !passes(row);
  list.scrollTop = list.scrollHeight;
}

// `number` is the page's.
export function append(lines) {
  appendRows(list, lines.map(({ time, priority, tag, text, number }) => {
    const row = make("li", { className: `priority-${priority ?? "none"}` },
      make("time", {}, timeOf(time)),
      make("span", { className: "chip" }, `#${number}`),
      make("abbr", { title: NAMES[priority] ?? "no line of the logger" }, priority ?? "–"),
      make("span", { className: "text", title: tag ?? "" }, text));
    row.dataset.priority = priority ?? "";
    row.dataset.text = text.toLowerCase();
    row.hidden = !passes(row);
    return row;
  }));
}

byId("log-priority").onchange = filter;
byId("log-find").oninput = filter;
byId("log-clear").onclick = () => list.replaceChildren();
