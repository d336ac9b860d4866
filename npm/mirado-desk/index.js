// Simulated sets for tests of pages. A thin layer over the program `mirado desk` and its HTTP interface.
import { spawn } from "node:child_process";
import { once } from "node:events";
import { existsSync, rmSync } from "node:fs";
import { mkdtemp, rm } from "node:fs/promises";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { createInterface } from "node:readline";
import { fileURLToPath } from "node:url";
import { connectTo, followEvents } from "./http.js";
import { Page } from "./page.js";

const packed = fileURLToPath(new URL("program/bin/mirado", import.meta.url));
const usualProgram = () => process.env.MIRADO ?? (existsSync(packed) ? packed : "mirado");

// A store makes its settings durable. A test's set need not survive the power, and in memory it starts faster.
const folders = () => !process.env.TMPDIR && existsSync("/dev/shm") ? "/dev/shm" : tmpdir();

const running = new Map(); // the processes of sets that nobody has stopped, with their folders
process.on("exit", () => {
  for (const [child, folder] of running) {
    child.kill("SIGKILL");
    rmSync(folder, { recursive: true, force: true });
  }
});

// What is public is described in index.d.ts.
export async function startSet({ program = usualProgram(), anyOrigin = false, timeout = 5000 } = {}) {
  const folder = await mkdtemp(join(folders(), "mirado-set-"));
  const origins = anyOrigin ? ["--token"] : [];
  // The desk ends with its standard input, so also when this process is killed.
  const child = spawn(program, ["desk", "--port", "0", "--store", join(folder, "store"), "--until-closed", ...origins],
    { stdio: "pipe" });
  running.set(child, folder);
  const ended = new Promise((resolve) => {
    child.on("exit", (status, signal) => resolve(signal ?? `status ${status}`));
    child.on("error", (error) => resolve(error.message));
  });
  let log = "";
  child.stderr.setEncoding("utf8").on("data", (text) => { log = (log + text).slice(-4000); });

  const end = async () => {
    child.kill("SIGTERM");
    await ended;
    running.delete(child);
    await rm(folder, { recursive: true, force: true });
  };
  const lines = createInterface(child.stdout);
  const [line] = await Promise.race([once(lines, "line"), ended.then((how) => [how])]);
  lines.on("line", () => {}); // reads on, so that the desk never waits for a reader
  const [, url, query = ""] = /(http:\/\/localhost:\d+)\/(\?token=\w+)?/.exec(line) ?? [];
  if (url) return new SimulatedSet(url, query, timeout, end);
  await end();
  throw new Error(`mirado-desk: "${program}" did not start: ${line}. Another program can be named in the environment ` +
    `variable MIRADO or as startSet({ program }).\n${log}`.trim());
}

class SimulatedSet {
  #end;
  #authorization;
  #disconnect;
  #pages = new Map(); // by id
  #events; // a promise of the desk's events, once somebody waits for one

  constructor(url, query, timeout, end) {
    Object.assign(this, { url, timeout, script: `${url}/desk.js${query}` });
    this.#authorization = query ? { Authorization: `Bearer ${query.split("=")[1]}` } : {};
    const { call, disconnect } = connectTo(url, this.#authorization);
    this.call = call;
    this.#disconnect = disconnect;
    this.#end = end;
    this.settings = {
      get: async (name) => (await this.#setting(name)).value,
      set: async (name, value) => {
        const { path } = await this.#setting(name);
        await this.call("PUT", `/api/store/${path}`, { value });
      },
      becomes: async (name, value, { timeout = this.timeout } = {}) => {
        const { path } = await this.#setting(name);
        const check = async () => (await this.settings.get(name)) === value || undefined;
        await this.until(check, ({ event, data }) => event === "setting" && data.path === path, timeout,
          async () => `${name} has not become ${value}; it is ${await this.settings.get(name)}`);
      },
    };
  }

  describe() { return this.call("GET", "/api/set"); }
  change(part) { return this.call("PATCH", "/api/set", part); }
  reset() { return this.call("POST", "/api/reset").then(() => {}); }

  fault(call, { path = "*", answer = -1, times = 0 } = {}) {
    return this.call("POST", "/api/faults", { call, path, answer, times }).then(() => {});
  }
  clearFaults() { return this.call("DELETE", "/api/faults").then(() => {}); }

  scenario(name) { return this.call("POST", `/api/scenarios/${encodeURIComponent(name)}/load`).then(() => {}); }
  saveScenario(name, scenario) {
    return this.call("PUT", `/api/scenarios/${encodeURIComponent(name)}`, scenario ? { scenario } : {}).then(() => {});
  }

  async pages() {
    const { pages } = await this.call("GET", "/api/pages");
    return pages.map((page) => this.#page(page));
  }

  page({ url = "", timeout = this.timeout } = {}) {
    const isMeant = (page) => page.url.includes(url) && page.state === "running";
    const check = async () => (await this.pages()).filter(isMeant).at(-1);
    return this.until(check, ({ event }) => event === "page", timeout,
      () => `no page${url && ` of ${url}`} has opened; does it load ${this.script}?`);
  }

  async initScript() {
    return `self.miradoDesk = ${JSON.stringify(this.script)};\n${await this.call("GET", "/desk.js")}`;
  }

  async openPage(description = {}) {
    return this.#page(await this.call("POST", "/api/pages", { grace: 3600, ...description }));
  }

  // Resolves with what `check` gives once it gives something. It is asked now, and after each event that `concerns` it.
  async until(check, concerns, timeout, failure) {
    const events = await (this.#events ??= followEvents(this.url, "/api/events", this.#authorization));
    let wake;
    const listener = (event) => { if (event.event === "lost" || concerns(event)) wake(); };
    let late = false;
    const timer = setTimeout(() => { late = true; wake(); }, timeout);
    events.on("event", listener);
    try {
      for (;;) {
        const woken = new Promise((resolve) => { wake = resolve; });
        const found = await check();
        if (found !== undefined) return found;
        if (late) throw new Error(`mirado-desk: after ${timeout} ms ${await failure()}`);
        await woken;
      }
    } finally {
      clearTimeout(timer);
      events.off("event", listener);
    }
  }

  async stop() {
    (await this.#events)?.close();
    this.#disconnect();
    await this.#end();
  }

  #page(described) {
    const page = this.#pages.get(described.id) ?? new Page(this);
    this.#pages.set(described.id, page);
    return Object.assign(page, described);
  }

  async #setting(name) {
    const { settings } = await this.call("GET", "/api/settings");
    const found = settings.find((one) => [one.name, one.name.replace(/^[A-Z]+_KEY_/, ""), one.path].includes(name));
    if (!found) throw new TypeError(`mirado-desk: there is no setting ${name}`);
    return found;
  }
}
if (Symbol.asyncDispose) SimulatedSet.prototype[Symbol.asyncDispose] = SimulatedSet.prototype.stop;
