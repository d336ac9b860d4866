// The dialogue or the log of the chosen page, or of all: first the entries stored by the desk, then new ones.
import * as api from "./api.js";
import { attempt } from "./banner.js";
import { byId } from "./dom.js";
import { observe, state } from "./state.js";

const MAX = 1000; // rows at most; a row has one or two entries
const PACE = 25; // minimum milliseconds between two updates, so that every second frame is free for other work
const isShown = ({ page }) => !state.selected || page === state.selected;

export class History {
  /**
   * `kind` is the part of a page that is requested from the desk, and the id of the element that shows it.
   * `append(entries)` is called with entries in order, each once, `restart()` before the entries of other pages.
   */
  constructor(kind, { append, restart }) {
    Object.assign(this, { kind, append, restart, waiting: [], newest: new Map(), drawn: 0, reading: null });
    observe(["selected"], () => {
      document.body.classList.toggle("of-all", !state.selected);
      if (this.shown === state.selected || !state.linked) return;
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
    this.append(entries.filter(({ page, n }) => {
      if (n <= (this.newest.get(page) ?? 0)) return false;
      this.newest.set(page, n);
      return true;
    }));
  }

  /** Reads the entries of each page, and shows the newest of all. */
  async load() {
    this.shown = state.selected;
    byId(this.kind).ariaBusy = "true";
    const reading = this.reading = {}; // an answer to an earlier request is ignored
    let all = [];
    await attempt(this.kind, async () => {
      for (const page of state.selected ? [state.selected] : [...state.pages.keys()]) {
        if (!state.pages.has(page) || reading !== this.reading) continue;
        const answer = await api.get(`/api/pages/${page}/${this.kind}`).catch(passOver);
        const entries = answer[this.kind] ?? [];
        all = all.concat(entries).sort((one, other) => one.time - other.time).slice(-2 * MAX);
      }
    });
    if (reading !== this.reading) return;
    this.reading = null;
    byId(this.kind).ariaBusy = "false";
    this.newest.clear();
    this.restart();
    this.appendNew(all);
    this.flush();
  }
}

// A page may be deleted before its entries are requested.
function passOver(error) {
  if (error.status !== 404) throw error;
  return {};
}
