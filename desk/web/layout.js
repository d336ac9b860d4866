// Panels side by side in a wide window, as tabs in a narrow one; and the theme.
import { byId, moveWithArrows } from "./dom.js";

const narrow = matchMedia("(max-width: 1099px)");
const tabs = [...byId("panels").children];
const panelOf = (tab) => byId(tab.getAttribute("aria-controls"));

function choose(chosen) {
  for (const tab of tabs) {
    tab.setAttribute("aria-selected", String(tab === chosen));
    tab.tabIndex = tab === chosen ? 0 : -1;
    panelOf(tab).classList.toggle("chosen", tab === chosen);
  }
}

function lay() {
  for (const tab of tabs) {
    const panel = panelOf(tab);
    if (narrow.matches) panel.setAttribute("role", "tabpanel");
    else panel.removeAttribute("role");
  }
}

/** Where panels are tabs, chooses the one with the dialogue. */
export const showDialogue = () => choose(tabs[0]);
export const isDialogueShown = () => panelOf(tabs[0]).checkVisibility();

for (const tab of tabs) tab.onclick = () => choose(tab);
moveWithArrows(byId("panels"), () => tabs, choose);
narrow.onchange = lay;
choose(tabs[0]);
lay();

byId("skip").onclick = (event) => {
  event.preventDefault();
  choose(tabs[0]);
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
