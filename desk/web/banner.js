// The banner for problems: what is wrong, what to do, and a button that does it.
import { DeskError } from "./api.js";
import { byId, make } from "./dom.js";
import { changed, observe, state } from "./state.js";

// Only the first of these is shown: a later one is often its consequence.
const ORDER = ["desk", "stream", "store", "plugin", "crash", "limit", "action", "done"];

const problems = new Map(); // by kind: {source, title, text, lines, button: {text, run}, mild}
let shown = null;

/** Shows `problem` until another one of the same kind, or null, is reported. */
export function report(kind, problem) {
  if (problem) problems.set(kind, problem);
  else problems.delete(kind);
  show();
}

/** Runs `action`. Shows a failure until an action of the same `source` succeeds. Resolves with true if it succeeded. */
export async function attempt(source, action) {
  try {
    await action();
    if (problems.get("action")?.source === source) report("action", null);
    return true;
  } catch (error) {
    if (!(error instanceof DeskError)) throw error;
    // If the desk does not answer at all, only its event stream reports it.
    if (error.status !== 0 || state.linked) report("action", { source, title: "The request failed:", text: error.message, dismiss: true });
    if (["damaged", "removed", "busy", "failed"].includes(error.code)) changed("doubt");
    return false;
  }
}

function show() {
  const kind = ORDER.find((each) => problems.has(each)) ?? null;
  const problem = problems.get(kind) ?? null;
  const looks = problem && JSON.stringify([kind, problem.title, problem.text, problem.lines, problem.button?.text]);
  if (looks === shown) return;
  shown = looks;
  const banner = byId("banner");
  const hadFocus = banner.contains(document.activeElement);
  banner.className = problem?.mild ? "mild" : "";
  banner.replaceChildren(...problem ? contentOf(kind, problem) : []);
  if (hadFocus && !problem) byId("main").focus();
  else if (hadFocus) banner.querySelector("button")?.focus();
}

function contentOf(kind, { title, text, lines = [], button, dismiss }) {
  const buttons = [];
  if (button) {
    let running = false; // not `disabled`, which would lose the focus
    buttons.push(make("button", { type: "button", className: "usual", onclick: async ({ currentTarget }) => {
      if (running) return;
      running = true;
      await button.run(currentTarget);
      running = false;
    } }, button.text));
  }
  if (dismiss) {
    buttons.push(make("button", { type: "button", onclick: () => {
      if (dismiss !== true) dismiss();
      report(kind, null);
    } }, "Dismiss"));
  }
  return [
    make("span", { className: "mark" }),
    make("div", { className: "told" }, make("p", {}, make("strong", {}, title), " ", text),
      ...lines.length ? [make("pre", { tabIndex: 0, role: "region", "aria-label": "Details" }, lines.join("\n"))] : []),
    make("div", { className: "buttons" }, ...buttons)];
}

// Disables what cannot work without the desk, its store, or an open page.
observe(["linked", "desk", "pages", "selected"], () => {
  const store = state.linked && !state.desk?.store.error;
  const page = state.pages.get(state.selected);
  const met = { desk: state.linked, store, page: state.linked && Boolean(page), plugin: store && page?.state === "running" };
  for (const part of document.querySelectorAll("[data-needs]")) part.disabled = !met[part.dataset.needs];
});
