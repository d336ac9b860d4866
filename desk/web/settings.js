// The settings in groups, and all other keys of the store.
import * as api from "./api.js";
import { attempt } from "./banner.js";
import { byId, make, showInvalid } from "./dom.js";
import { SettingRow } from "./setting-row.js";
import { changed, observe, state } from "./state.js";

const OTHER = "Other keys";
const ORDER = ["Caption", "Digital caption", "Accessibility", "Subtitles", "Audio", "Viewer"];
const PREFIX = /^(db|memory)\/./;
const rows = new Map(); // by path
const groups = new Map(); // by name: the list of its rows
let read = null; // by path: the values that changed while the list was requested; null if it is not requested
let flashing = new Set();

function listOf(group) {
  if (!groups.has(group)) {
    const list = make("ul", { "aria-label": group });
    groups.set(group, list);
    const section = make("div", { className: "group" }, make("h3", {}, group), list);
    byId("groups").append(section);
    if (group !== OTHER && groups.has(OTHER)) section.after(groups.get(OTHER).parentElement);
  }
  return groups.get(group);
}

function rowOf(path) {
  if (!rows.has(path)) {
    const setting = state.catalog.settings.find((each) => each.path === path) ?? { path };
    const row = new SettingRow(setting);
    rows.set(path, row);
    const list = listOf(setting.group ?? OTHER);
    const next = setting.name ? null : [...rows.values()].filter((each) => !each.setting.name && each.path > path)
      .sort((one, other) => one.path < other.path ? -1 : 1)[0]?.element;
    list.insertBefore(row.element, next ?? null);
  }
  return rows.get(path);
}

/** A key has another value; null if it was removed. */
export function changeSetting({ path, value }) {
  read?.set(path, value);
  rows.get(path)?.hear(value);
  if (!state.values) return;
  if (value === null) state.values.delete(path);
  else state.values.set(path, value);
  flashing.add(path);
  changed("values");
}

/** Reads all keys again. If that fails, no value is known. */
export async function load() {
  const good = await attempt("settings", async () => {
    read = new Map();
    const { keys } = await api.get("/api/store");
    const values = new Map(keys.map(({ path, value }) => [path, value]));
    for (const [path, value] of read) {
      if (value === null) values.delete(path);
      else values.set(path, value);
    }
    state.values = values;
    for (const row of rows.values()) row.forgetWritten();
    changed("values");
  });
  read = null;
  if (good) return;
  state.values = null;
  changed("values");
}

function show() {
  const { values } = state;
  for (const path of values?.keys() ?? []) rowOf(path);
  for (const [path, row] of rows) {
    if (!values?.has(path) && !row.setting.name) {
      row.element.remove();
      rows.delete(path);
      continue;
    }
    row.show(values ? values.get(path) : null);
    if (flashing.has(path)) row.flash();
  }
  flashing = new Set();
  filter();
}

function filter() {
  const words = byId("settings-find").value.trim().toLowerCase().split(/[\s_]+/).filter(Boolean);
  let found = 0;
  for (const row of rows.values()) {
    row.element.hidden = !row.matches(words);
    if (!row.element.hidden) ++found;
  }
  for (const list of groups.values()) list.parentElement.hidden = [...list.children].every(({ hidden }) => hidden);
  byId("settings-empty").hidden = found > 0 || !rows.size;
}

function showWatchers() {
  const watchers = new Map();
  for (const page of state.pages.values()) {
    for (const path of page.watches) watchers.set(path, [...watchers.get(path) ?? [], page]);
  }
  for (const row of rows.values()) if (row.setting.name) row.showWatchers(watchers.get(row.path) ?? []);
}

const READ_AS = {
  int: (text) => /^[+-]?\d+$/.test(text.trim()) ? Number(text) : undefined,
  bool: (text) => ({ true: true, on: true, 1: true, false: false, off: false, 0: false })[text.trim().toLowerCase()],
  text: (text) => text,
};
const WRONG = { int: "A whole number is needed.", bool: "A switch is on or off." };

byId("key-form").onsubmit = async (event) => {
  event.preventDefault();
  const [path, type, value] = ["key-path", "key-type", "key-value"].map(byId);
  const given = READ_AS[type.value](value.value);
  const wrongPath = !PREFIX.test(path.value) ? "A path begins with db/ (kept) or memory/ (until the set is switched off)." :
    state.values?.has(path.value) ? "There is such a key already." : "";
  showInvalid(value, byId("key-error"), "");
  showInvalid(path, byId("key-error"), wrongPath);
  if (wrongPath) return;
  const wrong = given === undefined ? WRONG[type.value] : "";
  showInvalid(value, byId("key-error"), wrong);
  if (wrong) return;
  if (await attempt("key", () => api.put(api.keyAddress(path.value), { value: given }))) {
    path.value = value.value = "";
    path.focus();
  }
};

byId("settings-find").oninput = filter;
observe(["catalog"], () => {
  for (const group of ORDER) if (state.catalog.settings.some((setting) => setting.group === group)) listOf(group);
  for (const { path } of state.catalog.settings) rowOf(path);
});
observe(["catalog", "values"], show);
observe(["set"], () => { for (const row of rows.values()) row.showMeaning(); });
observe(["catalog", "values", "pages", "selected", "linked"], showWatchers);
