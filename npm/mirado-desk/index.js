// Simulated sets for tests of pages: `mirado desk` and its HTTP interface. index.d.ts describes the public functions.
import { spawn } from "node:child_process";
import { once } from "node:events";
import { existsSync } from "node:fs";
import { createInterface } from "node:readline";
import { fileURLToPath } from "node:url";
import { checkPath, checkValue, findSetting, refuseUnknown } from "./arguments.js";
import { connectTo } from "./http.js";
import { Page } from "./page.js";

const packed = fileURLToPath(new URL("program/bin/mirado", import.meta.url));
const defaultProgram = () => process.env.MIRADO ?? (existsSync(packed) ? packed : "mirado");

export async function startSet(options = {}) {
  refuseUnknown("startSet", options, ["program", "anyOrigin", "timeout"]);
  const { program = defaultProgram(), anyOrigin = false, timeout = 5000 } = options;
  const origins = anyOrigin ? ["--token"] : [];
  // However this process ends, the desk's standard input is then closed; so it exits, and removes its store.
  const child = spawn(program, ["desk", "--port", "0", "--temporary", "--until-closed", ...origins], { stdio: "pipe" });
  const ended = new Promise((resolve) => {
    child.on("exit", (status, signal) => resolve(signal ?? `status ${status}`));
    child.on("error", (error) => resolve(error.message));
  });
  let log = "";
  child.stderr.setEncoding("utf8").on("data", (text) => { log = (log + text).slice(-4000); });

  const end = async () => {
    child.ref();
    child.kill("SIGTERM");
    await ended;
  };
  const lines = createInterface(child.stdout);
  const [line] = await Promise.race([once(lines, "line"), ended.then((how) => [how])]);
  lines.on("line", () => {}); // the desk must not block on a full pipe
  const [, url, query = ""] = /(http:\/\/localhost:\d+)\/(\?token=\w+)?/.exec(line) ?? [];
  if (url) {
    for (const one of [child, ...child.stdio]) one.unref(); // this process may end without stop()
    return new SimulatedSet(url, query, timeout, end);
  }
  await end();
  throw new Error(`mirado-desk: "${program}" did not start: ${line}. Another program can be named in the environment ` +
    `variable MIRADO or as startSet({ program }).\n${log}`.trim());
}

class SimulatedSet {
  #end;
  #connection;
  #pages = new Map(); // by id
  #events; // a promise of the desk's events, after the first call that waits
  #injected = false; // whether initScript was called

  constructor(url, query, timeout, end) {
    Object.assign(this, { url, timeout, script: `${url}/desk.js${query}` });
    this.#connection = connectTo(url, query ? { Authorization: `Bearer ${query.split("=")[1]}` } : {});
    this.call = this.#connection.call;
    this.#end = end;
    this.settings = {
      get: async (name) => (await this.#setting(name)).value,
      set: async (name, value) => {
        const setting = await this.#setting(name);
        checkValue(setting, value);
        await this.call("PUT", `/api/store/${setting.path}`, { value });
      },
      becomes: async (name, value, options = {}) => {
        refuseUnknown("becomes", options, ["timeout"]);
        const { path } = await this.#setting(name);
        const check = async () => (await this.settings.get(name)) === value || undefined;
        await this.until(check, ({ event, data }) => event === "setting" && data.path === path, options.timeout,
          async () => `${name} has not become ${value}; it is ${await this.settings.get(name)}`);
      },
    };
  }

  describe() { return this.call("GET", "/api/set"); }
  change(part) { return this.call("PATCH", "/api/set", part); }
  reset() { return this.call("POST", "/api/reset").then(() => {}); }

  async fault(call, options = {}) {
    refuseUnknown("fault", options, ["path", "answer", "times"]);
    const { path = "*", answer = -1, times = 0 } = options;
    await this.call("POST", "/api/faults", { call, path: await this.#faultPath(call, path), answer, times });
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

  async page(options = {}) {
    refuseUnknown("page", options, ["url", "timeout"]);
    const { url = "", timeout } = options;
    const isMeant = (page) => page.url.includes(url) && page.state === "running";
    const check = async () => (await this.pages()).filter(isMeant).at(-1);
    return this.until(check, ({ event }) => event === "page", timeout, () =>
      `no page${url && ` of ${url}`} has opened. Check that the test opens the page${this.#injected ? " and" : ","} ` +
      'that the page contains <embed type="application/x-mirado">' +
      `${this.#injected ? "" : `, and that it loads ${this.script}`}`);
  }

  async initScript() {
    this.#injected = true;
    return `self.miradoDesk = ${JSON.stringify(this.script)};\n${await this.call("GET", "/desk.js")}`;
  }

  async openPage(description = {}) {
    return this.#page(await this.call("POST", "/api/pages", { grace: 3600, ...description }));
  }

  // Resolves with the result of `check` when that is not undefined. It is called now, and after each event for which
  // `concerns` is true.
  async until(check, concerns, timeout = this.timeout, failure) {
    const events = await (this.#events ??= this.#connection.follow("/api/events"));
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
    this.#connection.disconnect(); // ends the events, after which each waiting call checks once more, and fails
    await this.#end();
  }

  #page(described) {
    const page = this.#pages.get(described.id) ?? new Page(this);
    this.#pages.set(described.id, page);
    return Object.assign(page, described);
  }

  async #setting(name) {
    return findSetting((await this.call("GET", "/api/settings")).settings, name);
  }

  // `path` as the desk takes it; for a key of the store it may be the name of a setting.
  async #faultPath(call, path) {
    const { calls } = await this.call("GET", "/api/faults");
    const known = calls.find(({ name }) => name === call);
    if (!known || path === "*") return path; // the desk refuses an unknown call
    if (!known.path || known.paths) {
      checkPath(known, path);
      return path;
    }
    const { keys } = await this.call("GET", "/api/store");
    return keys.some((key) => key.path === path) ? path : (await this.#setting(path)).path;
  }
}
if (Symbol.asyncDispose) SimulatedSet.prototype[Symbol.asyncDispose] = SimulatedSet.prototype.stop;
