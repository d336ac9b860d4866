// Reads the simulated set, its faults and its scenarios, as often as something about them changes and no more often
// than they can be read.
import * as api from "./api.js";
import { attempt } from "./banner.js";
import { changed, state } from "./state.js";

let current = null; // the reading that is under way
let next = null; // the one after it

async function read() {
  await attempt("set", async () => {
    const [set, faults, { scenarios }] = await Promise.all(["set", "faults", "scenarios"].map((part) => api.get(`/api/${part}`)));
    Object.assign(state, { set, faults, scenarios });
    changed("set", "faults", "scenarios");
  });
}

/** Resolves when what was so at the time of the call has been read. */
export function readSet() {
  if (!current) {
    current = read().finally(() => { current = null; });
    return current;
  }
  next ??= current.then(() => {
    next = null;
    return readSet();
  });
  return next;
}
