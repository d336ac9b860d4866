// The table of settings: every value can be edited in place, and a change by anyone flashes.
import * as api from "./api.js";
import { attempt, byId, make } from "./dom.js";

const SPEEDS = ["VERY_SLOW", "SLOW", "NORMAL", "FAST", "VERY_FAST"];

const rows = new Map(); // by path
const error = byId("settings-error");
let plugin = null; // the console's own, through which this page watches

// What a number means, where it is a name to people.
let lists = {};
function meaningOf(path, value) {
  const list = /(primary|secondary)_audio_language$/.exec(path);
  if (list) return (lists[`${list[1]}-audio-language`] || []).find((item) => item.value === value)?.label ?? "";
  if (path.endsWith("voiceguide/speed")) return value >= 1 && value <= 15 ? SPEEDS[Math.ceil(value / 3) - 1] : "NORMAL";
  return "";
}

class Row {
  constructor({ path, type, value, name, key, table, initial }) {
    Object.assign(this, { path, type, name, key, table });
    const label = `Value of ${name ?? path}`;
    this.input = type === "bool" ?
      make("select", { "aria-label": label }, make("option", { value: "", textContent: "missing", hidden: true }),
        make("option", { textContent: "true" }), make("option", { textContent: "false" })) :
      make("input", { "aria-label": label, placeholder: "missing", spellcheck: false, autocomplete: "off",
        inputMode: type === "int" ? "numeric" : "text" });
    this.editing = false;
    this.input.addEventListener("input", () => { this.editing = true; });
    this.input.addEventListener("change", () => this.write());
    this.input.addEventListener("blur", () => this.restore());
    this.input.addEventListener("keydown", (event) => { if (event.key === "Escape") this.restore(); });
    this.meaning = make("span", { className: "meaning" });
    this.watchers = make("td", { className: "watchers" });
    this.chips = make("span");
    this.watchers.append(this.chips);
    if (name) this.addWatchButton();
    const title = name ? make("span", { className: "name" }, name.replace(/^MENU_KEY_|^MIRADO_KEY_/, "")) : "";
    this.element = make("tr", {},
      make("td", { className: "key" }, key ?? ""),
      make("th", { scope: "row", title: name ? `${name}, new: ${initial}` : path }, title,
        make("span", { className: "path" }, make("bdi", { dir: "ltr" }, path))),
      make("td", { className: "value" }, this.input, this.meaning), this.watchers);
    this.show(value);
  }

  addWatchButton() {
    this.button = make("button", { type: "button", className: "watch", "aria-pressed": "false",
      "aria-label": `Watch ${this.name} from the console`, title: "Watch from the console" });
    this.button.addEventListener("click", () => this.toggleWatch());
    this.watchers.append(this.button);
  }

  // Watches through the plug-in, as any page does.
  toggleWatch() {
    attempt(error, () => {
      if (!plugin) throw new Error("the console has no plug-in");
      if (this.unwatch) {
        this.unwatch();
        this.showWatching(null);
      } else {
        const subscribe = this.table === "mirado" ? plugin.onChanged : plugin.onCaptionChanged;
        this.showWatching(subscribe(this.key, () => {}));
      }
    });
  }

  // `unwatch` ends the console's subscription, null when it has none.
  showWatching(unwatch) {
    this.unwatch = unwatch;
    this.button?.setAttribute("aria-pressed", String(unwatch !== null));
  }

  // A value that somebody is just typing stays until it is written or given up.
  show(value) {
    this.value = value;
    if (!this.editing) this.input.value = this.text;
    this.showMeaning();
  }

  get text() {
    return this.value === null ? "" : String(this.value);
  }

  restore() {
    if (!this.editing) return;
    this.editing = false;
    this.show(this.value);
  }

  showMeaning() {
    this.meaning.textContent = meaningOf(this.path, this.value);
  }

  showWatchers(numbers) {
    this.chips.replaceChildren(...numbers.map((number) =>
      make("span", { className: "chip", "aria-label": `page ${number}`, textContent: `#${number}` })));
  }

  flash() {
    this.element.classList.remove("changed");
    void this.element.offsetWidth; // lets the animation begin anew
    this.element.classList.add("changed");
  }

  async write() {
    const text = this.input.value.trim();
    if (text === this.text) return;
    this.editing = false;
    const value = this.type === "bool" ? text === "true" : this.type === "int" ? Number(text) : text;
    const good = await attempt(error, () => {
      if (this.type === "int" && !/^[+-]?\d+$/.test(text)) throw new Error(`${this.path} takes a whole number`);
      return api.put(`/api/store/${encodeURI(this.path)}`, { value });
    });
    if (!good) this.show(this.value);
  }

  matches(text) {
    return `${this.name ?? ""} ${this.path}`.toLowerCase().includes(text);
  }
}

function filter() {
  const text = byId("settings-find").value.trim().toLowerCase();
  for (const row of rows.values()) row.element.hidden = !row.matches(text);
}

function add(setting) {
  const row = new Row(setting);
  rows.set(setting.path, row);
  byId(`${setting.table ?? "other"}-rows`).append(row.element);
  return row;
}

function addOther(path, value) {
  const types = { boolean: "bool", number: "int", string: "text" };
  return add({ path, value, type: types[typeof value] });
}

let changed = new Map(); // by path: what has come since the list was last asked for, which may be older

// Reads everything anew.
export async function load() {
  changed = new Map();
  const [{ settings }, { keys }] = await Promise.all([api.get("/api/settings"), api.get("/api/store")]);
  for (const setting of settings) {
    const row = rows.get(setting.path);
    if (row?.name) continue;
    row?.element.remove(); // A change that came before the list has put it among the others.
    add(setting);
  }
  const values = new Map([...keys.map(({ path, value }) => [path, value]), ...changed]);
  for (const path of new Set([...rows.keys(), ...values.keys()])) place(path, values.get(path) ?? null);
  filter();
}

export const paths = () => Array.from(rows.keys());

// Shows a value, null for a key that is missing. A row that only its value has brought goes with it.
function place(path, value) {
  const row = rows.get(path) ?? addOther(path, value);
  row.show(value);
  if (value === null && !row.name) {
    row.element.remove();
    rows.delete(path);
  }
  return row;
}

export function change({ path, value }) {
  changed.set(path, value);
  place(path, value).flash();
}

export function showLists(languageLists) {
  lists = languageLists;
  for (const row of rows.values()) row.showMeaning();
}

export function showWatchers(pages) {
  for (const row of rows.values()) {
    row.showWatchers(pages.filter(({ watches }) => watches.includes(row.path)).map(({ number }) => number));
  }
}

// `client` is null when the console has no plug-in.
export function usePlugin(client) {
  plugin = client;
  for (const row of rows.values()) row.showWatching(null);
}

byId("settings-find").addEventListener("input", filter);
