// The dialogue of the chosen page, or of all.
import { byId, copyFrom, fillSelect, moveWithArrows, setText } from "./dom.js";
import { Exchange } from "./exchange.js";
import { History } from "./history.js";
import { MAX_ROWS, Rows } from "./rows.js";
import { forgetClosed, listeningPage, numberOf, observe, settingAt, shortName, state, titleOf } from "./state.js";

const exchanges = new Map(); // by page and number of the entry that opened the row, oldest first

function seen() {
  const [kind, setting] = [byId("filter-kind").value, byId("filter-setting").value];
  const failures = byId("filter-failures").checked;
  setText(byId("show-filters"), kind || setting || failures ? "Filter (on)" : "Filter");
  return { kind, setting, failures };
}
let filter = seen();
const history = new History("dialogue", { append, restart: clear });
const rows = new Rows(byId("dialogue"), { label: "Messages", passes: (exchange) => exchange.passes(filter),
  empty: () => history.unread.length ? "These messages were not read before the desk ended." : "No messages." });

const heard = new Set(); // pages that have had an event

const keyOf = (page, n) => `${page} ${n}`;

function append(entries) {
  const made = [];
  for (const { kind, page } of entries) if (kind === "message") heard.add(page);
  for (const entry of entries) {
    const request = entry.to === undefined ? null : exchanges.get(keyOf(entry.page, entry.to));
    if (request) {
      request.complete(entry);
      continue;
    }
    const exchange = new Exchange(entry, numberOf(entry.page));
    exchanges.set(keyOf(entry.page, entry.n), exchange);
    made.push(exchange);
    if (exchanges.size > MAX_ROWS) exchanges.delete(exchanges.keys().next().value);
  }
  rows.append(made);
  showHint();
}

function clear() {
  exchanges.clear();
  rows.clear();
}

export const addEntry = (entry) => history.add(entry);
export const load = () => history.load();
export const prepare = (page) => history.prepare(page);

// What is missing after the desk has ended. Before that what to do next, until a page that watches a setting has heard
// of its first change.
function showHint() {
  const { unread } = history;
  if (unread.length && exchanges.size) {
    byId("hint").hidden = false;
    return setText(byId("hint"), `Not read before the desk ended: the messages of ${unread.map(titleOf).join(", ")}.`);
  }
  const page = listeningPage();
  const watched = page?.watches.map(settingAt).find((setting) => setting?.type === "int");
  byId("hint").hidden = !watched || heard.has(page.id) || byId("dialogue").ariaBusy === "true";
  if (watched) setText(byId("hint"), `Change ${watched.label} under Settings with + or −; its event appears here.`);
}
observe(["catalog", "pages", "selected", "linked"], () => {
  forgetClosed(heard);
  showHint();
});

// In the form of the input and output of `mirado host`.
function asJsonLines() {
  return [...exchanges.values()].flatMap(({ entries }) => entries).filter(({ kind }) => kind !== "crash")
    .sort((one, other) => one.time - other.time || one.n - other.n)
    .map(({ kind, body }) => JSON.stringify({ [kind]: body })).join("\n") + "\n";
}

for (const id of ["filter-kind", "filter-setting", "filter-failures"]) {
  byId(id).onchange = () => {
    filter = seen();
    rows.toEnd();
  };
}
byId("clear").onclick = clear;
byId("copy").onclick = () => copyFrom(byId("copy"), asJsonLines());
moveWithArrows(rows.scroller, () => [...rows.list.children].map((row) => row.firstElementChild),
  (button) => button.scrollIntoView({ block: "nearest" }), ["ArrowUp", "ArrowDown"]);

observe(["catalog"], () => fillSelect(byId("filter-setting"), [{ value: "", text: "All settings" },
  ...state.catalog.settings.map((setting) => ({ value: setting.path, text: shortName(setting) }))]));
