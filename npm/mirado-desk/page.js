// A page of a simulated set, for tests: its messages, and its plug-in. index.d.ts describes the public functions.
import { isDeepStrictEqual } from "node:util";
import { checkFields, findSetting, refuseUnknown } from "./arguments.js";

const has = (message, part) => Object(message) === message &&
  Object.entries(part).every(([name, value]) => isDeepStrictEqual(message[name], value));

export class Page {
  #set;
  #taken = new Set(); // `n` of the dialogue entries that `asked`, `told` and `event` have returned

  constructor(set) {
    this.#set = set;
  }

  async dialogue() {
    return (await this.#call("GET", "dialogue")).dialogue;
  }
  async log() {
    return (await this.#call("GET", "log")).log;
  }
  async watching() {
    return (await this.#call("GET", "")).watches;
  }

  async asked(command, fields = {}, options) {
    checkFields(fields, options, `asked("${command}", {}, { timeout: 300 })`);
    const what = `not sent ${command}${Object.keys(fields).length ? ` with ${JSON.stringify(fields)}` : ""}`;
    return this.#next("asked", ["send", "post"], { command, ...fields }, options, what);
  }
  async told(fields, options) {
    checkFields(fields, options, 'told({ command: "setMenuValue" }, { timeout: 300 })');
    return this.#next("told", ["reply", "message"], fields, options,
      `received no reply or message with ${JSON.stringify(fields)}`);
  }

  async event(name, options) {
    const { tables, settings } = await this.#set.call("GET", "/api/catalog");
    const found = findSetting(settings, name);
    return this.#next("event", ["message"], { event: tables[found.table].event, value: found.key }, options,
      `received no event for ${name}`);
  }

  async verify(messages, options = {}) {
    refuseUnknown("verify", options, ["order", "exact", "times"]);
    return this.#call("POST", "verify", { messages, order: options.times === undefined, ...options });
  }

  async send(message) {
    const { reply } = await this.#call("POST", "messages", { send: message });
    return reply ?? undefined;
  }
  post(message) {
    return this.#call("POST", "messages", { post: message }).then(() => {});
  }
  async kill() {
    await this.#call("POST", "kill");
    const check = async () => (await this.#call("GET", "")).state !== "running" || undefined;
    await this.#set.until(check, ({ event }) => event === "page", undefined, () => "the plug-in still runs");
  }
  leave() { return this.#call("POST", "leave").then(() => {}); }

  #call(method, what, body) {
    return this.#set.call(method, `/api/pages/${this.id}${what && `/${what}`}`, body);
  }

  // The body of the oldest entry of one of these kinds with these fields that was not returned before.
  #next(call, kinds, fields, options = {}, what) {
    refuseUnknown(call, options, ["timeout"]);
    const check = async () => {
      const found = (await this.dialogue()).find(({ n, kind, body }) =>
        kinds.includes(kind) && !this.#taken.has(n) && has(body, fields));
      if (found) this.#taken.add(found.n);
      return found?.body;
    };
    const concerns = ({ event, data }) => event === "dialogue" && data.page === this.id;
    return this.#set.until(check, concerns, options.timeout, async () => {
      const entries = (await this.dialogue()).filter(({ kind }) => kinds.includes(kind)).slice(-10);
      const said = entries.map(({ n, kind, body }) =>
        `\n  ${kind} ${JSON.stringify(body)}${this.#taken.has(n) ? " (returned before)" : ""}`).join("") || "\n  none";
      return `the page has ${what}. The last ones were:${said}`;
    });
  }
}
