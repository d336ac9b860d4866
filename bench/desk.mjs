// Measures the desk over HTTP and in Chromium, compares it with minimal servers, and prints the table; run by
// `script/bench desk`: node bench/desk.mjs [http|chromium|crowd|cpu|attacks|page]...
import { execFile, spawn } from "node:child_process";
import { once } from "node:events";
import { readdirSync, readFileSync } from "node:fs";
import { createServer } from "node:http";
import { createRequire } from "node:module";
import { createInterface } from "node:readline";
import { fileURLToPath } from "node:url";
import { promisify } from "node:util";
import { Desk } from "../tests/desk/desk.mjs";
import { measurePage } from "./desk_page.mjs";

const run = promisify(execFile);
const probe = fileURLToPath(new URL("../build/release/bin/mirado_desk_probe", import.meta.url));
const READ = { send: { command: "getMenuValue", propertyKey: 0 } };
const PARTS = ["http", "chromium", "crowd", "cpu", "attacks", "page"];
const READS = 44; // two for each of the 22 menu settings, as an application may do at its start
const wanted = process.argv.slice(2);
const wants = (name) => wanted.length === 0 || wanted.includes(name);
const sleep = (seconds) => new Promise((resolve) => setTimeout(resolve, 1000 * seconds));
const quantile = (values, part) => [...values].sort((a, b) => a - b)[Math.floor(values.length * part)];
const row = (...cells) => console.log(`| ${cells.join(" | ")} |`);
const ms = (value) => `${value.toFixed(3)} ms`;
const pair = ({ p50, p99 }) => `${ms(p50)} / ${ms(p99)}`;
const times = (a, b) => `${(a / b).toFixed(2)} times`;

// Sends `count` requests one after the other, and returns their times in milliseconds. A first call, whose result is
// not used, warms up what is measured.
async function ask(port, path, count = 2000) {
  const { stdout } = await run(probe, ["ask", port, path, JSON.stringify(READ), count]);
  const [p50, p99] = stdout.split(" ").map((value) => Number(value) / 1000);
  return { p50, p99 };
}

async function bareServer() {
  const child = spawn(probe, ["serve"], { stdio: ["ignore", "pipe", "inherit"] });
  const [port] = await once(createInterface(child.stdout), "line");
  return { port: Number(port), stop: () => child.kill() };
}

const pathOf = (page) => `/api/pages/${page.id}/messages`;
// Opens pages and sends each a message, so that no measurement includes the start of a plug-in.
const openPages = async (desk, count) => {
  const pages = [];
  while (pages.length < count) pages.push(await desk.openPage());
  for (const page of pages) await desk.send(page, READ);
  return pages;
};

// Seconds of CPU that the present threads of a process have used.
const cpuOf = (pid) => readdirSync(`/proc/${pid}/task`)
  .reduce((sum, task) => sum + Number(readFileSync(`/proc/${pid}/task/${task}/schedstat`, "utf8").split(" ")[0]), 0) / 1e9;
const cpuOfAll = (desk, pages) =>
  [desk.child.pid, ...pages.map(({ pid }) => pid)].reduce((sum, pid) => sum + cpuOf(pid), 0);
const pssOf = (pid) => Number(/^Pss: +(\d+)/m.exec(readFileSync(`/proc/${pid}/smaps_rollup`, "utf8"))[1]) / 1024;

async function measureHttp(bare) {
  const desk = await Desk.start();
  const page = await desk.openPage();
  await ask(desk.port, pathOf(page), 500);
  const rounds = [];
  for (let round = 0; round < 5; ++round) rounds.push([await ask(desk.port, pathOf(page)), await ask(bare.port, "/")]);
  const [desks, bares] = [0, 1].map((side) => quantile(rounds.map((each) => each[side].p50), 0.5));
  row("a call with keep-alive and a browser's headers, p50", "a bare server of the same library", ms(bares), ms(desks), times(desks, bares));
  await desk.stop();
}

