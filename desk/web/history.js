// The dialogue or the log of the chosen page, or of all: first what the desk has kept, then new entries as they come.
import * as api from "./api.js";
import { attempt } from "./banner.js";
import { byId } from "./dom.js";
import { observe, state } from "./state.js";

const MAX = 1000; // rows that are shown; a row has one entry or two
const PACE = 25; // milliseconds between two drawings, at least; so every second frame is free for other work
const isShown = ({ page }) => !state.selected || page === state.selected;

export class History {
  /**
   * `kind` is the part of a page that the desk is asked for, and the id of the element that shows it.
   * `append(entries)` is called with entries in their order, each once, `restart()` before other pages' entries come.
   */
  constructor(kind, { append, restart }) {
    Object.assign(this, { kind, append, restart, waiting: [], newest: new Map(), drawn: 0, reading: null });
    observe(["selected"], () => {
      document.body.classList.toggle("of-all", !state.selected);
      if (this.shown === state.selected || !state.linked) return;
      this.restart(); // another page's rows never stand below this one's name
      this.load();
    });
  }

  add(entry) {
    if (!isShown(entry)) return;
    if (this.waiting.push(entry) > 4 * MAX) this.waiting.splice(0, 2 * MAX);
    if (this.waiting.length > 1) return;
    setTimeout(() => requestAnimationFrame(() => this.flush()), this.drawn + PACE - performance.now());
  }

  // What comes while the history is on its way waits for it.
  flush() {
    if (this.reading) return;
    const entries = this.waiting.filter(isShown);
    this.waiting = [];
    this.drawn = performance.now();
    this.appendNew(entries);
  }

  // An entry that came as an event may be in the history, too.
  appendNew(entries) {
    this.append(entries.filter(({ page, n }) => {
      if (n <= (this.newest.get(page) ?? 0)) return false;
      this.newest.set(page, n);
      return true;
    }));
  }

  /** Reads of each page what it has, and shows the newest of all. */
  async load() {
    this.shown = state.selected;
    byId(this.kind).ariaBusy = "true";
    const reading = this.reading = {}; // an answer to an earlier question is of no use any more
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

// A page may go before it can be asked.
function passOver(error) {
  if (error.status !== 404) throw error;
  return {};
}
