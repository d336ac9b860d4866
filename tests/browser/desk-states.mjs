// Twelve states of the desk's page, for the tests of its look and for the screenshots. To add one, extend STATES.
import { answer, CAPTION, openConsole, openDesk, rowWith, sendCommand } from "./desk-page.mjs";

const messageOf = (command, more) => ({ send: { command, ...more } });
const SUBSCRIBE = messageOf("registerVconfKeysForCaption", { propertyKey: 0 });

async function openPages(desk, count) {
  const pages = await Promise.all(Array.from({ length: count }, (_, at) =>
    desk.openPage({ title: `Application ${at + 1}`, url: `http://localhost:8000/${at + 1}.html` })));
  await Promise.all(pages.map((page) => desk.send(page, SUBSCRIBE)));
  return pages;
}

async function talk(page) {
  await openConsole(page);
  await sendCommand(page, "registerVconfKeysForCaption", { key: 0 });
  await rowWith(page, /registerVconfKeysForCaption.*gives/).waitFor();
  await sendCommand(page, "setMenuValue", { key: 0, value: 1 });
  await sendCommand(page, "getMenuValue", { key: 14 }); // cannot be read
  await sendCommand(page, "getMenuValue", { key: 20 });
  await rowWith(page, /VOICE_GUIDE_SPEED.*NORMAL/).waitFor();
  await rowWith(page, "CAPTION changed").waitFor();
}

const crash = async (page) => {
  await talk(page);
  await page.getByRole("button", { name: "Kill …" }).click();
  await answer(page, "Kill it");
  await page.getByRole("alert").filter({ hasText: "was killed" }).waitFor();
};

/**
 * `panel` is the tab to choose in a narrow window, `unfold` whether to show also what such a window folds away;
 * `show(page, desk)` brings the opened page into the state.
 */
export const STATES = [
  { name: "first-visit", show: async () => {} },
  { name: "dialogue", show: talk },
  { name: "message-opened", show: async (page) => {
    await talk(page);
    await rowWith(page, "key is not supported").getByRole("button").click();
  } },
  { name: "failures-offered", unfold: true, show: async (page) => {
    await talk(page);
    await page.getByText("Make it fail", { exact: true }).click();
    await page.getByRole("button", { name: /Reading VOICE_GUIDE_SPEED fails/ }).click();
  } },
  { name: "setting-opened", panel: "Settings", show: async (page, desk) => {
    await openPages(desk, 6);
    await desk.call("PUT", "/api/store/memory%2Fmy%2Ftext", { value: "  two\nlines" });
    await page.getByRole("button", { name: "Caption", exact: true }).click();
    await page.getByRole("spinbutton", { name: "Caption mode, Caption" }).fill("many");
    await page.getByRole("spinbutton", { name: "Caption mode, Caption" }).press("Enter");
  } },
  { name: "set-with-faults", panel: "The set", show: async (page, desk) => {
    await desk.call("PUT", "/api/scenarios/evening", {});
    await desk.call("POST", "/api/faults", { call: "vconf_get_int", path: CAPTION, answer: -1, times: 1 });
    await desk.call("PATCH", "/api/set", { b2b: false, latency: { getVersion: 250 }, pictureSize: null });
    await page.getByRole("button", { name: "Load evening" }).waitFor({ state: "attached" });
  } },
  { name: "log", panel: "Log", show: async (page) => {
    await talk(page);
    await page.getByLabel("Lowest priority").selectOption("Verbose");
  } },
  { name: "question", show: async (page) => {
    await talk(page);
    await page.getByRole("button", { name: "Kill …" }).click();
  } },
  { name: "crashed", show: crash },
  { name: "page-limit", show: async (page, desk) => {
    await openPages(desk, 64);
    await page.getByRole("alert").filter({ hasText: "64 pages are open" }).waitFor();
  } },
  { name: "store-damaged", show: async (page, desk) => {
    await talk(page);
    await desk.damage();
    await page.reload();
    await page.locator("main[aria-busy=false]").waitFor();
    await page.getByRole("alert").filter({ hasText: "The store is damaged" }).waitFor();
  } },
  { name: "desk-gone", show: async (page, desk) => {
    await talk(page);
    await desk.kill();
    await page.getByRole("alert").filter({ hasText: "The desk does not answer" }).waitFor();
  } },
];

/** Opens the desk's page in a state. The caller sets width and theme, before or after. */
export async function showState(page, desk, { show }) {
  await openDesk(page, desk.url);
  await show(page, desk);
}

/** Chooses the panel of the state, if the panels are tabs, after the page has noticed its new width. */
export const showPanel = (page, { panel = "Dialogue", unfold = false }) => page.evaluate(async ([name, all]) => {
  await new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve)));
  const tabs = [...document.querySelectorAll("#panels [aria-selected=false]")].filter(({ textContent }) => textContent === name);
  const folds = all ? document.querySelectorAll(".fold[aria-expanded=false]") : [];
  for (const part of [...tabs, ...folds]) if (part.checkVisibility()) part.click();
}, [panel, unfold]);
