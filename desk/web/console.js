// A page of the desk's own, for trying the plug-in out without writing one. It is a page like any other.
import { addressOf } from "./api.js";
import { report } from "./banner.js";
import { make } from "./dom.js";
import { select, state } from "./state.js";

let element = null;

/** Whether the page with this id is the console of this window. */
export const isConsole = (id) => Boolean(element) && element.dataset.page === id;

function loadScript() {
  if (HTMLEmbedElement.prototype.postMessageAndAwaitResponse) return Promise.resolve();
  return new Promise((resolve, reject) => {
    const script = make("script", { src: addressOf("/desk.js"), onload: resolve, onerror: reject });
    document.head.append(script);
  });
}

/** Opens the console, or shows the one that there is. */
export async function openConsole() {
  if (element) {
    select(element.dataset.page);
    report("done", { title: "The console is open already.", text: "This window has one, whose tab is chosen now.", mild: true, dismiss: true });
    return;
  }
  try {
    await loadScript();
  } catch {
    report("action", { source: "console", title: "The console cannot be opened.", text: "desk.js could not be loaded.", dismiss: true });
    return;
  }
  const opened = make("embed", { type: "application/x-mirado", hidden: true });
  opened.dataset.title = "Console";
  element = opened;
  opened.addEventListener("crash", ({ detail }) => {
    if (element === opened && !opened.dataset.page) {
      closeConsole();
      report("action", { source: "console", title: "The console cannot be opened:", text: `${detail.reason}.`, dismiss: true });
    }
  });
  document.body.append(opened);
  await new Promise((resolve) => setTimeout(resolve)); // the script sees the element and opens its page
  if (opened.dataset.page) {
    sessionStorage.setItem("console", "open");
    select(opened.dataset.page);
  }
}

export function closeConsole() {
  element?.remove();
  element = null;
  sessionStorage.removeItem("console");
}

/** Opens the console anew when it was open before this page was loaded, or before the desk was away. */
export function reopenConsole() {
  if (sessionStorage.getItem("console") !== "open" || state.pages.has(element?.dataset.page)) return undefined;
  closeConsole();
  return openConsole();
}
