// Makes screenshots of the desk's page in twelve states, at five widths, light, dark and in forced colours.
//
//   node screenshots.mjs FOLDER
import { mkdir } from "node:fs/promises";
import { join } from "node:path";
import { showPanel, showState, STATES } from "./desk-states.mjs";
import { launchBrowser, MortalDesk } from "./harness.mjs";

const VIEWS = [
  { width: 1280, height: 800, colorScheme: "light" },
  { width: 1920, height: 1080, colorScheme: "dark" },
  { width: 1024, height: 768, colorScheme: "light", forcedColors: "active" },
  { width: 390, height: 844, colorScheme: "light" },
  { width: 360, height: 740, colorScheme: "dark" },
];

const [folder] = process.argv.slice(2);
await mkdir(folder, { recursive: true });
const browser = await launchBrowser();
for (const [at, state] of STATES.entries()) {
  const desk = await MortalDesk.start();
  const page = await (await browser.newContext({ viewport: { width: 1280, height: 800 }, reducedMotion: "reduce" })).newPage();
  await showState(page, desk, state);
  for (const { width, height, colorScheme, forcedColors = "none" } of VIEWS) {
    await page.emulateMedia({ colorScheme, forcedColors, reducedMotion: "reduce" });
    await page.setViewportSize({ width, height });
    await showPanel(page, state);
    const path = join(folder, `${String(at + 1).padStart(2, "0")}-${state.name}-${width}-${forcedColors === "active" ? "forced" : colorScheme}.png`);
    await page.screenshot({ path, animations: "disabled" });
    console.log(path);
  }
  await page.context().close();
  await desk.stop();
}
await browser.close();
