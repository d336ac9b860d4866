// The state of the desk as the page knows it. Each part of the page reads it here, registers with `observe` for the
// members that it shows, and calls `changed` after it has changed one.

export const state = {
  linked: false, // the desk answers
  desk: null, // GET /api/desk
  catalog: { tables: {}, settings: [], commands: [], speeds: {} },
  values: null, // of all keys, by path; null while they are not known
  pages: new Map(), // by id: the open ones, and ended ones that the desk still stores
  selected: null, // the id of the page whose tab is chosen; null is all of them
  left: null, // the page that ended while it was chosen, until another one is chosen
  set: null, // GET /api/set
  faults: { calls: [], faults: [] },
  scenarios: [],
};

const observers = [];
let dirty = new Set();

/** Runs `show` once before the next frame after one of `topics` has changed, however often it has. */
export function observe(topics, show) {
  observers.push({ topics, show });
}

/** The topics are the names of members of `state`, and two requests to main.js: "again" reads everything from the
 *  desk again, "doubt" reads what GET /api/desk says. */
export function changed(...topics) {
  if (!dirty.size) requestAnimationFrame(flush);
  for (const topic of topics) dirty.add(topic);
}

function flush() {
  const now = dirty;
  dirty = new Set();
  for (const { topics, show } of observers) if (topics.some((topic) => now.has(topic))) show();
}

export const openPages = () => [...state.pages.values()].filter(({ open }) => open);

/** Deletes what a Map or Set has of pages that are not shown any more. */
export function forgetClosed(byPage) {
  for (const id of byPage.keys()) if (!state.pages.has(id)) byPage.delete(id);
}

/** The page whose tab is chosen. */
export const selectedPage = () => state.pages.get(state.selected) ?? null;

/** The chosen page if messages can be sent to its plug-in. */
export function listeningPage() {
  const page = selectedPage();
  return state.linked && page?.state === "running" ? page : null;
}

export function select(id) {
  state.left = null;
  state.selected = id;
  if (id) sessionStorage.setItem("page", id);
  else sessionStorage.removeItem("page");
  changed("selected", "pages");
}

/** The entry of the catalog for a key of a table, or for a path. */
export const settingOf = (table, key) =>
  state.catalog.settings.find((setting) => setting.table === table && setting.key === key);
export const settingAt = (path) => state.catalog.settings.find((setting) => setting.path === path);

/** A setting's constant without the common prefix: CAPTION. */
export const shortName = ({ name }) => name.replace(/^[A-Z]+_KEY_/, "");

/** A page's number, which its id begins with: p3-8f0c… */
export const numberOf = (page) => Number(/^p(\d+)/.exec(page)[1]);

/** Whether `page` is what `earlier` became when it was loaded or connected again. */
export const isAgain = (page, earlier) =>
  page.open && page.since > earlier.since && page.url === earlier.url && page.title === earlier.title;

/** The title of a page for the user: "#3 My application". */
export const titleOf = ({ number, title }) => `#${number} ${title || "page"}`;
