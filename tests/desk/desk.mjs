// What the tests share: starts desks on temporary stores, and sends them requests as a client does.
import assert from "node:assert/strict";
import { execFile, spawn } from "node:child_process";
import { once } from "node:events";
import { readFileSync } from "node:fs";
import { rm } from "node:fs/promises";
import { request as httpRequest } from "node:http";
import { connect } from "node:net";
import { dirname } from "node:path";
import { createInterface } from "node:readline";
import { setTimeout as sleep } from "node:timers/promises";
import { fileURLToPath } from "node:url";
import { promisify } from "node:util";

const run = promisify(execFile);
const program = process.env.MIRADO ?? fileURLToPath(new URL("../../build/release/bin/mirado", import.meta.url));

// An emulated processor, or a sanitizer, may take five times as long.
const slowness = process.env.MIRADO_EMULATED || process.env.MIRADO_SANITIZE ? 5 : 1;

// Resolves like `promise`. Fails after a minute; the error says what did not come and what came instead.
export async function within(promise, what, instead = () => "nothing") {
  let timer;
  const limit = 60_000 * slowness;
  const late = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error(`${limit / 1000} s without ${what}; instead: ${instead()}`)), limit);
  });
  return Promise.race([promise, late]).finally(() => clearTimeout(timer));
}

const running = new Set(); // desks

export class Desk {
  static endsOnCtrlC = true; // at the terminal, like this process

  // On a temporary store, in `folder`.
  static async start(...options) {
    const desk = await Desk.run([...options, "--temporary"]);
    desk.store = /^The set is kept in (.*);/.exec(desk.lines[1])[1];
    desk.folder = dirname(desk.store);
    return desk;
  }

  static async startOn(store, ...options) {
    return Object.assign(await Desk.run([...options, "--store", store]), { store });
  }

  // Ends the desks that failed tests left running. While one is connected, this process does not exit.
  static stopAll() {
    return Promise.all(Array.from(running, (desk) => desk.stop()));
  }

  // A first option that begins with "ulimit" is a shell command that runs before the desk. Then the third line may also
  // be the report that the plug-in cannot be used.
  static async run(options) {
    const desk = new Desk();
    const limits = options[0].startsWith("ulimit") ? [options.shift()] : [];
    const port = options.includes("--port") ? [] : ["--port", "0"];
    const run = [program, "desk", "--until-closed", ...port, ...options];
    if (limits.length) {
      run.unshift("bash", "-c", `${limits} && exec "$0" "$@" 2>&1`);
      // A limit of processes does not apply to root, and other users need the capability to open files below /root. It
      // counts all processes of the user, so each process that runs tests has a user of its own.
      if (process.getuid() === 0) run.unshift("setpriv", `--reuid=${20_000 + process.pid % 40_000}`, "--regid=65534", "--clear-groups",
        "--inh-caps=+dac_override", "--ambient-caps=+dac_override", "--");
    }
    // Its input closes when this process ends, also when it is killed.
    desk.child = spawn(run[0], run.slice(1), { stdio: ["pipe", "pipe", "inherit"], detached: !Desk.endsOnCtrlC });
    desk.child.stdin.on("error", () => {});
    desk.ended = once(desk.child, "exit");
    running.add(desk);
    desk.child.once("exit", () => running.delete(desk));
    desk.lines = [];
    const lines = createInterface(desk.child.stdout).on("line", (line) => desk.lines.push(line) === 3 && lines.close());
    await within(once(lines, "close"), `three lines of ${run}`, () => desk.lines);
    if (limits.length) desk.child.stdout.pipe(process.stderr, { end: false });
    for (const one of [desk.child, desk.child.stdin, desk.child.stdout]) one.unref();
    const link = /:(\d+)\/(?:\?token=(\w+))?$/.exec(desk.lines[0]);
    desk.port = Number(link?.[1]);
    desk.token = link?.[2];
    if (!desk.port || !/plug-in/.test(desk.lines[2])) { // it may also fail after it has printed its address
      const [status] = await desk.exit;
      throw Object.assign(new Error(`the desk did not start: ${desk.lines}`), { status });
    }
    desk.url = `http://localhost:${desk.port}`;
    desk.script = `${desk.url}/desk.js${desk.token ? `?token=${desk.token}` : ""}`;
    return desk;
  }

