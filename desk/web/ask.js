// Asks for confirmation before an action that cannot be undone.
import { byId } from "./dom.js";

/** Resolves with true if the user confirms. */
export function ask(title, text, yes) {
  const dialog = byId("ask");
  byId("ask-title").textContent = title;
  byId("ask-text").textContent = text;
  byId("ask-yes").textContent = yes;
  dialog.showModal();
  return new Promise((resolve) => {
    // Closing returns the focus at once, but "close" is dispatched later: a key pressed in between would be lost.
    dialog.onsubmit = dialog.oncancel = (event) => {
      event.preventDefault();
      dialog.close();
      resolve(event.submitter?.value === "yes");
    };
  });
}
