// What was said or logged so far by the chosen page, or by all, and what comes after it, in one order.
import * as api from "./api.js";
import { attempt } from "./banner.js";
import { observe, state } from "./state.js";

const MAX = 1000; // rows that are shown; a row has one entry or two
const isShown = ({ page }) => !state.selected || page === state.selected;

export class History {
  /**
   * `kind` is the part of a page that the desk is asked for. `append(entries)` is called with entries in their order,
   * at most once a frame, `restart()` before other pages' entries come.
   */
  constructor(kind, { append, restart }) {
    Object.assign(this, { kind, append, restart, waiting: [], loading: 0, reading: 0 });
    let shown;
    observe(["selected"], () => {
      document.body.classList.toggle("of-all", !state.selected);
      if (shown === state.selected) return;
      shown = state.selected;
      if (state.linked) this.load();
    });
  }

  add(entry) {
    if (!isShown(entry)) return;
    if (this.waiting.push(entry) > 4 * MAX) this.waiting.splice(0, 2 * MAX);
    if (this.waiting.length === 1) requestAnimationFrame(() => this.flush());
  }

  // What comes while the history is on its way waits for it.
  flush() {
    if (this.loading) return;
    const entries = this.waiting.filter(isShown);
    this.waiting = [];
    this.append(entries);
  }

  /** Reads of each page what it has, and shows the newest of all. */
  async load() {
    const asked = ++this.reading; // an answer to an earlier question is of no use any more
    ++this.loading;
    let all = [];
    await attempt(this.kind, async () => {
      for (const page of state.selected ? [state.selected] : [...state.pages.keys()]) {
        if (!state.pages.has(page) || asked !== this.reading) continue;
        const answer = await api.get(`/api/pages/${page}/${this.kind}`).catch(passOver);
        const entries = answer[this.kind] ?? [];
        all = all.concat(entries).sort((one, other) => one.time - other.time).slice(-2 * MAX);
      }
    });
    --this.loading;
    if (asked !== this.reading) return;
    this.restart();
    this.append(all);
    this.flush();
  }
}

// A page may go before it can be asked.
function passOver(error) {
  if (error.status !== 404) throw error;
  return {};
}
