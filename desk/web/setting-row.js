// One key of the store: its name, its value, who watches it, and on demand all that is known of it.
import * as api from "./api.js";
import { ask } from "./ask.js";
import { attempt } from "./banner.js";
import { copyFrom, make, setText, showInvalid } from "./dom.js";
import { listeningPage, shortName, state, titleOf } from "./state.js";
import { makeField } from "./value-field.js";

const typeOf = (value) => ({ boolean: "bool", number: "int" })[typeof value] ?? "text";

/** `[value, meaning]` of all values of a setting that have one, in their order. */
function meaningsOf({ values }) {
  if (!values) return [];
  if (values.list) return (state.set?.lists[values.list] ?? []).map(({ value, label }) => [value, label]);
  if (values.speeds) {
    return Object.entries(state.catalog.speeds)
      .flatMap(([name, { from, to }]) => Array.from({ length: to - from + 1 }, (_, at) => [from + at, name]));
  }
  return Object.entries(values).map(([value, meaning]) => [Number(value), meaning]);
}

export class SettingRow {
  /** `setting` is an entry of the catalog, or only the path of a key that it does not know. */
  constructor(setting) {
    this.setting = setting;
    this.path = setting.path;
    this.value = undefined;
    this.watchers = [];
    this.inOrder = api.inOrder();
    this.written = []; // values from here, in their order, that the desk has not told of yet
    this.name = make("button", { type: "button", className: "name", "aria-expanded": "false", title: "Everything about this key",
      onclick: () => this.toggleDetails() }, setting.label ?? setting.path);
    this.meaning = make("span", { className: "meaning" });
    this.valueBox = make("span", { className: "value" });
    this.error = make("p", { className: "invalid", role: "alert", hidden: true });
    this.watchButton = make("button", { type: "button", className: "watch", onclick: () => this.toggleWatch() });
    this.element = make("li", { className: "setting" }, this.name, this.meaning, this.valueBox, ...setting.name ? [this.watchButton] : [], this.error);
    if (!setting.name) this.element.classList.add("other");
    // If the class stayed, the animation would run again whenever the row is shown.
    this.element.addEventListener("animationend", () => this.element.classList.remove("changed"));
  }

  get label() {
    const { label, group } = this.setting;
    return label ? `${label}, ${group}` : this.path;
  }

  /** `value` is undefined for a key that is missing, null when it is not known. */
  show(value) {
    const type = value === undefined ? "missing" : value === null ? "unknown" : typeOf(value);
    if (type !== this.type) this.replaceField(type);
    else if (value === this.value && (this.written.length || this.shown === value)) return;
    this.value = value;
    if (!this.written.length) this.showInField(value);
    this.showMeaning();
  }

  showInField(value) {
    this.shown = value;
    this.field?.show(value);
  }

  /** The desk tells of `value`. While later ones from here are on their way, the field stays as it was left. */
  hear(value) {
    const at = this.written.indexOf(value);
    this.written.splice(0, at < 0 ? this.written.length : at + 1);
  }

  /** All values have been read anew. */
  forgetWritten() {
    this.written = [];
  }

  replaceField(type) {
    const hadFocus = this.valueBox.contains(document.activeElement);
    this.type = type;
    this.written = [];
    this.field = makeField(type, this.label, {
      write: (value) => this.write(value),
      refuse: (text) => showInvalid(this.field.input, this.error, text),
    });
    const create = () => make("button", { type: "button", "aria-label": `Create ${this.label}`,
      onclick: () => this.write(this.setting.initial) }, "Create");
    this.valueBox.replaceChildren(...this.field ? [this.field.element] : type === "missing" ? [create()] : []);
    if (hadFocus) this.valueBox.querySelector("input, textarea, button:not([tabindex])")?.focus();
  }

  showMeaning() {
    const known = meaningsOf(this.setting);
    const number = typeof this.value === "boolean" ? Number(this.value) : this.value;
    const meaning = this.type === "missing" || this.type === "unknown" ? this.type : known.find(([value]) => value === number)?.[1] ??
      (this.setting.values?.speeds ? state.catalog.otherSpeed : "");
    setText(this.meaning, meaning);
    this.meaning.classList.toggle("missing", meaning === this.type);
    if (this.type === "int") {
      this.field.offer(known.map(([value]) => value));
      this.field.describe(meaning);
    }
  }

  async write(value) {
    if (value !== this.shown) this.written.push(value);
    this.shown = value;
    const put = () => attempt(`store ${this.path}`, () => api.put(api.keyAddress(this.path), { value }));
    if (await this.inOrder(put)) return;
    this.written = this.written.slice(this.written.indexOf(value) + 1);
    if (!this.written.length) this.showInField(this.value);
  }

