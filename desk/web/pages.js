// The pages as tabs. The dialogue and log of the chosen one are shown, and it is sent to, recorded and killed.
import * as api from "./api.js";
import { ask } from "./ask.js";
import { attempt } from "./banner.js";
import { closePage, forgetConsole, isConsole, openConsole } from "./console.js";
import * as dialogue from "./dialogue.js";
import { byId, download, fillSelect, make, moveWithArrows, setText, timeOf } from "./dom.js";
import { closeGuide } from "./guide.js";
import { showDialogue } from "./layout.js";
import * as log from "./log.js";
import { changed, isAgain, observe, openPages, select, selectedPage, state, titleOf } from "./state.js";

const PATIENCE = 150; // milliseconds
const strip = byId("pages");
const menu = byId("page-menu");
const tabs = new Map(); // by the page's id, "" being all of them
let over = false; // the desk has ended; events of pages are ignored until all pages are read again
let missed = new Map(); // by id: the pages that changed while the list was requested; null for deleted ones

let wanted = null; // the tab that was pressed last

// The messages of a page appear together with its name, unless the desk takes long to answer.
async function choose(id) {
  closeGuide();
  const mine = wanted = {};
  const late = new Promise((resolve) => setTimeout(resolve, PATIENCE));
  await Promise.race([Promise.all([dialogue, log].map((history) => history.prepare(id))), late]);
  if (mine !== wanted) return;
  if (!id || state.pages.has(id)) select(id);
  else changed("selected"); // the page is gone meanwhile; the chosen one stays
}

function tabOf(id) {
  if (!tabs.has(id)) {
    const tab = make("button", { type: "button", role: "tab", id: `tab-${id || "all"}`, "aria-controls": "conversation",
      onclick: () => choose(id || null) });
    tabs.set(id, tab);
  }
  return tabs.get(id);
}

function show() {
  const pages = [...state.pages.values()].sort((one, other) => other.open - one.open || one.number - other.number);
  const open = openPages().length;
  const focused = strip.contains(document.activeElement) ? document.activeElement : null;
  const ids = new Set(["", ...pages.map(({ id }) => id)]);
  for (const [id, tab] of tabs) {
    if (ids.has(id)) continue;
    tab.remove();
    tabs.delete(id);
  }
  const all = tabOf("");
  setText(all, open > 1 ? `All (${open})` : "All");
  const shown = [all, ...pages.map((page) => {
    const tab = tabOf(page.id);
    const word = { crashed: page.crash?.signal === 9 ? " ✕ killed" : " ✕ crashed", ended: " (ended)" }[page.state] ?? (page.recording?.running ? " ● rec" : "");
    setText(tab, titleOf(page) + word);
    tab.className = page.open ? page.state : `${page.state} ended`;
    tab.title = `${page.title}\n${page.url}`;
    return tab;
  })];
  const chosenTab = state.pages.has(state.selected) ? tabOf(state.selected) : all; // a new console has no tab yet
  for (const [place, tab] of shown.entries()) {
    if (strip.children[place] !== tab) strip.insertBefore(tab, strip.children[place] ?? null);
    const chosen = tab === chosenTab;
    if (chosen && tab.getAttribute("aria-selected") !== "true") requestAnimationFrame(() => tab.scrollIntoView({ block: "nearest", inline: "nearest" }));
    tab.setAttribute("aria-selected", String(chosen));
    tab.tabIndex = chosen ? 0 : -1;
  }
  if (focused && document.activeElement !== focused) { // moved or removed
    (strip.contains(focused) ? focused : chosenTab).focus({ preventScroll: true });
  }
  byId("conversation").setAttribute("aria-labelledby", chosenTab.id);
  fillSelect(menu, [...tabs].map(([id, { textContent }]) => ({ value: id, text: textContent })));
  menu.value = state.pages.has(state.selected) ? state.selected : "";
  showRoom();
  showChosen();
}

// If tabs are not visible, the strip fades out there, and a menu lists them all.
function showRoom() {
  const { scrollLeft, scrollWidth, clientWidth } = strip;
  menu.classList.toggle("needed", scrollWidth > clientWidth + 1);
  if (strip.contains(document.activeElement) && !strip.checkVisibility({ visibilityProperty: true })) menu.focus();
  strip.classList.toggle("more-left", scrollLeft > 1);
  strip.classList.toggle("more-right", scrollLeft + clientWidth < scrollWidth - 1);
}

function showChosen() {
  const page = selectedPage();
  const many = openPages().length;
  setText(byId("page-facts"), page ?
    `${page.url ? `${page.url} · ` : ""}${page.state === "running" ? `process ${page.pid}` : "ended"} · since ${timeOf(page.since).slice(0, 8)}` :
    `${many || "No"} ${many > 1 ? "pages are" : "page is"} open.`);
  byId("page-facts").title = page?.url ?? "";
  const recording = page?.recording;
  byId("kill").disabled = page?.state !== "running";
  byId("record").disabled = byId("kill").disabled || Boolean(state.desk?.store.error);
  byId("kill").hidden = page?.open === false;
  byId("record").hidden = page?.open === false || Boolean(recording?.running);
  byId("stop").hidden = !recording?.running;
  byId("save").hidden = !recording || Boolean(page.lost);
  const lines = recording && `${recording.lines} ${recording.lines === 1 ? "line" : "lines"}`;
  byId("recorded").ariaLive = recording?.running ? "off" : null; // it changes every second
  setText(byId("recorded"), !recording ? "" : (recording.running ? `● ${lines}` : `${lines} recorded`) + (recording.full ? ", full" : ""));
  byId("recorded").classList.toggle("running", Boolean(recording?.running));
  byId("close").hidden = !page || page.open && !isConsole(page.id);
}

