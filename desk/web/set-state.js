// Reads the simulated set, its faults and its scenarios after each change, one reading at a time.
import * as api from "./api.js";
import { attempt } from "./banner.js";
import { changed, state } from "./state.js";

let current = null; // the running reading
let next = null; // the one after it

function read() {
  return attempt("reading the set", async () => {
    const [set, faults, { scenarios }] = await Promise.all(["set", "faults", "scenarios"].map((part) => api.get(`/api/${part}`)));
    Object.assign(state, { set, faults, scenarios });
    changed("set", "faults", "scenarios");
  });
}

/** Resolves when the state at the time of the call, or a later one, has been read; with false if that failed. */
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
