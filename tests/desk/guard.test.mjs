// Who may not get in, and who may not hold up the others.
import assert from "node:assert/strict";
import { once } from "node:events";
import { after, before, test } from "node:test";
import { Desk, oneOfFiveIsBelow } from "./desk.mjs";

const FRIEND = "http://tv.example:3000";
let desk;
const NAMES = [FRIEND, "null", "https://tv.example:8443", "http://[fd00::1]:3000", "app://-"];
before(async () => { desk = await Desk.start(...NAMES.flatMap((name) => ["--allow-origin", name])); });
after(() => desk.stop());

const statusWith = async (headers, path = "/api/settings") => (await desk.request("GET", path, { headers })).status;

test("answers to loopback names alone", async () => {
  for (const host of ["localhost", "LocalHost:1", "p3-0a.localhost:8480", "127.0.0.1", "127.9.9.9:80", "[::1]:8480"]) {
    assert.equal(await statusWith({ Host: host }), 200, host);
  }
  for (const host of ["tv.example", "localhost.tv.example", "notlocalhost", "128.0.0.1", "127.0.0.1.tv.example", "[::2]",
    "localhost:80:80", "localhost:x", "[::1", "127.1", "localhost@tv.example"]) {
    assert.equal(await statusWith({ Host: host }), 403, host);
    assert.equal(await statusWith({ Host: host }, "/desk.js"), 403, host);
  }
  for (const hosts of ["", "Host: \r\n", "Host: localhost\r\nHost: tv.example\r\n"]) {
    const socket = await desk.dial(`GET /api/settings HTTP/1.1\r\n${hosts}\r\n`);
    assert.match((await socket.toArray()).join(""), /^HTTP\/1.1 40[03] /, hosts);
  }
});

test("lets in the origins of this machine and those that are named", async () => {
  for (const origin of ["http://localhost:5173", "https://127.0.0.1", "http://p1-f.localhost", ...NAMES]) {
    const { status, headers } = await desk.request("GET", "/api/settings", { headers: { Origin: origin } });
    assert.equal(status, 200, origin);
    assert.equal(headers["access-control-allow-origin"], origin);
  }
  for (const origin of ["http://tv.example", "http://tv.example:30000", "https://tv.example:3000",
    "http://localhost.tv.example", "file://", "http://user@localhost", "localhost"]) {
    const { status, headers } = await desk.request("GET", "/api/settings", { headers: { Origin: origin } });
    assert.equal(status, 403, origin);
    assert.equal(headers["access-control-allow-origin"], undefined);
    const preflight = await desk.request("OPTIONS", "/api/reset", { headers: { Origin: origin } });
    assert.equal(preflight.status, 403, origin);
    const blind = await desk.request("POST", "/api/reset", { headers: { Origin: origin } });
    assert.equal(blind.status, 403, origin);
  }
});

test("is told of no origin that a browser never names", async () => {
  for (const origin of ["http://tv.example/", "http://tv.example/app", "HTTP://tv.example", "http://TV.example",
    "tv.example:3000", "http://tv.example:80", "https://tv.example:443", "*"]) {
    // One that were taken would fail for want of a plug-in.
    await assert.rejects(desk.mirado("desk", "--port", "0", "--plugin", "/none.so", "--allow-origin", origin),
      ({ code, stderr }) => code === 2 && stderr.includes(`${origin} is no origin`), origin);
  }
});

test("takes JSON of a bounded size and says what is wrong with it", async () => {
  const put = (body, headers) => desk.request("PUT", "/api/store/db/menu/caption/caption", { body, headers });
  const page = await desk.openPage();
  const say = (body) => desk.request("POST", `/api/pages/${page.id}/messages`, { body });
  const deep = "[".repeat(200) + "]".repeat(200);
  const cases = [
    [put("value=1", { "Content-Type": "application/x-www-form-urlencoded" }), 415],
    [put('{"value": 1}', { "Content-Type": "text/plain" }), 415],
    [put('{"value": 1}', { "Content-Type": "application/json; charset=utf-8" }), 200],
    [put('{"value": 1}', { "Content-Encoding": "gzip" }), 415],
    [put(`{"value": "${"x".repeat(65_536)}"}`), 413],
    [put(`{"value": "${"x".repeat(65_536)}"}`, { "Content-Length": [], "Transfer-Encoding": "chunked" }), 413],
    [put('{\n"value": 1'), 400, /JSON: line 2, column 11/],
    [put('{"value": "\xff\xfe"'), 400],
    [put(deep), 400],
    [put('{"value": 1.5}'), 400],
    [put("{}"), 400],
    [put('{"value": "text"}'), 409, /db\/menu\/caption\/caption/],
    [say('{"send": 1, "post": 2}'), 400],
    [say('[{"send": 1}, {"post": 2}]'), 400],
    [say('{"send": 1, "n": "two"}'), 400],
    [say('{"hello": 1}'), 400],
    [say("7"), 400],
    [desk.request("POST", "/api/pages", { body: '{"grace": 0}' }), 400],
    [desk.request("POST", "/api/pages", { body: '{"colour": "red"}' }), 400],
    [desk.request("POST", "/api/faults", { body: '{"call": "no_such_call", "answer": 1}' }), 400, /vconf_get_int/],
    [desk.request("POST", "/api/faults", { body: '{"call": "vconf_get_int", "answer": 0}' }), 400, /any but 0/],
    [desk.request("DELETE", "/api/faults?call=no_such_call"), 400, /vconf_get_int/],
    [desk.request("PATCH", "/api/set", { body: '{"b2b": "perhaps"}' }), 400, /b2b/],
  ];
  for (const [index, [request, status, text = /./]] of cases.entries()) {
    const answer = await request;
    assert.equal(answer.status, status, `case ${index}: ${answer.text}`);
    if (status >= 400) assert.match(answer.json.error, text);
  }
});

