// The dialogue or the log of the chosen page, or of all: first the entries stored by the desk, then new ones.
import * as api from "./api.js";
import { attempt } from "./banner.js";
import { byId } from "./dom.js";
import { observe, state } from "./state.js";

const MAX = 1000; // rows at most; a row has one or two entries
const KEPT = 200; // entries of each page at least, for the time after the desk has ended
const PACE = 25; // minimum milliseconds between two updates, so that every second frame is free for other work
const isShown = ({ page }) => !state.selected || page === state.selected;

export class History {
  /**
   * `kind` is the part of a page that is requested from the desk, and the id of the element that shows it.
   * `append(entries)` is called with entries in order, each once, `restart()` before the entries of other pages.
   */
  constructor(kind, { append, restart }) {
    Object.assign(this, { kind, append, restart, waiting: [], drawn: 0, reading: null });
    Object.assign(this, { newest: new Map(), known: new Map() }); // by page: number of the newest entry; entries
    observe(["selected"], () => {
      document.body.classList.toggle("of-all", !state.selected);
      if (this.shown === state.selected) return;
      this.restart(); // never show another page's rows under this page's name
      this.load();
    });
  }

  add(entry) {
    if (!isShown(entry)) return;
    if (this.waiting.push(entry) > 4 * MAX) this.waiting.splice(0, 2 * MAX);
    if (this.waiting.length > 1) return;
    setTimeout(() => requestAnimationFrame(() => this.flush()), this.drawn + PACE - performance.now());
  }

  // Entries that arrive while the history is requested wait for it.
  flush() {
    if (this.reading) return;
    const entries = this.waiting.filter(isShown);
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
      this.keep(page, entry);
      return true;
    }));
  }

  // For the time after the desk has ended, when they cannot be requested.
  keep(page, entry) {
    if (!this.known.has(page)) this.known.set(page, []);
    const kept = this.known.get(page);
    kept.push(entry);
    if (kept.length > 2 * KEPT) kept.splice(0, KEPT);
  }

  /** Reads the entries of each page, and shows the newest of all. */
  async load() {
    if (this.shown === state.selected && state.pages.get(this.shown)?.lost) return; // its rows stay
    this.shown = state.selected;
    byId(this.kind).ariaBusy = "true";
    const reading = this.reading = {}; // an answer to an earlier request is ignored
    let all = [];
    const good = await attempt(this.kind, async () => {
      for (const page of state.selected ? [state.selected] : [...state.pages.keys()]) {
        if (!state.pages.has(page) || reading !== this.reading) continue;
        const isHere = !state.linked || state.pages.get(page).lost;
        const answer = isHere ? {} : await api.get(`/api/pages/${page}/${this.kind}`).catch(passOver);
        const entries = isHere ? this.known.get(page) ?? [] : answer[this.kind] ?? [];
        all = all.concat(entries).sort((one, other) => one.time - other.time).slice(-2 * MAX);
      }
    });
    if (reading !== this.reading) return;
    this.reading = null;
    byId(this.kind).ariaBusy = "false";
    if (good) {
      this.newest.clear();
      this.known = new Map([...this.known].filter(([page]) => state.pages.has(page) && !isShown({ page })));
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
