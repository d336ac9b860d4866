// Puts the parts of the desk's page together and keeps them up to date.
import { connect } from "./mirado.js";
import * as api from "./api.js";
import * as console_ from "./console.js";
import { attempt, byId, make } from "./dom.js";
import * as log from "./log.js";
import * as set from "./set.js";
import * as settings from "./settings.js";

const pages = new Map(); // by id
const link = byId("link");

function showPages(anew = false) {
  const all = Array.from(pages.values());
  console_.showPages(all, anew);
  settings.showWatchers(all);
  const own = byId("own-plugin").dataset.page;
  byId("pages").replaceChildren(...all.map(({ id, number, title, url, state, pid }) => {
    const name = id === own ? "console" : title || "page";
    return make("li", { className: `chip ${state}`, title: `${title}\n${url}\nprocess ${pid}` },
      `#${number} ${name}${state === "crashed" ? " ✕ crashed" : ""}`);
  }));
}

// The set and its faults, as often as something about them changes, but not more often than they can be read.
let reading = false;
let readAgain = false;
async function readSet() {
  readAgain = true;
  if (reading) return;
  reading = true;
  while (readAgain) {
    readAgain = false;
    await attempt(link, async () => {
      const [state, faults] = await Promise.all([api.get("/api/set"), api.get("/api/faults")]);
      set.show(state);
      set.showFaults(faults);
      settings.showLists(state.lists);
    });
  }
  reading = false;
}

async function readAll() {
  await attempt(link, async () => {
    await readSet();
    await settings.load();
    set.offerPaths(settings.paths());
    const list = await api.get("/api/pages");
    pages.clear();
    for (const page of list.pages) pages.set(page.id, page);
    const logs = await Promise.all(list.pages.map(({ id }) => api.get(`/api/pages/${id}/log`).catch(() => {
      pages.delete(id); // It went before it could be asked.
      return { log: [] };
    })));
    showPages(true);
    byId("log").replaceChildren();
    log.append(logs.flatMap((each) => each.log).sort((a, b) => a.time - b.time).map(withNumber));
  });
}

const withNumber = (line) => ({ ...line, number: pages.get(line.page)?.number ?? /^p(\d+)/.exec(line.page)[1] });

// Events come in bursts; each burst is shown in one go.
function inBursts(show) {
  let waiting = [];
  return (data) => {
    if (waiting.push(data) > 1) return;
    requestAnimationFrame(() => {
      const burst = waiting;
      waiting = [];
      show(burst);
    });
  };
}

// The console's own plug-in, which answers for the library too: this page is one of its users.
function startPlugin() {
  const element = byId("own-plugin");
  const plugin = byId("plugin");
  const client = connect(element);
  byId("crashed").hidden = true;
  try {
    plugin.textContent = `Plug-in ${client.getVersion()}`;
    plugin.className = "good";
  } catch (error) {
    plugin.textContent = `✕ ${error.message}`;
    plugin.className = "bad";
  }
  console_.usePage(element.dataset.page);
  settings.usePlugin(client);
  element.addEventListener("crash", ({ detail }) => {
    plugin.textContent = detail.status === null && detail.signal === null ? "✕ Plug-in gone" : "✕ Plug-in crashed";
    plugin.className = "bad";
    byId("crashed").hidden = false;
    byId("crashed").firstElementChild.textContent = `✕ ${detail.reason}.`;
    settings.usePlugin(null);
  });
}

byId("restart").onclick = () => {
  const old = byId("own-plugin");
  old.replaceWith(old.cloneNode());
  startPlugin();
};

const THEMES = ["system", "light", "dark"];
function showTheme(theme) {
  document.documentElement.dataset.theme = theme;
  byId("theme").textContent = `Theme: ${theme}`;
}
byId("theme").onclick = () => {
  const theme = THEMES[(THEMES.indexOf(document.documentElement.dataset.theme) + 1) % THEMES.length];
  localStorage.setItem("theme", theme);
  showTheme(theme);
};
showTheme(localStorage.getItem("theme") ?? "system");

startPlugin();
set.offer(console_.commands);
api.follow({
  linked(good) {
    link.hidden = good;
    link.textContent = good ? "" : "✕ The desk does not answer; trying again …";
    if (good) readAll();
  },
  setting: inBursts((burst) => burst.forEach(settings.change)),
  set: readSet,
  page(page) {
    pages.set(page.id, page);
    showPages();
  },
  gone({ id }) {
    pages.delete(id);
    showPages();
  },
  dialogue: inBursts((burst) => {
    console_.addDialogue(burst);
    if (set.countsDown) readSet();
  }),
  log: inBursts((burst) => log.append(burst.map(withNumber))),
});
