// Sends a desk many slightly wrong requests. Each must be answered or its connection closed, and afterwards the desk
// must still work: http.mjs [REQUESTS [SEED]]
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { randomInt } from "node:crypto";
import { Desk, isRunning } from "../desk/desk.mjs";

const METHODS = ["GET", "PUT", "POST", "DELETE", "PATCH", "OPTIONS", "HEAD"];
const HEADERS = ["Host: evil.example", "Host: 127.0.0.1:1", "Origin: http://evil.example", "Origin: null",
  "Content-Type: text/plain", "Last-Event-ID: 99999999999999999999", "Range: bytes=5-1,-", "Sec-Fetch-Site: cross-site",
  "X-Odd: \x01\x7f"];
const USUAL = ["Host: localhost", "Connection: close", "Content-Type: application/json"];
const TOKENS = ["null", "-1", "1e400", "{}", "[]", String.raw`"\u0000"`, "\xff", "../", "%2e%2e%2f", '"a":', "\r\n",
  "[".repeat(200), "x".repeat(200)];
const LONG = "x".repeat(70_000);
const STATUSES = [200, 201, 204, 400, 403, 404, 405, 409, 410, 413, 415, 426, 431, 503];
const MAX_REQUEST = 131_072; // bytes; after a longer request the desk may close the connection without an answer
const LONG_TIME = 20_000; // milliseconds

const [requests = 20_000, seed = randomInt(2 ** 31)] = process.argv.slice(2).map(Number);
if (!(requests > 0 && Number.isSafeInteger(seed))) {
  console.error("usage: http.mjs [REQUESTS [SEED]]");
  process.exit(2);
}
console.error(`http: seed ${seed}`);

// The same numbers for the same seed: a linear congruential generator, of which the upper bits are used.
let state = BigInt(seed);
function below(bound) {
  state = BigInt.asUintN(64, state * 6364136223846793005n + 1442695040888963407n);
  return Number((state >> 33n) % BigInt(bound));
}
const pick = (choices) => choices[below(choices.length)];

function mutated(text) {
  for (let changes = below(4) + 1; changes > 0; --changes) {
    const at = below(text.length + 1);
    const [before, behind] = [text.slice(0, at), text.slice(at)];
    text = pick([
      () => before + (below(20) ? pick(TOKENS) : LONG) + behind,
      () => before + behind.slice(below(8)),
      () => before + text.substr(below(text.length + 1), below(32)) + behind,
      () => before,
      () => before + behind.replace(/^./s, (letter) => String.fromCharCode(letter.charCodeAt(0) ^ (1 << below(8)))),
    ])();
  }
  return text;
}

// Keeps the request line in one piece, whatever bytes the path has.
const encoded = (path) => path.replace(/[^!-}]/g, (byte) => `%${byte.charCodeAt(0).toString(16).padStart(2, "0")}`);

// A well-formed request with unusual or invalid content.
function oddRequest(seeds) {
  let [method, path, body = ""] = pick(seeds);
  const headers = [];
  for (let changes = below(3) + 1; changes > 0; --changes) {
    pick([
      () => { method = pick(METHODS); },
      () => { path = encoded(`/${mutated(path.slice(1))}`); },
      () => { [, , body = ""] = pick(seeds); },
      () => { body = mutated(body); },
      () => headers.push(pick(HEADERS)),
      () => { [, path] = pick(seeds); },
    ])();
  }
  const isGiven = (usual) => headers.some((header) => header.split(":")[0] === usual.split(":")[0]);
  headers.push(...USUAL.filter((usual) => !isGiven(usual)), `Content-Length: ${body.length}`);
  return `${method} ${path} HTTP/1.1\r\n${headers.join("\r\n")}\r\n\r\n${body}`;
}

// The status, 0 for a connection that is closed without one, and the body; of a stream only the head is read. After a
// malformed request the server may wait for more of it, so the client closes its side.
async function exchange(desk, request, isBroken) {
  const socket = await desk.dial(Buffer.from(request, "latin1"));
  const late = setTimeout(() => socket.destroy(new Error("late")), LONG_TIME);
  const silent = setTimeout(() => isBroken && socket.end(), 50);
  let text = "";
  const bodyOf = () => text.slice(text.indexOf("\r\n\r\n") + 4);
  try {
    for await (const chunk of socket) {
      clearTimeout(silent);
      text += chunk;
      const head = /^HTTP.*?\r\n\r\n/s.exec(text)?.[0] ?? "";
      const length = /^content-length: (\d+)/im.exec(head)?.[1];
      const isHeadAlone = request.startsWith("HEAD ") || /^HTTP\S+ 204|^content-type: text\/event-stream/im.test(head);
      if (head && (isHeadAlone || Buffer.byteLength(bodyOf()) >= Number(length))) break;
    }
  } catch (error) {
    assert.notEqual(error.message, "late", `no end to the answer for ${request.slice(0, 400)}`);
  }
  for (const timer of [late, silent]) clearTimeout(timer);
  socket.destroy();
  return { status: Number(/^HTTP\/1.1 (\d+)/.exec(text)?.[1] ?? 0), body: bodyOf() };
}