test("knows its routes and serves nothing beside them", async () => {
  for (const [method, path, status, text = ""] of [
    ["GET", "/api/nothing", 404], ["GET", "/nothing.js", 404], ["GET", "/api/pages/p1-0", 404],
    ["DELETE", "/api/pages/p1-0", 404], ["GET", "/api/store/set/embedder/name", 404],
    ["POST", "/api/settings", 405], ["DELETE", "/api/set", 405], ["GET", "/api/reset", 405],
    ["GET", "/../../../etc/passwd", 404], ["GET", "/%2e%2e/%2e%2e/%2e%2e/etc/passwd", 404],
    ["GET", "/..%2fpage/package.json", 404],
    ["GET", "/", 200, "<!DOCTYPE html>"], ["GET", "/desk.js", 200, "postMessageAndAwaitResponse"],
    ["GET", "/mirado.js", 200, "export function connect"],
  ]) {
    const answer = await desk.request(method, path);
    assert.equal(answer.status, status, `${method} ${path}`);
    assert(answer.text.includes(text), path);
    if (status === 405) assert.match(answer.headers.allow, /^[A-Z, ]+$/);
    if (status >= 400) assert.equal(typeof answer.json.error, "string");
  }
  const refused = await desk.request("PUT", "/api/store/set/embedder/name", { body: { value: "x" } });
  assert.equal(refused.status, 400);
});

test("waits for no body where none is announced, and cuts no answer", async () => {
  for (const [line, status] of [["POST /api/reset", 200], ["POST /api/nothing", 404], ["PUT /api/set", 405]]) {
    await oneOfFiveIsBelow(2500, async () => {
      const start = performance.now();
      const socket = await desk.dial(`${line} HTTP/1.1\r\nHost: localhost\r\n\r\n`);
      assert.match((await socket.toArray()).join(""), new RegExp(`^HTTP/1.1 ${status} `), line);
      return performance.now() - start;
    });
  }
  assert((await desk.request("GET", "/api/set", { headers: { Range: "bytes=0-3" } })).json.latency);
});

test("never takes what is left of a refused request for another one", async () => {
  const hidden = "POST /api/reset HTTP/1.1\r\nHost: localhost\r\nContent-Length: 0\r\n\r\n";
  await desk.call("PUT", "/api/store/memory/tv-viewer/bg_executable", { value: 77 });
  for (const first of [
    `POST /api/reset HTTP/1.1\r\nHost: tv.example\r\nContent-Length: ${hidden.length}\r\n\r\n`,
    `POST /${"x".repeat(9000)} HTTP/1.1\r\nHost: localhost\r\nContent-Length: ${hidden.length}\r\n\r\n`,
    `GET /api/set HTTP/1.1\r\nHost: localhost\r\nContent-Length: ${hidden.length}\r\n\r\n`,
    "NONSENSE\r\n\r\n",
  ]) {
    const socket = await desk.dial(first + hidden);
    await once(socket.resume(), "close");
  }
  assert.equal((await desk.call("GET", "/api/store/memory/tv-viewer/bg_executable")).value, 77);
});

test("is not held up by clients that are slow, silent or gone", async () => {
  const half = "POST /api/pages HTTP/1.1\r\nHost: localhost\r\nContent-Length: 100\r\n\r\n{";
  const sockets = await Promise.all(Array.from({ length: 300 }, (_, i) => desk.dial(i % 2 ? half : "GET /api")));
  const drip = setInterval(() => sockets.forEach((socket) => socket.write("x")), 500);
  const stream = await desk.dial("GET /api/events HTTP/1.1\r\nHost: localhost\r\n\r\n");
  stream.pause();
  const page = await desk.openPage();
  const { json } = await desk.say(page, { send: { command: "getVersion" } });
  assert.equal(json.reply.value, "4.0");
  clearInterval(drip);
  for (const socket of [...sockets, stream]) socket.destroy();
});

test("gives no threads away to foreign pages, nor all to streams", async () => {
  const foreign = { "Host": "p1.localhost", "Sec-Fetch-Site": "cross-site" };
  assert.equal(await statusWith(foreign, "/api/events"), 403);
  assert.equal(await statusWith(foreign, "/desk.js"), 200);
  assert.equal(await statusWith({ ...foreign, Origin: FRIEND }), 200);

  const fresh = await Desk.start(); // where no stream of the tests before counts still
  const statuses = [];
  for (let streams = 0; streams < 33; ++streams) {
    const stream = await fresh.dial("GET /api/events HTTP/1.1\r\nHost: localhost\r\n\r\n");
    const [head] = await once(stream, "data");
    statuses.push(head.split(" ")[1]);
  }
  await fresh.stop();
  assert.deepEqual(statuses, [...Array(32).fill("200"), "503"]);
});

test("opens 64 pages and no more", async () => {
  const { pages } = await desk.call("GET", "/api/pages");
  for (let left = 64 - pages.length; left > 0; --left) await desk.openPage();
  assert.equal((await desk.request("POST", "/api/pages", { body: {} })).status, 503);
  await desk.call("DELETE", `/api/pages/${pages[0].id}`);
  await desk.openPage();
});
