// Consoles: pages of the desk itself, to try the plug-in without writing one. To the desk they are like other pages.
import { addressOf, remove } from "./api.js";
import { attempt, report } from "./banner.js";
import { make } from "./dom.js";
import { select, selectedPage, state } from "./state.js";

const elements = new Set();

const elementOf = (id) => [...elements].find((element) => element.dataset.page === id);

/** Whether the page with this id is a console of this window. */
export const isConsole = (id) => Boolean(elementOf(id));

// The number of consoles to open after a reload.
const remember = () => sessionStorage.setItem("consoles", String(elements.size));

function loadScript() {
  if (HTMLEmbedElement.prototype.postMessageAndAwaitResponse) return Promise.resolve();
  return new Promise((resolve, reject) => {
    const script = make("script", { src: addressOf("/desk.js"), onload: resolve, onerror: reject });
    document.head.append(script);
  });
}

/** Opens a console; with `choose` also chooses its tab. */
export async function openConsole({ choose = true } = {}) {
  try {
    await loadScript();
  } catch {
    report("action", { source: "console", title: "The console cannot be opened.", text: "desk.js could not be loaded.", dismiss: true });
    return;
  }
  const opened = make("embed", { type: "application/x-mirado", hidden: true });
  opened.dataset.title = "Console";
  elements.add(opened);
  opened.addEventListener("crash", ({ detail }) => {
    if (!opened.dataset.page) {
      removeElement(opened);
      remember();
      report("action", { source: "console", title: "The console cannot be opened:", text: `${detail.reason}.`, dismiss: true });
    }
  });
  document.body.append(opened);
  await new Promise((resolve) => setTimeout(resolve)); // desk.js finds the element and opens its page
  if (!opened.dataset.page) return;
  remember();
  if (choose) select(opened.dataset.page);
}

function removeElement(element) {
  element?.remove();
  elements.delete(element);
}

/** Replaces a console whose plug-in has ended. */
export function restartConsole(id) {
  removeElement(elementOf(id));
  return openConsole();
}

/** The page with this id was closed, here or elsewhere; if it was a console of this window, it does not come back. */
export function forgetConsole(id) {
  if (!isConsole(id)) return;
  removeElement(elementOf(id));
  remember();
}

/** Closes a page, or deletes one that has ended. True on success. */
export async function closePage({ id }) {
  const good = await attempt("page", () => remove(`/api/pages/${id}`));
  if (good) forgetConsole(id);
  return good;
}

/** Opens the consoles again that were open before this page was reloaded, or before the desk ended. */
export async function reopenConsoles() {
  const page = selectedPage();
  const wasChosen = elements.size ? Boolean(page) && isConsole(page.id) : !page || page.url === location.href;
  for (const element of elements) if (!state.pages.get(element.dataset.page)?.open) removeElement(element);
  const missing = Number(sessionStorage.getItem("consoles")) - elements.size;
  for (let count = 0; count < missing; ++count) await openConsole({ choose: wasChosen && !selectedPage()?.open });
}
