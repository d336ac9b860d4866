// A question before something is done that cannot be taken back.
import { byId } from "./dom.js";

/** True when the answer is yes. */
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