  // Resolves with [status, signal] when the desk has exited.
  get exit() {
    this.child.ref();
    return within(this.ended, "the desk's exit");
  }

  // Ends the desk by a signal, or by closing its input. Returns the exit status.
  async stop(signal) {
    signal ? this.child.kill(signal) : this.child.stdin.end();
    const [status] = await this.exit;
    if (this.folder) await rm(this.folder, { recursive: true, force: true }); // a killed desk does not remove it
    return status;
  }

  // Runs a subcommand on the desk's store, in a process of its own. Returns its output.
  async mirado(command, ...args) {
    const { stdout } = await run(program, [command, ...args], { env: { ...process.env, MIRADO_STORE: this.store } });
    return stdout.trim();
  }

  // Resolves with {status, headers, text, json}; `json` is undefined if the text is not JSON.
  request(method, path, { body, headers = {}, agent = false } = {}) {
    return within(new Promise((resolve, reject) => {
      const text = body === undefined || typeof body === "string" || Buffer.isBuffer(body) ? body : JSON.stringify(body);
      const usual = text === undefined ? {} :
        { "Content-Type": "application/json", "Content-Length": Buffer.byteLength(text) };
      const to = { host: "127.0.0.1", port: this.port, agent };
      const request = httpRequest({ ...to, method, path, headers: { ...usual, ...headers } }, async (response) => {
        const chunks = await response.setEncoding("utf8").toArray();
        const answer = { status: response.statusCode, headers: response.headers, text: chunks.join("") };
        try {
          answer.json = JSON.parse(answer.text);
        } catch {
          // The caller uses the text.
        }
        resolve(answer);
      });
      request.on("error", reject);
      request.end(text);
    }), `an answer to ${method} ${path.slice(0, 100)}`);
  }

  // For requests that must succeed.
  async call(method, path, body) {
    const answer = await this.request(method, path, { body });
    assert(answer.status < 300, `${method} ${path}: ${answer.status} ${answer.text}`);
    return answer.json;
  }

  openPage(description = {}) {
    return this.call("POST", "/api/pages", { grace: 3600, ...description });
  }

  // Sends messages of a page; `message` is {send: M}, {post: M} or an array of these.
  send(page, message) {
    return this.request("POST", `/api/pages/${page.id}/messages`, { body: message });
  }

  async follow(path, lastEventId) {
    const stream = new Stream();
    const headers = lastEventId === undefined ? {} : { "Last-Event-ID": String(lastEventId) };
    stream.request = httpRequest({ host: "127.0.0.1", port: this.port, path, headers, agent: false });
    stream.request.on("error", () => {}).end();
    [stream.response] = await within(once(stream.request, "response"), `the head of ${path}`);
    assert.equal(stream.response.statusCode, 200);
    stream.events = stream.parse();
    return stream;
  }

  deliveriesOf(page, lastEventId) {
    return this.follow(`/api/pages/${page.id}/deliveries`, lastEventId);
  }

  // Opens a page's WebSocket. Resolves with its status and, if that is 101, functions to send and receive JSON.
  async socketOf(page, query = "", headers = "") {
    const socket = await this.dial(`GET /api/pages/${page.id}/socket${query} HTTP/1.1\r\nHost: localhost\r\n${headers}` +
      "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n" +
      "Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n\r\n");
    socket.setEncoding("latin1");
    const frames = framesOf(socket);
    const { value: status } = await frames.next();
    const send = (message) => socket.write(frameOf(typeof message === "string" ? message : JSON.stringify(message)));
    return { socket, status, send, receive: async () => (await within(frames.next(), `a frame for ${page.id}`)).value };
  }

