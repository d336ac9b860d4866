// How long a test waits for a simulated set: from the call of startSet() to the reply to a page's first message, with
// the store in memory and on disk.
//
//   node bench/start_set.mjs [SETS]     100 by default, one after the other
import { mkdirSync } from "node:fs";
import { fileURLToPath } from "node:url";
import { startSet } from "../npm/mirado-desk/index.js";

const root = fileURLToPath(new URL("../", import.meta.url));
process.env.MIRADO ??= `${root}build/release/bin/mirado`;
const sets = Number(process.argv[2] ?? 100);
const disk = `${root}build/bench/scratch`;
mkdirSync(disk, { recursive: true });

async function measure() {
  const times = [performance.now()];
  const set = await startSet();
  times.push(performance.now());
  const page = await set.openPage();
  times.push(performance.now());
  const reply = await page.send({ command: "getVersion" });
  times.push(performance.now());
  await set.stop();
  times.push(performance.now());
  if (reply?.value !== "4.0") throw new Error(`the plug-in replied ${JSON.stringify(reply)}`);
  const steps = times.slice(1).map((time, at) => time - times[at]);
  return [times[3] - times[0], ...steps];
}

console.log(`${sets} sets each; milliseconds, median (90th percentile)`);
console.log("| store | to the first reply | startSet | openPage | send | stop |\n|---|---|---|---|---|---|");
for (const [name, folder] of [["in memory", "/dev/shm"], ["on disk", disk]]) {
  process.env.TMPDIR = folder;
  const runs = [];
  for (let run = 0; run < sets; ++run) runs.push(await measure());
  const columns = runs[0].map((_, column) => {
    const sorted = runs.map((run) => run[column]).sort((left, right) => left - right);
    const at = (part) => sorted[Math.min(sets - 1, Math.floor(sets * part))].toFixed(1);
    return `${at(0.5)} (${at(0.9)})`;
  });
  console.log(`| ${name} | ${columns.join(" | ")} |`);
}
