// The pages as tabs. The chosen one is whose dialogue and log are shown, and who is spoken to, recorded and killed.
import * as api from "./api.js";
import { ask } from "./ask.js";
import { attempt } from "./banner.js";
import { closeConsole, isConsole, openConsole } from "./console.js";
import { byId, download, make, moveWithArrows, setText, timeOf } from "./dom.js";
import { changed, observe, select, selectedPage, state, titleOf } from "./state.js";

const strip = byId("pages");
const tabs = new Map(); // by the page's id, "" being all of them
let missed = new Map(); // by id: the pages that changed, null those that went, while the list was on its way

function tabOf(id) {
  if (!tabs.has(id)) {
    const tab = make("button", { type: "button", role: "tab", id: `tab-${id || "all"}`, "aria-controls": "conversation",
      onclick: () => select(id || null) });
    tabs.set(id, tab);
  }
  return tabs.get(id);
}

function show() {
  const pages = [...state.pages.values()];
  if (state.departed) pages.push({ ...state.departed, state: "gone" });
  const ids = new Set(["", ...pages.map(({ id }) => id)]);
  for (const [id, tab] of tabs) {
    if (ids.has(id)) continue;
    tab.remove();
    tabs.delete(id);
  }
  const all = tabOf("");
  setText(all, pages.length > 1 ? `All ${pages.length}` : "All");
  const shown = [all, ...pages.map((page) => {
    const tab = tabOf(page.id);
    const word = { crashed: " ✕ crashed", gone: " (gone)" }[page.state] ?? (page.recording?.running ? " ● rec" : "");
    setText(tab, titleOf(page) + word);
    tab.className = page.state;
    tab.title = `${page.title}\n${page.url}`;
    return tab;
  })];
  for (const [place, tab] of shown.entries()) {
    if (strip.children[place] !== tab) strip.insertBefore(tab, strip.children[place] ?? null);
    const chosen = tab === tabOf(state.selected ?? "");
    if (chosen && tab.getAttribute("aria-selected") !== "true") requestAnimationFrame(() => tab.scrollIntoView({ block: "nearest", inline: "nearest" }));
    tab.setAttribute("aria-selected", String(chosen));
    tab.tabIndex = chosen ? 0 : -1;
  }
  byId("conversation").setAttribute("aria-labelledby", tabOf(state.selected ?? "").id);
  showChosen();
}

function showChosen() {
  const page = selectedPage() ?? state.departed;
  const many = state.pages.size;
  setText(byId("page-facts"), page ?
    `${page.url ? `${page.url} · ` : ""}${state.departed ? "has gone" : `process ${page.pid}`} · since ${timeOf(page.since).slice(0, 8)}` :
    many ? `${many} page${many > 1 ? "s" : ""} open. Choose one to speak to its plug-in.` : "No page is open.");
  byId("page-facts").title = page?.url ?? "";
  byId("kill").disabled = page?.state !== "running" || Boolean(state.departed);
  const recording = page?.recording;
  byId("record").disabled = byId("kill").disabled;
  byId("record").hidden = Boolean(recording?.running);
  byId("stop").hidden = !recording?.running;
  byId("save").hidden = !recording;
  setText(byId("recorded"), recording ? `${recording.running ? "●" : "■"} ${recording.lines} ${recording.lines === 1 ? "line" : "lines"}${recording.full ? ", full" : ""}` : "");
  byId("close-console").hidden = !page || !isConsole(page.id);
}

/** A page is new or has changed. */
export function putPage(page) {
  missed?.set(page.id, page);
  const isNew = !state.pages.has(page.id);
  const first = state.pages.size === 0 && !missed;
  state.pages.set(page.id, page);
  changed("pages");
  if (!isNew) return;
  if (state.departed ? isAgain(page, state.departed) : first) select(page.id); // the first is what one wants to see
}

// Whoever looks at a page and loads it anew goes on looking at it.
const isAgain = (page, old) => page.number > old.number && page.url === old.url && page.title === old.title;

export function dropPage({ id }) {
  missed?.set(id, null);
  const page = state.pages.get(id);
  if (!page) return;
  state.pages.delete(id);
  changed("pages", "selected");
  if (id !== state.selected) return;
  state.departed = page;
  const next = [...state.pages.values()].find((each) => isAgain(each, page)); // may have come before the old one went
  if (next) select(next.id);
}

/** Reads all pages anew. The chosen one stays chosen if it is still there. */
export async function load() {
  missed = new Map();
  await attempt("pages", async () => {
    const { pages } = await api.get("/api/pages");
    const all = state.pages.size > 0 && !state.selected; // somebody chose to see all
    state.pages = new Map(pages.map((page) => [page.id, page]));
    for (const [id, page] of missed) {
      if (page) state.pages.set(id, page);
      else state.pages.delete(id);
    }
    state.departed = null;
    const before = state.selected ?? sessionStorage.getItem("page");
    const [first, second] = state.pages.keys();
    select(all ? null : state.pages.has(before) ? before : second ? null : first ?? null);
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
  await api.post(recordingOf(selectedPage()));
  await readPage();
  byId("stop").focus();
});
byId("save").onclick = () => attempt("recording", () => save(selectedPage()));
byId("stop").onclick = () => attempt("recording", async () => {
  await api.remove(recordingOf(selectedPage()));
  await readPage();
  byId("save").focus();
});

// The focus goes to the button that takes the place of the one that was pressed, so that one must be there.
async function readPage() {
  putPage(await api.get(`/api/pages/${state.selected}`));
  showChosen();
}

byId("open-console").onclick = openConsole;
byId("close-console").onclick = () => {
  closeConsole();
  select(null);
  byId("open-console").focus();
};
moveWithArrows(strip, () => [...strip.children], (tab) => tab.click());
observe(["pages", "selected"], show);
