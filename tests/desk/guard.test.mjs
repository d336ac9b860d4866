// Which clients the desk refuses (by host, origin and token), and which requests are invalid.
import assert from "node:assert/strict";
import { once } from "node:events";
import { chmod, readFile, stat } from "node:fs/promises";
import { connect, createServer } from "node:net";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { contentOf, Desk, oneOfFiveIsBelow } from "./desk.mjs";

let desk;
before(async () => { desk = await Desk.start(); });
after(Desk.stopAll);

const statusWith = async (headers, path = "/api/settings") => (await desk.request("GET", path, { headers })).status;

test("answers only requests to loopback names", async () => {
  for (const host of ["localhost", "LocalHost:1", "p3-0a.localhost:8480", "127.0.0.1", "127.9.9.9:80", "[::1]:8480"]) {
    assert.equal(await statusWith({ Host: host }), 200, host);
  }
  for (const host of ["tv.example", "localhost.tv.example", "notlocalhost", "126.0.0.1", "128.0.0.1", "127.0.0.1.tv.example", "[::2]",
    "localhost:80:80", "localhost:x", "[::1", "127.1", "localhost@tv.example"]) {
    assert.equal(await statusWith({ Host: host }), 403, host);
    assert.equal(await statusWith({ Host: host }, "/desk.js"), 403, host);
  }
  for (const hosts of ["", "Host: \r\n", "Host: localhost\r\nHost: tv.example\r\n",
    `Host: localhost\r\nOrigin: ${LOOPBACK[0]}\r\nOrigin: http://tv.example\r\n`]) {
    const socket = await desk.dial(`GET /api/settings HTTP/1.1\r\nConnection: close\r\n${hosts}\r\n`);
    assert.match(await contentOf(socket), /^HTTP\/1.1 40[03] /, hosts);
  }
});

const LOOPBACK = ["http://localhost:5173", "https://127.0.0.1", "http://p1-f.localhost"];
const OTHERS = ["http://tv.example", "https://tv.example:3000", "http://localhost.tv.example", "file://", "null",
  "http://user@localhost", "localhost", "http://127.0.0.1.nip.example"];

test("without a token accepts only loopback origins; with --token any origin that sends it", async () => {
  const locked = await Desk.startOn(join(desk.folder, "locked"), "--token");
  const { token } = locked;
  assert.equal(token.length, 32);
  const file = join(locked.store, "token");
  assert.equal((await stat(file)).mode & 0o777, 0o600);
  const status = async (of, headers, path, method = "GET") => (await of.request(method, path, { headers })).status;
  for (const origin of LOOPBACK) {
    const { status: free, headers } = await desk.request("GET", "/api/settings", { headers: { Origin: origin } });
    assert.equal(free, 200, origin);
    assert.equal(headers["access-control-allow-origin"], origin);
    assert.equal(headers.vary, "Origin");
    assert.equal(await status(locked, { "Origin": origin, "Sec-Fetch-Site": "same-origin" }, "/api/settings"), 403, origin);
  }
  for (const origin of OTHERS) {
    for (const [method, path] of [["GET", "/api/settings"], ["OPTIONS", "/api/reset"], ["POST", "/api/reset"]]) {
      const answer = await desk.request(method, path, { headers: { Origin: origin } });
      assert.equal(answer.status, 403, `${method} ${path} ${origin}`);
      assert.equal(answer.headers["access-control-allow-origin"], undefined);
    }
    assert.equal((await desk.socketOf({ id: "p1-0" }, "", `Origin: ${origin}\r\n`)).status, 403, origin);
    assert.equal(await status(desk, { Origin: origin }, "/desk.js"), 200, "it loads, and reports why the API refuses");
    const preflight = await locked.request("OPTIONS", `/api/reset?token=${token}`,
      { headers: { "Origin": origin, "Access-Control-Request-Private-Network": "true" } });
    assert.equal(preflight.status, 204);
    assert.equal(preflight.headers["access-control-allow-origin"], origin);
    assert.equal(preflight.headers["access-control-allow-private-network"], "true");
    assert.equal(preflight.headers["access-control-allow-methods"], "GET, POST, PUT, PATCH, DELETE");
    assert.equal(await status(locked, { Origin: origin }, `/api/settings?token=${token}`), 200, origin);
  }
  for (const wrong of ["", token.slice(1), `${token}0`, token.replace(/./, "x"), token.replace(/.$/, "x")]) {
    assert.equal(await status(locked, {}, `/api/settings?token=${wrong}`), 403, wrong);
    assert.equal(await status(locked, { Authorization: `Bearer ${wrong}` }, "/api/settings"), 403, wrong);
  }
  assert.equal(await status(locked, { Authorization: `Bearer ${token}` }, "/api/settings"), 200);
  assert.equal((await locked.socketOf({ id: "p1-0" })).status, 403);
  assert.equal((await locked.socketOf({ id: "p1-0" }, `?token=${token}`)).status, 404);
  assert.equal(await status(locked, {}, "/desk.js"), 200, "needs no token");
  const example = async (query) => /"(\/desk.js.*?)"/.exec((await locked.request("GET", `/example/${query}`)).text)[1];
  assert.deepEqual([await example(""), await example(`?token=${token}`), await example("?token=%22x")],
    ["/desk.js", `/desk.js?token=${token}`, "/desk.js"]);
  // Without --listen a name is refused even with the token: its owner's DNS may lead to this machine (DNS rebinding).
  assert.equal(await status(locked, { Host: "tv.example" }, `/api/settings?token=${token}`), 403);
  await locked.stop();
  await chmod(file, 0o640); // Other users may have read it, so it is no longer valid.
  const again = await Desk.startOn(locked.store, "--token", "--listen", "127.0.0.2");
  assert.notEqual(again.token, token);
  assert.equal(again.token, (await readFile(file, "utf8")));
  assert.equal(await status(again, { Host: "tv.example" }, "/api/settings"), 403);
  assert.equal(await status(again, { Host: "192.168.1.20:8480" }, `/api/settings?token=${again.token}`), 200);
});