  // A connection for requests that are not valid HTTP.
  async dial(text) {
    const socket = connect(this.port, "127.0.0.1").setEncoding("utf8");
    socket.on("error", () => {});
    await once(socket, "connect");
    socket.write(text);
    return socket;
  }
}

// A text frame whose mask is zero.
function frameOf(text) {
  const length = Buffer.byteLength(text);
  const head = length < 126 ? [0x81, 0x80 | length] : [0x81, 0xfe, length >> 8, length & 0xff];
  return Buffer.concat([Buffer.from([...head, 0, 0, 0, 0]), Buffer.from(text)]);
}

// Yields the status, then the content of each text frame.
async function* framesOf(socket) {
  let bytes = "";
  let headLength = -1;
  for await (const chunk of socket) {
    bytes += chunk;
    if (headLength < 0 && (headLength = bytes.indexOf("\r\n\r\n")) >= 0) {
      yield Number(bytes.split(" ")[1]);
      bytes = bytes.slice(headLength + 4);
    }
    while (headLength >= 0 && bytes.length > 4) {
      const long = bytes.charCodeAt(1) === 126;
      const start = long ? 4 : 2;
      const end = start + (long ? bytes.charCodeAt(2) * 256 + bytes.charCodeAt(3) : bytes.charCodeAt(1));
      if (bytes.length < end) break;
      if (bytes.charCodeAt(0) === 0x81) yield JSON.parse(bytes.slice(start, end));
      bytes = bytes.slice(end);
    }
  }
}

// A stream of server-sent events.
class Stream {
  async *parse() {
    let text = "";
    for await (const chunk of this.response.setEncoding("utf8")) {
      const parts = (text + chunk).split("\n\n");
      text = parts.pop();
      for (const part of parts) {
        const fields = Object.fromEntries(part.split("\n").map((line) => line.split(/: ?(.*)/s, 2)));
        if (fields.retry) this.retry = Number(fields.retry);
        if (fields.id) this.last = Number(fields.id);
        if (fields.event) yield { id: Number(fields.id), kind: fields.event, data: JSON.parse(fields.data) };
      }
    }
  }

  // The next event of `kind` that `matches`; earlier ones are skipped.
  next(kind, matches = () => true) {
    const skipped = [];
    const find = async () => {
      for (;;) {
        const { value, done } = await this.events.next();
        assert(!done, `the stream ended before ${kind}`);
        if (value.kind === kind && matches(value.data)) return value;
        skipped.push(JSON.stringify(value));
      }
    };
    return within(find(), `${kind} with ${matches}`, () => skipped.slice(-5).join("\n"));
  }

  close() {
    this.request.destroy();
  }
}

// False also for a process that has exited and whose parent has not called wait() for it.
export function isRunning(pid) {
  try {
    return !/\) [ZX] /.test(readFileSync(`/proc/${pid}/stat`, "utf8"));
  } catch {
    return false;
  }
}

// `attempt` resolves with its duration in milliseconds. A busy machine may exceed `limit` once; a desk that waits where
// it must not exceeds it each time.
export async function oneOfFiveIsBelow(usual, attempt) {
  const limit = usual * slowness;
  const times = [];
  do times.push(await attempt()); while (times.at(-1) >= limit && times.length < 5);
  assert(times.at(-1) < limit, `milliseconds, of which one must be below ${limit}: ${times}`);
}

// Returns when a process that is not a child of this one has ended.
export async function ended(pid) {
  for (const end = Date.now() + 60_000 * slowness; isRunning(pid); await sleep(20)) {
    assert(Date.now() < end, `process ${pid} does not end`);
  }
}

// All that the desk sends on a connection until it closes it.
export async function contentOf(socket) {
  return (await within(socket.toArray(), "the end of a connection")).join("");
}
