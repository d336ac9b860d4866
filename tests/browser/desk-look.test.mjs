// The look of the desk's page, and its use by keyboard: widths, themes, forced colours, and many pages.
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { createRequire } from "node:module";
import { after, afterEach, before, describe, it } from "node:test";
import { openConsole, openDesk, rowWith } from "./desk-page.mjs";
import { showPanel, showState, STATES } from "./desk-states.mjs";
import { launchBrowser, MortalDesk, TIMEOUT } from "./harness.mjs";

const axe = readFileSync(createRequire(import.meta.url).resolve("axe-core"), "utf8");
const LOOKS = [{ colorScheme: "light", forcedColors: "none" }, { colorScheme: "dark", forcedColors: "none" },
  { colorScheme: "light", forcedColors: "active" }];
const WIDTHS = [360, 768, 1024, 1280, 1920];
// Each state at each width, each time in one of the looks, so that each state has every look at some width.
// MIRADO_EVERY_LOOK=1: every look at every width.
const looksOf = (stateAt, widthAt) =>
  process.env.MIRADO_EVERY_LOOK ? LOOKS : [LOOKS[(stateAt + widthAt) % LOOKS.length]];

let browser, desk, page;
before(async () => { browser = await launchBrowser(); });
after(() => browser.close());
// A desk for each test, because some states end it.
async function begin() {
  desk = await MortalDesk.start();
  page = await (await browser.newContext({ viewport: { width: 1280, height: 800 } })).newPage();
  page.setDefaultTimeout(TIMEOUT);
}
afterEach(async () => {
  await page?.context().close();
  await desk?.stop();
});

// Descriptions of what axe finds, and of what it cannot decide.
async function accessibilityProblems() {
  await page.evaluate(() => Promise.all(document.getAnimations()
    .filter((it) => it.effect.getTiming().iterations === 1).map((it) => it.finished.catch(() => {})))); // or cancelled
  const { violations, incomplete } = await page.evaluate(() => globalThis.axe.run(document,
    { resultTypes: ["violations", "incomplete"] }));
  return [...violations, ...incomplete].flatMap(({ id, nodes }) =>
    nodes.map(({ target, any }) => `${id}: ${target} ${any[0]?.message ?? ""}`));
}

// A page wider than the window, text below 12 pixels, and controls beyond the right edge except scrolled tabs.
const wrongSizes = () => page.evaluate(() => {
  const wide = document.documentElement.scrollWidth > innerWidth ? [`the page is ${document.documentElement.scrollWidth} wide`] : [];
  const texts = [...document.querySelectorAll("body *")].filter((it) => it.checkVisibility() &&
    [...it.childNodes].some((node) => node.nodeType === Node.TEXT_NODE && node.data.trim()));
  const small = texts.filter((it) => parseFloat(getComputedStyle(it).fontSize) < 12);
  const cut = [...document.querySelectorAll("button, input, select, textarea, summary")].filter((it) => {
    const box = it.getBoundingClientRect();
    return it.checkVisibility() && box.width > 2 && box.right > innerWidth && !it.closest("#pages");
  });
  return [...wide, ...small.map((it) => `small: ${it.outerHTML.slice(0, 80)}`), ...cut.map((it) => `cut off: ${it.outerHTML.slice(0, 80)}`)];
});

