// What is wrong with the desk as a whole, with its store, and with the pages' plug-ins.
import * as api from "./api.js";
import { ask } from "./ask.js";
import { attempt, report } from "./banner.js";
import { focusMessage } from "./composer.js";
import { closePage, isConsole, restartConsole } from "./console.js";
import { byId, copyFrom } from "./dom.js";
import { showDialogue } from "./layout.js";
import { changed, forgetClosed, isAgain, observe, openPages, select, selectedPage, state, titleOf } from "./state.js";

const TRIES = "This page tries again every second.";

// `word`, quoted for a shell if necessary.
const quoted = (word) => /^[\w./-]+$/.test(word) ? word : `'${word.replaceAll("'", "'\\''")}'`;

// The command line is known if the desk has answered before.
function gone() {
  const command = (state.desk?.command ?? ["mirado", "desk", "--port", location.port || "80"]).map(quoted).join(" ");
  const temporary = command.includes("--temporary") ? "Its set, scenarios and recordings were temporary and end with it. " : "";
  return { title: "The desk does not answer.",
    text: `${temporary}Start it again with the command below. ${TRIES} Pages that use keepConnected come back by themselves; reload the others.`,
    lines: [command], button: { text: "Copy the command", run: (button) => copyFrom(button, command) } };
}

const FULL = { title: "Too many desk pages are open.", text: `Close another one. ${TRIES}` };
const LOCKED = { title: "This desk asks for its token.",
  text: "Open the link that “mirado desk” printed when it began; it ends with the token." };

/** The stream of events has ended or did not start. `error` is the failure of other requests, null if they succeed. */
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
  const sure = await ask("Replace the store?", `All settings and the set get their initial values. The files that are in ${folder} now are ` +
      "kept in a folder beside it.", "Replace the store");
  if (!sure) return;
  await attempt("reset", async () => {
    const { moved } = await api.post("/api/reset?force=1");
    report("done", { title: "The store was replaced.", text: moved ? `The old files are in ${moved}.` : "", mild: true, dismiss: true });
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
    text: "Nothing can be read or changed until its files are restored or it is replaced. Replacing keeps the files.", lines: [store.error], button: { text: "Replace the store …", run: replaceStore } });
  report("plugin", !plugin?.error ? null : { title: "The plug-in cannot be loaded.", text: plugin.error });
  byId("plugin").textContent = !plugin ? "" : plugin.error ? "No plug-in" : `Plug-in ${plugin.version}`;
  byId("plugin").title = plugin?.path ?? "";
});

observe(["desk", "pages"], () => {
  const limit = state.desk?.pages.limit ?? Infinity;
  const all = openPages();
  const spare = all.find((page) => page.state === "crashed") ?? all.find(({ id }) => !isConsole(id));
  report("limit", all.length < limit || !spare ? null : { title: `${limit} pages are open, the most that the desk allows.`,
    text: "The next page gets no plug-in. Close pages in the browser, or here.",
    button: { text: `Close ${titleOf(spare)} …`, run: async () => {
      if (await ask(`Close ${titleOf(spare)}?`, "Its plug-in ends. The page in the browser stays, without one.", "Close it")) await closePage(spare);
    } } });
});

// ids of crashed pages whose banner was dismissed
const dismissed = new Set(JSON.parse(sessionStorage.getItem("dismissed") ?? "[]"));

function dismissCrash({ id }) {
  dismissed.add(id);
  sessionStorage.setItem("dismissed", JSON.stringify([...dismissed].slice(-100)));
  changed("pages");
}

const alive = new Set(); // pages that this window has seen running: it tells of their crash whatever is chosen

const howOf = ({ crash }) => crash.signal === 9 ? "was killed (signal 9)" : crash.signal !== null ? `crashed (signal ${crash.signal})` : `ended with status ${crash.status}`;

// A crashed page, also if the chosen page is the same one after it connected again, which may take only a moment.
observe(["pages", "selected"], () => {
  const chosen = selectedPage();
  forgetClosed(alive);
  for (const { id, state: now } of state.pages.values()) if (now === "running") alive.add(id);
  const isChosen = (each) => each === chosen || Boolean(chosen) && isAgain(chosen, each);
  // A console of an earlier window concerns nobody any more.
  const crashed = [...state.pages.values()].filter((each) => each.state === "crashed" && !dismissed.has(each.id) &&
    (alive.has(each.id) || each.url !== location.href && (!chosen || isChosen(each))));
  crashed.sort((one, other) => isChosen(one) - isChosen(other) || one.number - other.number);
  const page = crashed.at(-1);
  if (!page) return report("crash", null);
  const { text, ...remedy } = remedyOf(page);
  report("crash", { title: `The plug-in of ${titleOf(page)} ${howOf(page)}.`, lines: page.lastLog, dismiss: () => dismissCrash(page),
    ...remedy, text: page.lastLog?.length ? `${text} The last log lines:` : text });
});

function remedyOf(page) {
  if (isConsole(page.id)) {
    return { text: "The new console watches nothing.", button: { text: "Start again", run: async () => {
      dismissCrash(page);
      showDialogue();
      await restartConsole(page.id);
      focusMessage();
    } } };
  }
  if (page.open) {
    return { text: "Reload the page in its browser to start another.", button: { text: "Close the page", run: () => closePage(page) } };
  }
  // Not another tab of the same application.
  const next = openPages().find((each) => isAgain(each, page) && each.since >= page.crash.time);
  const other = next && page.id === state.selected ? next : page;
  return { mild: Boolean(next), text: next ? `The page has connected again, as #${next.number}.` : "The page is closed.",
    button: other.id === state.selected ? null : { text: `Show #${other.number}`, run: () => {
      showDialogue();
      select(other.id);
    } } };
}
