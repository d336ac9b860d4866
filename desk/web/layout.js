// Panels side by side in a wide window. In a narrower one the dialogue stays and the others are tabs beside it; in a
// narrow one all are tabs. Also what a narrow window folds away, and the theme.
import { byId, moveWithArrows } from "./dom.js";

// The same widths as in the style sheet.
const narrower = matchMedia("(max-width: 1099px)");
const narrow = matchMedia("(max-width: 899px)");
const narrowest = matchMedia("(max-width: 600px)");
const tabs = [...byId("panels").children];
const [dialogue, settings] = tabs;
const panelOf = (tab) => byId(tab.getAttribute("aria-controls"));
let chosen = dialogue;
let beside = settings; // chosen last of those that may stand beside the dialogue

function lay() {
  const shown = narrow.matches ? chosen : beside;
  dialogue.hidden = !narrow.matches;
  for (const tab of tabs) {
    const panel = panelOf(tab);
    tab.setAttribute("aria-selected", String(tab === shown));
    tab.tabIndex = tab === shown ? 0 : -1;
    panel.classList.toggle("chosen", tab === shown);
    if (narrower.matches && !tab.hidden) panel.setAttribute("role", "tabpanel");
    else panel.removeAttribute("role");
  }
}

function choose(tab) {
  chosen = tab;
  if (tab !== dialogue) beside = tab;
  lay();
}

/** Chooses the dialogue where it is a tab. */
export const showDialogue = () => choose(dialogue);
export const isDialogueShown = () => panelOf(dialogue).checkVisibility();

for (const tab of tabs) tab.onclick = () => choose(tab);
moveWithArrows(byId("panels"), () => tabs.filter(({ hidden }) => !hidden), choose);
lay();

// A narrow window shows the composer and the filters only on demand.
function unfold(button, open) {
  button.setAttribute("aria-expanded", String(open));
  byId(button.getAttribute("aria-controls")).classList.toggle("folded", !open);
}
const folds = document.querySelectorAll(".fold");
for (const button of folds) {
  button.onclick = () => unfold(button, button.getAttribute("aria-expanded") === "false");
  unfold(button, false);
}

// After the width has changed, what has the focus stays visible, or something near it gets the focus.
function layAgain() {
  const focused = document.activeElement;
  const around = tabs.find((tab) => panelOf(tab).contains(focused));
  if (around) choose(around);
  else lay();
  if (!focused || focused === document.body || focused.checkVisibility({ visibilityProperty: true })) return;
  const near = focused.closest("#pages") ? byId("page-menu") :
    [...folds].find((button) => byId(button.getAttribute("aria-controls")).contains(focused)) ??
    tabs.find((tab) => tab.ariaSelected === "true");
  (near.checkVisibility() ? near : byId("main")).focus();
}
narrower.onchange = narrow.onchange = narrowest.onchange = layAgain;

export const showComposer = () => unfold(byId("show-composer"), true);

byId("skip").onclick = (event) => {
  event.preventDefault();
  showDialogue();
  (byId("talk").hidden ? byId("guide") : byId("dialogue")).focus();
};

const THEMES = ["system", "light", "dark"];
function showTheme(theme) {
  document.documentElement.dataset.theme = theme;
  byId("theme-name").textContent = theme;
}
byId("theme").onclick = () => {
  const theme = THEMES[(THEMES.indexOf(document.documentElement.dataset.theme) + 1) % THEMES.length];
  localStorage.setItem("theme", theme);
  showTheme(theme);
};
showTheme(localStorage.getItem("theme") ?? "system");