describe("the look of the desk's page", () => {
  for (const [at, state] of STATES.entries()) {
    it(`is accessible and fits: ${state.name}`, async () => {
      await begin();
      await showState(page, desk, state);
      await page.evaluate(axe);
      for (const [place, width] of WIDTHS.entries()) {
        await page.setViewportSize({ width, height: 800 });
        await showPanel(page, state);
        assert.deepEqual(await wrongSizes(), [], String(width));
        for (const look of looksOf(at, place)) {
          await page.emulateMedia(look);
          assert.deepEqual(await accessibilityProblems(), [], `${width} ${JSON.stringify(look)}`);
        }
      }
    });
  }

  it("shows two panels at 1,024 pixels, and in a narrow window messages in the upper third", async () => {
    await begin();
    await showState(page, desk, STATES.find(({ name }) => name === "dialogue"));
    const settings = page.getByRole("tabpanel", { name: "Settings" });
    await page.setViewportSize({ width: 1024, height: 768 }); // the dialogue, and beside it one of the others
    await settings.waitFor();
    await page.getByRole("tab", { name: "Log", exact: true }).click();
    await settings.waitFor({ state: "hidden" });
    await page.getByRole("region", { name: "Log lines" }).waitFor();
    assert(await page.locator("#dialogue").isVisible());
    await page.setViewportSize({ width: 360, height: 740 });
    await page.getByRole("tab", { name: "Dialogue", exact: true }).click();
    const top = await page.locator("#dialogue").evaluate((it) => it.getBoundingClientRect().top);
    assert(top < 740 / 3, `the messages begin at ${top} of 740 pixels`);
    await page.getByRole("button", { name: "Message", exact: true }).click();
    await page.getByRole("button", { name: "Send", exact: true }).click();
  });

  it("reaches the dialogue with few keys, and returns the focus after a confirmation", async () => {
    await begin();
    await openDesk(page, desk.url);
    await openConsole(page);
    await page.reload(); // so that Tab reaches the first control
    await page.locator("main[aria-busy=false]").waitFor(); // so that the console is open again
    await page.getByRole("tab", { name: /Console/, selected: true }).waitFor();
    await page.keyboard.press("Tab");
    await page.keyboard.press("Enter");
    await page.locator("#dialogue:focus").waitFor();
    await page.getByRole("button", { name: "Reset …" }).press("Enter");
    await page.keyboard.press("Escape");
    await page.locator("#reset:focus").waitFor();
  });

  it("shows a switch that is on differently from one that is off, also in forced colours", async () => {
    await begin();
    await openDesk(page, desk.url);
    const toggle = page.getByRole("switch", { name: "The application has the privilege" });
    for (const look of LOOKS) {
      await page.emulateMedia({ ...look, reducedMotion: "reduce" });
      await toggle.check();
      const on = await toggle.screenshot();
      await toggle.uncheck();
      assert(!on.equals(await toggle.screenshot()), JSON.stringify(look));
    }
  });

  it("stays small and quick with 64 pages that send many messages", async () => {
    await begin();
    const pages = await Promise.all(Array.from({ length: 64 }, () => desk.openPage()));
    await Promise.all(pages.map((each) => desk.send(each, { send: { command: "registerVconfKeysForCaption", propertyKey: 0 } })));
    await openDesk(page, desk.url);
    await page.getByRole("tab", { name: /^All/ }).click();
    await page.getByRole("button", { name: "Watch Caption, Caption; watched by 64 pages" }).waitFor();
    const width = await page.locator("#settings").evaluate((it) => it.scrollWidth - it.clientWidth);
    assert.equal(width, 0, "the settings do not scroll sideways when 64 pages watch one of them");

    const cdp = await page.context().newCDPSession(page);
    await cdp.send("Performance.enable", { timeDomain: "threadTicks" }); // only the processor time of this page
    const measure = async () => {
      await cdp.send("HeapProfiler.collectGarbage");
      const { metrics } = await cdp.send("Performance.getMetrics");
      return Object.fromEntries(metrics.map(({ name, value }) => [name, value]));
    };
    const rows = 32;
    const talkAll = () => Promise.all(pages.map((each) =>
      desk.send(each, Array.from({ length: rows }, () => ({ post: { command: "getVersion" } })))));
    const drawn = async (command) => { // all that was sent before it has been drawn, too
      await Promise.all(pages.map((each) => desk.send(each, { send: { command: "getVersion" } })));
      await desk.send(pages.at(-1), { send: { command } });
      await rowWith(page, command).waitFor();
    };
    await talkAll();
    await drawn("isTVSPicSizeResized");
    const before = await measure();
    for (let times = 0; times < 3; ++times) await talkAll();
    await drawn("showCaption");
    const after_ = await measure();
    const used = (after_.TaskDuration - before.TaskDuration) / (3 * rows * pages.length) * 1000;
    assert(used < 0.5, `a row takes ${used} ms of processor time, the limit is 0.5 ms`);
    assert(after_.JSHeapUsedSize < before.JSHeapUsedSize + 8e6, `${before.JSHeapUsedSize} bytes became ${after_.JSHeapUsedSize}`);
    assert(await page.evaluate(() => document.querySelectorAll("*").length) < 6000);
  });
});
