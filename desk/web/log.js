// The plug-in's log of the chosen page, or of all.
import { byId, make, timeOf } from "./dom.js";
import { History } from "./history.js";
import { Rows } from "./rows.js";
import { numberOf } from "./state.js";

const ORDER = "VDIWEF";
const NAMES = { V: "verbose", D: "debug", I: "info", W: "warning", E: "error", F: "fatal" };

class Line {
  constructor(line) {
    this.line = line;
  }

  get element() {
    return this.row ??= this.makeRow();
  }

  makeRow() {
    const { page, time, priority, tag, text } = this.line;
    return make("li", { className: `priority-${priority ?? "none"}` },
      make("time", {}, timeOf(time)),
      make("span", { className: "chip" }, `#${numberOf(page)}`),
      make("abbr", { title: NAMES[priority] ?? "printed by the process, not by the logger" }, priority ?? "–"),
      make("span", { className: "text", title: tag ?? "" }, text));
  }
}

let lowest, wanted;
function readFilter() {
  lowest = ORDER.indexOf(byId("log-priority").value);
  wanted = byId("log-find").value.toLowerCase();
}
readFilter();

const history = new History("log", { append: (lines) => rows.append(lines.map((line) => new Line(line))), restart: () => rows.clear() });
const rows = new Rows(byId("log"), {
  label: "Lines",
  passes: ({ line: { priority, text } }) => (!priority || ORDER.indexOf(priority) >= lowest) &&
    text.toLowerCase().includes(wanted),
  empty: () => history.unread.length ? "These lines were not read before the desk ended." : "The plug-in has logged nothing.",
});

export const addLine = (line) => history.add(line);
export const load = () => history.load();
export const prepare = (page) => history.prepare(page);

byId("log-priority").onchange = byId("log-find").oninput = () => {
  readFilter();
  rows.toEnd();
};
byId("log-clear").onclick = () => rows.clear();