test("exits if another program uses its port on 127.0.0.1 or ::1", async () => {
  for (const address of ["127.0.0.1", "::1"]) {
    const other = createServer().listen(0, address);
    await once(other, "listening");
    const port = String(other.address().port);
    const named = address === "::1" ? `[::1]:${port}` : `127.0.0.1:${port}`;
    await assert.rejects(desk.mirado("desk", "--port", port),
      ({ code, stderr }) => code === 3 && stderr.includes(`${named}: Address already in use`), address);
    other.close();
  }
  const overIpv6 = connect(desk.port, "::1");
  await once(overIpv6, "connect");
  overIpv6.destroy();
});

test("accepts JSON up to a size, and names the error in invalid JSON", async () => {
  const put = (body, headers) => desk.request("PUT", "/api/store/db/menu/caption/caption", { body, headers });
  const page = await desk.openPage();
  const send = (body) => desk.request("POST", `/api/pages/${page.id}/messages`, { body });
  const deep = "[".repeat(200) + "]".repeat(200);
  const cases = [
    [put("value=1", { "Content-Type": "application/x-www-form-urlencoded" }), 415],
    [put('{"value": 1}', { "Content-Type": "text/plain" }), 415],
    [put('{"value": 1}', { "Content-Type": "Application/JSON; charset=utf-8" }), 200],
    [put('{"value": 1}', { "Content-Encoding": "gzip" }), 415],
    [put('{"value": 1}'.padEnd(65_536)), 200],
    [put('{"value": 1}'.padEnd(65_537)), 413],
    [put(`{"value": "${"x".repeat(65_536)}"}`, { "Content-Length": [], "Transfer-Encoding": "chunked" }), 413],
    [put('{\n"value": 1'), 400, /JSON: line 2, column 11/],
    [put(Buffer.from('{"value": "\xff\xfe"}', "latin1")), 400, /UTF-8/],
    [put(deep), 400, /deep/],
    [put('{"value": 1.5}'), 400],
    [put("{}"), 400],
    [put('{"value": "text"}'), 409, /db\/menu\/caption\/caption/],
    [send('{"send": 1, "post": 2}'), 400],
    [send('[{"send": 1}, {"post": 2}]'), 400],
    [send('{"send": 1, "n": "two"}'), 400],
    [send('{"hello": 1}'), 400],
    [send("7"), 400],
    [send(`{"send": ${"[".repeat(127)}${"]".repeat(127)}}`), 200],
    [send(`{"send": ${"[".repeat(128)}${"]".repeat(128)}}`), 400],
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

test("refuses API requests that are cross-site and have no Origin", async () => {
  const crossSite = { "Host": "p1.localhost", "Sec-Fetch-Site": "cross-site" };
  assert.equal(await statusWith(crossSite, "/api/events"), 403);
  assert.equal(await statusWith(crossSite, "/desk.js"), 200);
  assert.equal(await statusWith({ ...crossSite, Origin: LOOPBACK[0] }), 200);
});

test("serves its routes and nothing else", async () => {
  for (const [method, path, status, text = ""] of [
    ["GET", "/api/nothing", 404], ["GET", "/nothing.js", 404], ["GET", "/api/pages/p1-0", 404],
    ["DELETE", "/api/pages/p1-0", 404], ["GET", "/api/store/set/embedder/name", 404],
    ["POST", "/api/settings", 405], ["DELETE", "/api/set", 405, "takes GET, PATCH"], ["GET", "/api/reset", 405],
    ["GET", "/api/store/db/%zz", 400], ["GET", "/api/store?prefix=%4", 400], ["GET", `/${"x".repeat(20_000)}`, 431],
    ["GET", "/../../../etc/passwd", 404], ["GET", "/%2e%2e/%2e%2e/%2e%2e/etc/passwd", 404],
    ["GET", "/..%2fpage/package.json", 404],
    ["GET", "/", 200, "<!DOCTYPE html>"], ["GET", "/desk.js", 200, "postMessageAndAwaitResponse"],
    ["GET", "/mirado.js", 200, "export function connect"],
  ]) {
    const answer = await desk.request(method, path);
    assert.equal(answer.status, status, `${method} ${path}`);
    assert(answer.text.includes(text), path);
    if (status === 405) assert.match(answer.headers.allow, /^[A-Z, ]+$/);
    if (path.endsWith(".js") && status === 200) assert.equal(answer.headers["cross-origin-resource-policy"], "cross-origin");
    if (path === "/") assert.match(answer.headers["content-security-policy"], /^default-src 'self';.*frame-ancestors 'none'/);
    if (status >= 400) assert.equal(typeof answer.json.error, "string");
  }
  const refused = await desk.request("PUT", "/api/store/set/embedder/name", { body: { value: "x" } });
  assert.equal(refused.status, 400);
});

test("does not wait for a body without a length; a HEAD gets no body, and a Range the whole", async () => {
  for (const [line, status] of [["POST /api/reset", 200], ["POST /api/nothing", 404], ["PUT /api/set", 405],
    ["HEAD /api/settings", 200], ["HEAD /api/events", 200]]) {
    await oneOfFiveIsBelow(2500, async () => {
      const start = performance.now();
      const socket = await desk.dial(`${line} HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n`);
      const answer = await contentOf(socket);
      assert.match(answer, new RegExp(`^HTTP/1.1 ${status} `), line);
      assert.equal(answer.endsWith("\r\n\r\n"), line.startsWith("HEAD"), line);
      return performance.now() - start;
    });
  }
  const both = await desk.dial(["HEAD /api/desk", "GET /api/desk"].map((line) => `${line} HTTP/1.1\r\nHost: localhost\r\n`)
    .join("\r\n") + "Connection: close\r\n\r\n");
  assert((await contentOf(both)).endsWith("}}"), "a HEAD is followed by a GET");
  assert((await desk.request("GET", "/api/set", { headers: { Range: "bytes=0-3" } })).json.latency);
});

test("does not read a body, or what follows a refused request, as another request", async () => {
  const hidden = "POST /api/reset HTTP/1.1\r\nHost: localhost\r\nContent-Length: 0\r\n\r\n";
  await desk.call("PUT", "/api/store/memory/tv-viewer/bg_executable", { value: 77 });
  for (const first of [
    `POST /api/reset HTTP/1.1\r\nHost: tv.example\r\nContent-Length: ${hidden.length}\r\n\r\n`,
    `POST /${"x".repeat(20_000)} HTTP/1.1\r\nHost: localhost\r\nContent-Length: ${hidden.length}\r\n\r\n`,
    `GET /api/set HTTP/1.1\r\nHost: localhost\r\nContent-Length: ${hidden.length}\r\n\r\n`,
    "POST /api/set HTTP/1.1\r\nHost: localhost\r\nContent-Length: 100000\r\n\r\n",
    "NONSENSE\r\n\r\n",
  ]) {
    const socket = await desk.dial(first + hidden);
    socket.end();
    await contentOf(socket);
  }
  assert.equal((await desk.call("GET", "/api/store/memory/tv-viewer/bg_executable")).value, 77);
});