async function measureChromium(bare) {
  const { chromium } = createRequire(new URL("../tests/browser/package.json", import.meta.url))("playwright-core");
  const desk = await Desk.start();
  const server = createServer((request, response) => response.setHeader("Content-Type", "text/html")
    .end(`<!DOCTYPE html><script src="${desk.script}"></script><embed type="application/x-mirado">`)).listen(0);
  await once(server, "listening");
  const browser = await chromium.launch({ executablePath: "/usr/bin/chromium", args: ["--no-sandbox", "--disable-gpu"] });
  const page = await browser.newPage();
  await page.goto(`http://localhost:${server.address().port}/`);
  const result = await page.evaluate(async ([floor, desk, reads]) => {
    const embed = document.querySelector("embed");
    const message = { command: "getMenuValue", propertyKey: 0 };
    const call = () => { if (embed.postMessageAndAwaitResponse(message).code !== 0) throw new Error("no reply"); };
    const post = (address) => {
      const request = new XMLHttpRequest();
      request.open("POST", address, false);
      request.setRequestHeader("Content-Type", "application/json");
      request.send(JSON.stringify([{ send: message }]));
      JSON.parse(request.responseText);
    };
    const bare = () => post(floor);
    const known = () => post(`${desk}/api/pages/${embed.dataset.page}/messages`);
    const unknown = () => post(`${desk}/api/pages/none/messages`);
    const timed = (what) => { const begin = performance.now(); what(); return performance.now() - begin; };
    const many = (what) => () => { for (let i = 0; i < reads; ++i) what(); };
    const found = { call: [], bare: [], known: [], unknown: [], calls: [], bares: [] };
    // In changing orders, so that no call always follows the same one.
    const orders = [[call, bare, known, unknown], [unknown, known, bare, call], [bare, call, unknown, known]];
    for (let i = 0; i < 350; ++i) {
      for (const what of orders[i % 3]) {
        const time = timed(what);
        if (i >= 50) found[what.name].push(time);
      }
    }
    for (let i = 0; i < 10; ++i) { found.calls.push(timed(many(call))); found.bares.push(timed(many(bare))); }
    return found;
  }, [`http://localhost:${bare.port}/`, desk.url, READS]);
  const p50 = Object.fromEntries(Object.entries(result).map(([name, values]) => [name, quantile(values, 0.5)]));
  row("`postMessageAndAwaitResponse` in Chromium, p50", "a bare synchronous POST of the same page", ms(p50.bare), ms(p50.call), times(p50.call, p50.bare));
  row("the same without `desk.js`: a POST to the page's address in Chromium, p50", "a bare synchronous POST", ms(p50.bare), ms(p50.known), times(p50.known, p50.bare));
  row("a POST that the desk answers without a plug-in in Chromium, p50", "a bare synchronous POST", ms(p50.bare), ms(p50.unknown), times(p50.unknown, p50.bare));
  row(`${READS} reads in a row in Chromium`, `${READS} such bare requests`, ms(p50.bares), ms(p50.calls), times(p50.calls, p50.bares));
  await browser.close();
  server.close();
  server.closeAllConnections();
  await desk.stop();
}

// In a process of its own: 63 pages that subscribe to a setting, receive its events and send a request every 105 ms.
// The setting changes every 66 ms. Each message of the parent is answered with what was sent and received so far.
async function crowd(port) {
  const desk = Object.assign(new Desk(), { port });
  const pages = await openPages(desk, 63);
  let [sent, received] = [0, 0];
  for (const page of pages) {
    const stream = await desk.deliveriesOf(page);
    await desk.send(page, { send: { command: "registerVconfKeysForCaption", propertyKey: 0 } });
    (async () => { for (;;) { await stream.next("message"); ++received; } })().catch(() => {});
    setInterval(() => desk.send(page, READ).then(() => ++sent), 105);
    await sleep(0.002);
  }
  let value = 0;
  setInterval(() => desk.call("PUT", "/api/store/db/menu/caption/caption", { value: ++value }), 66);
  process.on("message", () => process.send({ sent, received }));
  process.send({ sent, received });
}

async function measureCrowd() {
  const desk = await Desk.start();
  const page = await desk.openPage();
  await ask(desk.port, pathOf(page), 500);
  const alone = await ask(desk.port, pathOf(page), 4000);
  const others = spawn(process.execPath, [fileURLToPath(import.meta.url), "--crowd", desk.port], { stdio: ["ignore", "inherit", "inherit", "ipc"] });
  await once(others, "message");
  await sleep(2);
  const tally = async () => { others.send("tally"); return (await once(others, "message"))[0]; };
  const [before, begin] = [await tally(), performance.now()];
  const among = await ask(desk.port, pathOf(page), 20_000);
  const [after, seconds] = [await tally(), (performance.now() - begin) / 1000];
  others.kill();
  const rate = (name) => (after[name] - before[name]) / seconds;
  row(`a request while 63 other pages together send ${rate("sent").toFixed(0)} requests a second and each receives ${(rate("received") / 63).toFixed(1)} events a second, p50 / p99`,
    "the same page alone", pair(alone), pair(among), `${times(among.p50, alone.p50)} / ${times(among.p99, alone.p99)}`);
  await desk.stop();
}