Desk.endsOnCtrlC = false;
const desk = await Desk.start();
let stopped = false;
for (const signal of ["SIGINT", "SIGTERM"]) process.on(signal, () => { stopped = true; });
const { id } = await desk.openPage();
const page = `/api/pages/${id}`;
const countSettings = async () => (await desk.call("GET", "/api/settings")).settings.length;
const settings = await countSettings();
const SEEDS = [
  ["GET", "/api/settings"], ["GET", "/api/store?prefix=memory/"], ["GET", "/api/store/db/menu/caption/caption"],
  ["PUT", "/api/store/db/menu/caption/caption", '{"value": 1}'], ["PUT", "/api/store/db/other", '{"value": "text"}'],
  ["DELETE", "/api/store/db/other"], ["GET", "/api/set"],
  ["PATCH", "/api/set", '{"b2b": true, "pictureSize": null, "embedder": {"replies": {"a": 1}}}'],
  ["PATCH", "/api/set", '{"lists": {"primary-audio-language": [{"value": 1, "label": "English"}]}}'],
  ["GET", "/api/faults"], ["POST", "/api/faults", '{"call": "vconf_get_int", "path": "*", "answer": -1, "times": 1}'],
  ["DELETE", "/api/faults?call=vconf_get_int&path=*"], ["GET", "/api/pages"],
  ["POST", "/api/pages", '{"title": "App", "url": "http://localhost/", "grace": 1}'], ["GET", page],
  ["POST", `${page}/messages`, '{"send": {"command": "getVersion"}}'],
  ["POST", `${page}/messages`, '[{"post": {"command": "setMenuValue"}, "n": 7}]'],
  ...["deliveries", "dialogue", "log", "recording", "socket"].map((part) => ["GET", `${page}/${part}`]),
  ["POST", `${page}/recording`], ["POST", `${page}/verify`, '{"messages": ["getVersion"], "times": 1}'],
  ["GET", "/api/desk"], ["PUT", "/api/scenarios/odd", "{}"], ["POST", "/api/scenarios/odd/load"],
  ["GET", "/api/events"], ["POST", "/api/reset", "{}"], ["GET", "/desk.js"], ["GET", "/"]];

const statuses = {};
let request = 0;
for (; request < requests && !stopped; ++request) {
  const isBroken = request % 2 === 1;
  const odd = oddRequest(SEEDS);
  const sent = isBroken ? mutated(odd) : odd;
  const { status, body } = await exchange(desk, sent, isBroken);
  statuses[status] = (statuses[status] ?? 0) + 1;
  const what = `${sent.slice(0, 400)}\n${status} ${body}`;
  if (isBroken) {
    assert(status <= 505 && status !== 500, what);
  } else if (status !== 0 || sent.length <= MAX_REQUEST) {
    assert(STATUSES.includes(status), what);
    if (status >= 400 && !sent.startsWith("HEAD ")) assert.equal(typeof JSON.parse(body).error, "string", what);
  }
  if (request % 100 === 99) {
    await desk.call("POST", "/api/reset");
    assert.equal(await countSettings(), settings);
    if (request % 5000 === 4999) console.error(`http: ${request + 1} of ${requests} requests`);
  }
}
const { status } = await desk.send({ id }, { send: { command: "getVersion" } });
assert([200, 404, 410].includes(status), "the page may have been closed by a request");
const last = await desk.openPage();
const children = execFileSync("ps", ["--ppid", desk.child.pid, "-o", "pid="], { encoding: "utf8" }).match(/\d+/g).map(Number);
assert(children.includes(last.pid));
assert.equal(await desk.stop("SIGINT"), 0);
assert.deepEqual(children.filter(isRunning), [], "a process of the desk is left");
console.log(`http: ${request} requests${stopped ? " (stopped early)" : ""}, each answered or closed; the desk answers ` +
  `afterwards and leaves no process; ${Object.entries(statuses).map((pair) => pair.join(": ")).join(", ")} (0: closed)`);
process.exitCode = stopped ? 130 : 0;
