// Makes pictures of the desk's page in twelve states, each light and dark, wide and narrow, and one in forced colours.
//
//   node screenshots.mjs FOLDER
import { mkdir } from "node:fs/promises";
import { join } from "node:path";
import { showPanel, showState, STATES } from "./desk-states.mjs";
import { launchBrowser, MortalDesk } from "./harness.mjs";

const VIEWS = [
  { name: "wide-light", width: 1280, height: 800, colorScheme: "light" },
  { name: "wide-dark", width: 1920, height: 1080, colorScheme: "dark" },
  { name: "narrow-light", width: 390, height: 844, colorScheme: "light" },
  { name: "narrow-forced", width: 1024, height: 768, colorScheme: "light", forcedColors: "active" },
];

const [folder] = process.argv.slice(2);
await mkdir(folder, { recursive: true });
const browser = await launchBrowser();
for (const [at, state] of STATES.entries()) {
  const desk = await MortalDesk.start();
  const page = await (await browser.newContext({ viewport: { width: 1280, height: 800 }, reducedMotion: "reduce" })).newPage();
  await showState(page, desk, state);
  for (const { name, width, height, colorScheme, forcedColors = "none" } of VIEWS) {
    await page.emulateMedia({ colorScheme, forcedColors, reducedMotion: "reduce" });
    await page.setViewportSize({ width, height });
    await showPanel(page, state);
    const path = join(folder, `${String(at + 1).padStart(2, "0")}-${state.name}-${name}.png`);
    await page.screenshot({ path });
    console.log(path);
  }
  await page.context().close();
  await desk.stop();
}
await browser.close();