async function measureCpu() {
  const desk = await Desk.start();
  const pages = await openPages(desk, 1);
  const perMessage = async () => {
    await ask(desk.port, pathOf(pages[0]), 500);
    const before = cpuOfAll(desk, pages);
    await ask(desk.port, pathOf(pages[0]), 5000);
    return (cpuOfAll(desk, pages) - before) / 5000 * 1000;
  };
  const one = await perMessage();
  pages.push(...await openPages(desk, 63));
  const many = await perMessage();
  row("CPU time for one message while 63 other pages are idle", "with 1 page", ms(one), ms(many), times(many, one));
  const [before, begin] = [cpuOfAll(desk, pages), performance.now()];
  await sleep(20);
  const idle = (cpuOfAll(desk, pages) - before) / ((performance.now() - begin) / 1000);
  row("CPU of an idle desk and its 64 hosts", "", "", `${(100 * idle).toFixed(3)}% of a core`, "");
  const hosts = pages.map(({ pid }) => pssOf(pid));
  row("memory (Pss): desk; a page's host, median and maximum", "", "",
    `${pssOf(desk.child.pid).toFixed(1)} MiB; ${quantile(hosts, 0.5).toFixed(2)} and ${Math.max(...hosts).toFixed(2)} MiB`, "");
  await desk.stop();
}

async function measureAttacks() {
  const HEAD = "HTTP/1.1\r\nHost: localhost\r\n";
  const attacks = {
    "a flood from a hostile page": async (desk) => {
      let going = true;
      const flood = async () => { while (going) await desk.request("GET", "/layout.css", { headers: { "Sec-Fetch-Site": "cross-site", "Accept-Encoding": "gzip, br" } }); };
      const floods = Array.from({ length: 6 }, flood);
      return async () => { going = false; await Promise.all(floods); };
    },
    // The plug-in is stopped, so no send is answered.
    "256 sends whose clients leave, of which 16 wait": async (desk) => {
      const page = await desk.openPage();
      process.kill(page.pid, "SIGSTOP");
      const body = JSON.stringify(READ);
      const text = `POST ${pathOf(page)} ${HEAD}Content-Type: application/json\r\nContent-Length: ${body.length}\r\n\r\n${body}`;
      for (let sends = 0; sends < 256; ++sends) (await desk.dial(text)).destroy();
      return () => {};
    },
    "300 requests for streams, of which 32 are opened": async (desk) => {
      const streams = await Promise.all(Array.from({ length: 300 }, () => desk.dial(`GET /api/events ${HEAD}\r\n`)));
      return () => streams.forEach((stream) => stream.destroy());
    },
    "10,000 idle connections, of which 1,024 are kept": async (desk) => {
      const sockets = [];
      for (let thousands = 0; thousands < 10; ++thousands) sockets.push(...await Promise.all(Array.from({ length: 1000 }, () => desk.dial(""))));
      return () => sockets.forEach((socket) => socket.destroy());
    },
  };
  for (const [name, attack] of Object.entries(attacks)) {
    const desk = await Desk.start();
    const page = await desk.openPage();
    await ask(desk.port, pathOf(page), 500);
    const alone = await ask(desk.port, pathOf(page), 4000);
    const stop = await attack(desk);
    const under = await ask(desk.port, pathOf(page), 4000);
    await stop();
    row(`a request during ${name}, p99`, "the same alone", ms(alone.p99), ms(under.p99), times(under.p99, alone.p99));
    await desk.stop();
  }
}

if (wanted[0] === "--crowd") {
  await crowd(Number(wanted[1]));
} else if (!wanted.every((part) => PARTS.includes(part))) {
  console.error(`script/bench desk: the parts are ${PARTS.join(", ")}`);
  process.exitCode = 2;
} else {
  row("what", "compared with", "its figure", "the desk", "ratio");
  console.log("|---|---|---|---|---|");
  const bare = await bareServer();
  if (wants("http")) await measureHttp(bare);
  if (wants("chromium")) await measureChromium(bare);
  if (wants("crowd")) await measureCrowd();
  if (wants("cpu")) await measureCpu();
  if (wants("attacks")) await measureAttacks();
  if (wants("page")) for (const cells of await measurePage()) row(...cells);
  bare.stop();
}
