// What is wrong with the desk as a whole, with its store, and with the pages' plug-ins.
import * as api from "./api.js";
import { ask } from "./ask.js";
import { attempt, report } from "./banner.js";
import { focusMessage } from "./composer.js";
import { closeConsole, isConsole, openConsole } from "./console.js";
import { byId, copyFrom } from "./dom.js";
import { changed, observe, state, titleOf } from "./state.js";

const TRIES = "This page tries again every second.";

// What a shell takes as one word.
const quoted = (word) => /^[\w./-]+$/.test(word) ? word : `'${word.replaceAll("'", "'\\''")}'`;

// Its store is known when the desk has answered before.
function gone() {
  const store = state.desk ? ` --store ${quoted(state.desk.store.folder)}` : "";
  const command = `mirado desk --port ${location.port || 80}${store}`;
  return { title: "The desk does not answer.",
    text: `Start it again with the command below. ${TRIES} Pages that use keepConnected come back by themselves; reload the others.`,
    lines: [command], button: { text: "Copy the command", run: (button) => copyFrom(button, command) } };
}

const FULL = { title: "The desk takes no further reader of its events.", text: `Close another desk page. ${TRIES}` };
const LOCKED = { title: "This desk asks for its token.",
  text: "Open the link that “mirado desk” printed when it began; it ends with the token." };

/** The stream of events has ended or did not begin. `error` is why the desk answers nothing else, or null. */
export function reportBroken(error) {
  report("desk", error ? error.status === 403 ? LOCKED : gone() : null);
  report("stream", error ? null : FULL);
}

export function reportLinked() {
  report("desk", null);
  report("stream", null);
}

export async function readDesk() {
  await attempt("desk", async () => { state.desk = await api.get("/api/desk"); });
  changed("desk");
}

async function replaceStore() {
  const { folder } = state.desk.store;
  const sure = await ask("Replace the store?", `All settings and the set become as new. The files that are in ${folder} now are ` +
      "kept in a folder beside it.", "Replace the store");
  if (!sure) return;
  await attempt("reset", async () => {
    const { moved } = await api.post("/api/reset?force=1");
    report("done", { title: "The store is as new.", text: moved ? `The old files are in ${moved}.` : "", mild: true, dismiss: true });
    await readDesk();
    changed("again");
  });
}

observe(["desk"], () => {
  if (state.desk?.store.error) {
    state.values = null;
    changed("values");
  }
  const { store, plugin } = state.desk ?? {};
  report("store", !store?.error ? null : { title: store.code === "damaged" ? "The store is damaged." : "The store cannot be used.",
    text: "Nothing can be read or changed until it is replaced. Its files are kept.", lines: [store.error], button: { text: "Replace the store …", run: replaceStore } });
  report("plugin", !plugin?.error ? null : { title: "The plug-in cannot be loaded.", text: plugin.error });
  byId("plugin").textContent = !plugin ? "" : plugin.error ? "No plug-in" : `Plug-in ${plugin.version}`;
  byId("plugin").title = plugin?.path ?? "";
});

async function closePage({ id }) {
  if (isConsole(id)) closeConsole();
  else await attempt("page", () => api.remove(`/api/pages/${id}`));
}

observe(["desk", "pages"], () => {
  const limit = state.desk?.pages.limit ?? Infinity;
  const all = [...state.pages.values()];
  const spare = all.find((page) => page.state === "crashed") ?? all.find(({ id }) => !isConsole(id));
  report("limit", all.length < limit || !spare ? null : { title: `${limit} pages are open, which is all that the desk takes.`,
    text: "The next page gets no plug-in. Close pages in the browser, or here.",
    button: { text: `Close ${titleOf(spare)} …`, run: async () => {
      if (await ask(`Close ${titleOf(spare)}?`, "Its plug-in ends. The page in the browser stays, without one.", "Close it")) await closePage(spare);
    } } });
});

let told = new Set(); // crashed pages whose problem was dismissed or shown for another
observe(["pages", "selected"], () => {
  const crashed = [...state.pages.values()].filter((page) => page.state === "crashed");
  const page = state.selected ? crashed.find(({ id }) => id === state.selected) : crashed.at(-1);
  report("crash", !page || told.has(page.id) ? null : { title: `The plug-in of ${titleOf(page)} has ended.`,
    text: isConsole(page.id) ? "" : "Reload the page in its browser to start another.",
    lines: page.lastLog ?? [],
    dismiss: () => told.add(page.id),
    button: isConsole(page.id) ? { text: "Start again", run: async () => {
      closeConsole();
      await openConsole();
      focusMessage();
    } } : { text: "Close the page", run: () => closePage(page) } });
});
