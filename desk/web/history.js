// The dialogue or the log of the chosen page, or of all: first the entries stored by the desk, then new ones.
import * as api from "./api.js";
import { attempt } from "./banner.js";
import { byId } from "./dom.js";
import { forgetClosed, observe, state } from "./state.js";

const MAX = 1000; // rows at most; a row has one or two entries
const KEPT = 300; // entries of each page at most, for the time after the desk has ended
const PACE = 25; // minimum milliseconds between two updates, so that every second frame is free for other work
const isOf = (chosen, { page }) => !chosen || page === chosen;

export class History {
  /**
   * `kind` is the part of a page that is requested from the desk, and the id of the element that shows it.
   * `append(entries)` is called with entries in order, each once, `restart()` before the entries of other pages.
   */
  constructor(kind, { append, restart }) {
    Object.assign(this, { kind, append, restart, waiting: [], drawn: 0, reading: null, prepared: null });
    // By page: number of the newest entry that is shown; the entries of those pages that have been read.
    Object.assign(this, { newest: new Map(), known: new Map() });
    observe(["selected"], () => {
      const prepared = this.prepared;
      this.prepared = null;
      document.body.classList.toggle("of-all", !state.selected);
      if (this.shown === state.selected) return this.flush();
      this.restart(); // never show another page's rows under this page's name
      this.load(prepared?.chosen === state.selected ? prepared.reading : undefined);
    });
    observe(["pages"], () => {
      forgetClosed(this.newest);
      forgetClosed(this.known);
    });
  }

  /** An event of the desk brings `entry`. */
  add(entry) {
    this.keep(entry);
    if (!isOf(state.selected, entry) && !(this.prepared && isOf(this.prepared.chosen, entry))) return;
    if (this.waiting.push(entry) > 4 * MAX) this.waiting.splice(0, 2 * MAX);
    if (this.waiting.length > 1) return;
    setTimeout(() => requestAnimationFrame(() => this.flush()), this.drawn + PACE - performance.now());
  }

  // Entries that arrive while the history is requested wait for it.
  flush() {
    if (this.reading || this.prepared) return;
    const entries = this.waiting.filter((entry) => isOf(state.selected, entry));
    this.waiting = [];
    this.drawn = performance.now();
    this.appendNew(entries);
  }

  // An entry that was received as an event may also be in the history.
  appendNew(entries) {
    this.append(entries.filter((entry) => {
      const { page, n } = entry;
      if (n <= (this.newest.get(page) ?? 0)) return false;
      this.newest.set(page, n);
      if (!this.known.has(page)) this.known.set(page, []);
      this.keep(entry);
      return true;
    }));
  }

  // For the time after the desk has ended, when entries cannot be requested.
  keep(entry) {
    const kept = this.known.get(entry.page);
    if (!kept || entry.n <= (kept.at(-1)?.n ?? 0)) return;
    kept.push(entry);
    if (kept.length > KEPT) kept.shift();
  }

  /** The shown pages whose entries are lost, because they were not read before the desk ended. */
  get unread() {
    return [...state.pages.values()]
      .filter(({ id, lost }) => lost && isOf(state.selected, { page: id }) && !this.known.has(id));
  }

  /** Reads the entries of the page `chosen`, or of all (null), before it is shown. Resolves when they are read. */
  prepare(chosen) {
    const reading = this.read(chosen);
    this.prepared = { chosen, reading };
    return reading.catch(() => {}); // whoever shows them reports it
  }

  async read(chosen) {
    const known = new Map();
    let all = [];
    for (const page of chosen ? [chosen] : [...state.pages.keys()]) {
      if (!state.pages.has(page)) continue;
      const isHere = !state.linked || state.pages.get(page).lost;
      const answer = isHere ? { [this.kind]: this.known.get(page) } : await api.get(`/api/pages/${page}/${this.kind}`).catch(passOver);
      const entries = answer[this.kind];
      if (!entries) continue;
      known.set(page, entries.slice(-KEPT));
      all = all.concat(entries).sort((one, other) => one.time - other.time).slice(-2 * MAX);
    }
    return { known, all };
  }

  /** Shows the newest entries of the chosen page or of all, as soon as `reading` them has ended. */
  async load(reading = this.read(state.selected)) {
    if (this.shown === state.selected && state.pages.get(this.shown)?.lost) return; // its rows stay
    this.shown = state.selected;
    byId(this.kind).ariaBusy = "true";
    this.reading = reading; // an earlier one is ignored
    const good = await attempt(this.kind, () => reading);
    if (reading !== this.reading) return;
    this.reading = null;
    byId(this.kind).ariaBusy = "false";
    if (good) {
      const { known, all } = await reading;
      this.newest.clear();
      for (const [page, entries] of known) this.known.set(page, entries);
      this.restart();
      this.appendNew(all);
    }
    this.flush();
  }
}

// A page may be deleted before its entries are requested.
function passOver(error) {
  if (error.status !== 404) throw error;
  return {};
}
