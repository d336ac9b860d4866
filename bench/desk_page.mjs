// The part `page` of desk.mjs: the desk's page in Chromium while 64 pages send messages. Measures how often it draws,
// its processor time, and whether its memory grows.
import { readdirSync, readFileSync } from "node:fs";
import { createRequire } from "node:module";
import { Desk } from "../tests/desk/desk.mjs";

const PAGES = 64;
const RATE = 1000; // rows of the dialogue in a second
const TICK = 50; // milliseconds between two bursts
const GROUP = 10; // pages that send in one burst; the next ten send the next burst
const WARM_UP = 5; // seconds
const MEASURED = 15; // seconds
const sleep = (seconds) => new Promise((resolve) => setTimeout(resolve, 1000 * seconds));

// Seconds of CPU that the descendants of this process have used, without `other` and its descendants.
function cpuWithout(other) {
  const all = readdirSync("/proc").filter((name) => /^\d+$/.test(name)).flatMap((pid) => {
    try {
      const [, parent, , , , , , , , , , user, system] = readFileSync(`/proc/${pid}/stat`, "utf8").replace(/^.*\) /, "").split(" ");
      return [{ pid, parent, cpu: (Number(user) + Number(system)) / 100 }];
    } catch {
      return []; // it has just ended
    }
  });
  const sum = (pid) => all.filter((each) => each.parent === pid && each.pid !== String(other))
    .reduce((total, each) => total + each.cpu + sum(each.pid), 0);
  return sum(String(process.pid));
}

// Runs in the page: records when each frame was drawn, and counts the changes of the dialogue.
function recordFrames() {
  const recorded = globalThis.recorded = { frames: [], draws: 0 };
  const frame = (now) => {
    recorded.frames.push(now);
    requestAnimationFrame(frame);
  };
  requestAnimationFrame(frame);
  new MutationObserver(() => { ++recorded.draws; }).observe(document.querySelector("#dialogue ol"), { childList: true });
}

// Sends messages from all pages in turn, at an even rate. Returns `rows`, the number of rows so far, and `stop`.
function talk(desk, pages) {
  const begin = performance.now();
  let [rows, next] = [0, 0];
  const timer = setInterval(() => {
    const due = Math.floor((performance.now() - begin) / 1000 * RATE) - rows;
    const each = Math.floor(due / GROUP);
    if (!each) return;
    for (let count = 0; count < GROUP; ++count) {
      desk.send(pages[next++ % PAGES], Array.from({ length: each }, () => ({ post: { command: "getVersion" } })));
    }
    rows += each * GROUP;
  }, TICK);
  return { rows: () => rows, stop: () => clearInterval(timer) };
}

/** Returns the rows of the table as arrays of cells. */
export async function measurePage() {
  const { chromium } = createRequire(new URL("../tests/browser/package.json", import.meta.url))("playwright-core");
  const desk = await Desk.start();
  const pages = [];
  while (pages.length < PAGES) pages.push(await desk.openPage());
  const browser = await chromium.launch({ executablePath: "/usr/bin/chromium", args: ["--no-sandbox", "--disable-gpu"] });
  const page = await browser.newPage({ viewport: { width: 1280, height: 800 } });
  await page.goto(desk.url);
  await page.getByRole("tab", { name: `All (${PAGES})` }).click();
  const cdp = await page.context().newCDPSession(page);
  await cdp.send("Performance.enable", { timeDomain: "threadTicks" });
  const measure = async () => {
    await cdp.send("HeapProfiler.collectGarbage");
    const { metrics } = await cdp.send("Performance.getMetrics");
    const { TaskDuration, LayoutDuration, ScriptDuration, RecalcStyleDuration, JSHeapUsedSize, Nodes } =
      Object.fromEntries(metrics.map(({ name, value }) => [name, value]));
    return { busy: TaskDuration, parts: [ScriptDuration, RecalcStyleDuration, LayoutDuration], nodes: Nodes,
      heap: JSHeapUsedSize / 2 ** 20, cpu: cpuWithout(desk.child.pid) };
  };

  const load = talk(desk, pages);
  await sleep(WARM_UP);
  const before = await measure();
  const rowsBefore = load.rows();
  await page.evaluate(recordFrames);
  await sleep(MEASURED);
  const { frames, draws } = await page.evaluate(() => globalThis.recorded);
  const after = await measure();
  const rows = load.rows() - rowsBefore;
  load.stop();
  await browser.close();
  await desk.stop();

  const seconds = (frames.at(-1) - frames[0]) / 1000;
  const gaps = frames.slice(1).map((at, index) => at - frames[index]).sort((one, other) => one - other);
  const share = (part, other) => `${(100 * (part - other) / seconds).toFixed(0)}%`;
  return [
    [`the desk's page with ${PAGES} pages and ${(rows / seconds).toFixed(0)} rows a second: frames a second`, "", "",
      ((frames.length - 1) / seconds).toFixed(1), ""],
    ["between two frames, p50 / p99 / longest", "", "",
      [0.5, 0.99, 1].map((part) => gaps[Math.min(Math.floor(gaps.length * part), gaps.length - 1)].toFixed(0)).join(" / ") + " ms", ""],
    ["the dialogue drawn anew, times a second", "", "", (draws / seconds).toFixed(1), ""],
    ["its main thread: all; script, style, layout", "", "",
      `${share(after.busy, before.busy)}; ${after.parts.map((part, at) => share(part, before.parts[at])).join(", ")}`, ""],
    ["CPU of the whole browser; for each drawing", "", "",
      `${share(after.cpu, before.cpu)} of a core; ${((after.cpu - before.cpu) / draws * 1000).toFixed(1)} ms`, ""],
    [`its heap after ${rowsBefore} rows and after ${rowsBefore + rows}`, "", `${before.heap.toFixed(1)} MiB, ${before.nodes} nodes`,
      `${after.heap.toFixed(1)} MiB, ${after.nodes} nodes`, ""],
  ];
}