  showWatchers(pages) {
    this.watchers = pages;
    if (this.watcherList) this.fillWatchers();
    const page = listeningPage();
    const watches = pages.some(({ id }) => id === page?.id);
    setText(this.watchButton, pages.length ? String(pages.length) : "watch");
    this.watchButton.classList.toggle("unwatched", !pages.length);
    this.watchButton.setAttribute("aria-pressed", String(watches));
    this.watchButton.disabled = !page;
    const by = `watched by ${pages.length} ${pages.length === 1 ? "page" : "pages"}`;
    this.watchButton.setAttribute("aria-label", `Watch ${this.label}; ${by}`);
    this.watchButton.title = `${by[0].toUpperCase()}${by.slice(1)}. ${page ? `${watches ? "End watching" : "Watch"} from ${titleOf(page)}.` : "To watch this setting, first choose the page that watches it."}`;
  }

  // Sends the command to the plug-in of the chosen page, as the page itself would.
  toggleWatch() {
    const page = listeningPage();
    const { table, key } = this.setting;
    const { watch, unwatch } = state.catalog.tables[table];
    const command = this.watchers.some(({ id }) => id === page.id) ? unwatch : watch;
    return attempt("watch", async () => {
      const { reply } = await api.say(page.id, { send: { command, propertyKey: key } });
      if (reply?.code !== 0) throw new api.DeskError(`${command} failed: ${reply ? `${reply.code} ${reply.errorMessage}` : "no reply"}.`, { status: 200 });
    });
  }

  toggleDetails() {
    const open = !this.details;
    this.name.setAttribute("aria-expanded", String(open));
    if (!open) {
      this.details.remove();
      this.details = this.watcherList = null;
      return;
    }
    const { name, key, initial, watchOnly, values } = this.setting;
    const known = !values?.speeds ? meaningsOf(this.setting) :
      Object.entries(state.catalog.speeds).map(([speed, { from }]) => [from, speed]);
    const fact = (term, ...content) => [make("dt", {}, term), make("dd", {}, ...content)];
    const copy = make("button", { type: "button", onclick: () => copyFrom(copy, this.path) }, "Copy");
    this.watcherList = make("dd");
    this.details = make("div", { className: "details" },
      make("dl", {},
        ...name ? fact("Constant", make("code", {}, name), ` (${key})`) : [],
        ...fact("Path", make("code", {}, this.path), " ", copy),
        ...name ? fact("Initial value", String(initial)) : [],
        ...known.length ? [make("dt", {}, "Values"), make("dd", { className: "buttons" }, ...known.map(([value, meaning]) =>
          make("button", { type: "button", onclick: () => this.write(typeof this.value === "boolean" ? value === 1 : value) }, `${value} ${meaning}`)))] : [],
        ...name ? [make("dt", {}, "Watched by"), this.watcherList] : []),
      ...watchOnly ? [make("p", { className: "note" }, "A page can watch this key, but cannot read or set it.")] : [],
      make("div", { className: "buttons" },
        ...name ? [make("button", { type: "button", onclick: () => this.write(initial) }, "Set to initial value")] : [],
        make("button", { type: "button", className: "danger", onclick: () => this.remove() }, "Remove key …")));
    this.fillWatchers();
    this.element.append(this.details);
  }

  fillWatchers() {
    this.watcherList.textContent = this.watchers.map(titleOf).join(", ") || "no page";
  }

  async remove() {
    const name = this.setting.name ? shortName(this.setting) : this.path;
    if (!await ask(`Remove ${name}?`, `This removes the key ${this.path} and its value for all programs.`, "Remove it")) return;
    await this.inOrder(() => attempt(`store ${this.path}`, () => api.remove(api.keyAddress(this.path))));
  }

  flash() {
    this.element.classList.remove("changed");
    void this.element.offsetWidth; // lets the animation begin anew
    this.element.classList.add("changed");
  }

  /** Whether the row matches all `words` (lower case): a number must equal the key's number or be part of its path; any
   *  other word must be part of the name, label, group, path or a value's name. */
  matches(words) {
    const { name = "", label = "", group = "", key } = this.setting;
    const meanings = [...new Set(meaningsOf(this.setting).map(([, meaning]) => meaning))].join(" ");
    const known = `${name} ${name.replaceAll("_", " ")} ${label} ${group} ${this.path} ${meanings}`.toLowerCase();
    const has = (word) => /^\d+$/.test(word) ? String(key) === word || this.path.includes(word) : known.includes(word);
    return words.every(has);
  }
}