/** A page is new or has changed. */
export function putPage(page) {
  if (over) return;
  missed?.set(page.id, page);
  const isNew = !state.pages.has(page.id);
  const first = openPages().length === 0 && !missed;
  state.pages.set(page.id, page);
  changed("pages");
  if (!isNew) return;
  // Chooses the first page, and the chosen one again after it was reloaded.
  if (state.left ? isAgain(page, state.left) : first && !state.selected) select(page.id);
}

/** A page has ended. `ended` is the page if the desk still stores it, otherwise null. */
export function endPage({ id, ended }) {
  if (over) return;
  missed?.set(id, ended);
  const page = state.pages.get(id);
  if (!page && !ended) return;
  if (!ended) forgetConsole(id);
  if (ended) state.pages.set(id, ended);
  else state.pages.delete(id);
  changed("pages", "selected");
  if (id !== state.selected || !page) return;
  const next = openPages().find((each) => isAgain(each, page)); // it may open before the old one has ended
  if (next) return select(next.id);
  if (!ended) select(null);
  if (page.open) state.left = page;
}

// `page` after its desk has ended. Its recording and messages cannot be requested any more.
const lost = (page) => ({ ...page, open: false, lost: true, watches: [], state: page.state === "crashed" ? "crashed" : "ended",
  recording: page.recording && { ...page.recording, running: false } });

/** The desk has ended, and all pages with it. Keeps their tabs. */
export function loseAll() {
  if (over) return;
  over = true;
  const left = selectedPage();
  for (const [id, page] of state.pages) state.pages.set(id, lost(page));
  if (left) state.left ??= left;
  changed("pages", "selected");
}

/** Reads all pages again. The chosen one stays chosen, even if its desk has ended. */
export async function load() {
  over = false;
  missed = new Map();
  await attempt("pages", async () => {
    const { pages, ended } = await api.get("/api/pages");
    const all = state.pages.size > 0 && !state.selected; // all pages were chosen
    const earlier = selectedPage();
    state.pages = new Map([...pages, ...ended].map((page) => [page.id, page]));
    for (const [id, page] of missed) {
      if (page) state.pages.set(id, page);
      else state.pages.delete(id);
    }
    const before = state.selected ?? sessionStorage.getItem("page");
    const open = openPages();
    if (all) return changed("pages", "selected");
    if (state.pages.has(before)) return select(before);
    if (!earlier) return select(open.length === 1 ? open[0].id : null);
    const again = !isConsole(earlier.id) && open.find((page) => isAgain(page, earlier));
    if (again) return select(again.id);
    state.pages.set(earlier.id, lost(earlier));
    select(earlier.id);
    state.left = earlier; // it may still come
  });
  missed = null;
}

byId("kill").onclick = async () => {
  const page = selectedPage();
  const sure = await ask(`Kill the plug-in of ${titleOf(page)}?`,
    "Its process dies at once, as in a crash. A page that uses keepConnected connects again by itself; others must be reloaded.", "Kill it");
  if (sure) attempt("page", () => api.post(`/api/pages/${page.id}/kill`));
};

const recordingOf = ({ id }) => `/api/pages/${id}/recording`;

async function save(page) {
  const response = await fetch(api.addressOf(recordingOf(page)));
  const text = await response.text();
  if (!response.ok) throw new api.DeskError(JSON.parse(text).error, { status: response.status });
  download(`session-${page.number}.jsonl`, text);
}

byId("record").onclick = () => attempt("recording", async () => {
  await record(api.post, byId("stop"));
});
byId("save").onclick = () => attempt("recording", () => save(selectedPage()));
byId("stop").onclick = () => attempt("recording", async () => {
  await record(api.remove, byId("save"));
});

// The focus moves to the button that replaces the pressed one, so that button must exist.
async function record(request, next) {
  const page = await request(recordingOf(selectedPage()));
  if (!state.pages.get(page.id)?.open) return;
  putPage(page);
  showChosen();
  if (page.id === state.selected) next.focus();
}

byId("open-console").onclick = () => {
  closeGuide();
  showDialogue();
  openConsole();
};
byId("close").onclick = async () => {
  const page = selectedPage();
  if (page.lost) state.pages.delete(page.id);
  else if (!await closePage(page)) return;
  if (page.id !== state.selected && page.id !== state.left?.id) return;
  select(null);
  byId("open-console").focus();
};
moveWithArrows(strip, () => [...strip.children], (tab) => tab.click());
menu.onchange = () => choose(menu.value || null);
strip.addEventListener("scroll", showRoom, { passive: true });
new ResizeObserver(() => requestAnimationFrame(showRoom)).observe(strip); // the menu changes its size again
observe(["pages", "selected"], show);
observe(["desk"], showChosen);

// The desk sends no event for a recorded line.
setInterval(async () => {
  const page = selectedPage();
  if (!state.linked || !page?.recording?.running) return;
  const read = await api.get(`/api/pages/${page.id}`).catch(() => null);
  if (!read || state.pages.get(page.id) !== page) return; // an event since then is newer
  state.pages.set(page.id, read);
  showChosen();
}, 1000);
