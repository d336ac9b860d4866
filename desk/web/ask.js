// Asks for confirmation before an action that cannot be undone.
import { byId } from "./dom.js";

/** Resolves with true if the user confirms. */
export function ask(title, text, yes) {
  const dialog = byId("ask");
  byId("ask-title").textContent = title;
  byId("ask-text").textContent = text;
  byId("ask-yes").textContent = yes;
  dialog.returnValue = "";
  dialog.showModal();
  return new Promise((resolve) => {
    dialog.addEventListener("close", () => resolve(dialog.returnValue === "yes"), { once: true });
  });
}
