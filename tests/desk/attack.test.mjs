// Clients that try to block others. During each attack the desk must answer everyone else.
import assert from "node:assert/strict";
import { once } from "node:events";
import { after, afterEach, beforeEach, test } from "node:test";
import { contentOf, Desk, ended, oneOfFiveIsBelow, within } from "./desk.mjs";

const HEAD = "HTTP/1.1\r\nHost: localhost\r\n";
const VERSION = { command: "getVersion" };
let desk;
beforeEach(async () => { desk = await Desk.start(); });
afterEach(async () => { if (desk) assert.equal(await desk.stop(), 0); });
after(Desk.stopAll);

// During the attack a page can be opened, gets its reply, and the settings can be read.
const answersOthers = () => oneOfFiveIsBelow(1000, async () => {
  const start = performance.now();
  const page = await desk.openPage();
  assert.equal((await desk.send(page, { send: VERSION })).json.reply.value, "4.0");
  assert((await desk.call("GET", "/api/settings")).settings.length > 0);
  await desk.call("DELETE", `/api/pages/${page.id}`);
  return performance.now() - start;
});

// Undefined if the connection is closed without an answer.
const statusOf = async (socket) =>
  String(await within(Promise.race(["data", "close"].map((event) => once(socket, event))), "an answer")).split(" ")[1];

test("survives clients that disconnect before their reply", async () => {
  await desk.call("PATCH", "/api/set", { latency: { getMenuValue: 60_000 } });
  const page = await desk.openPage({ grace: 1 });
  const events = await desk.follow("/api/events");
  const body = JSON.stringify({ send: { command: "getMenuValue", propertyKey: 0 } });
  const send = `POST /api/pages/${page.id}/messages ${HEAD}Content-Type: application/json\r\n` +
    `Content-Length: ${body.length}\r\n\r\n${body}`;
  const waiting = [];
  for (let sends = 0; sends < 257; ++sends) waiting.push(await desk.dial(sends % 2 ? send : send + send));
  assert.equal(await statusOf(waiting[16]), "503", "the limit of waiting requests is reached");
  assert.equal((await desk.send(page, { post: VERSION })).status, 200, "a post waits for nothing");
  await answersOthers();
  const other = await desk.openPage();
  for (let sends = 0; sends < 512; ++sends) assert.equal((await desk.send(other, { send: VERSION })).status, 200);
  for (const socket of waiting) socket.destroy();
  await events.next("gone", ({ id }) => id === page.id); // a waiting request would have kept the page longer
  events.close();
});

test("survives requests for more streams than it allows", async () => {
  const page = await desk.openPage();
  const open = async (path, more = "") => {
    const socket = await desk.dial(`GET ${path} ${HEAD}${more}\r\n`);
    return { socket, status: await statusOf(socket) };
  };
  const streams = await Promise.all(Array.from({ length: 300 }, () => open("/api/events")));
  assert.equal(streams.filter(({ status }) => status === "200").length, 32);
  assert.equal(streams.filter(({ status }) => status === "503").length, 268);
  streams.push(await open("/api/events", "Sec-Fetch-Site: same-origin\r\n"));
  assert.equal(streams.at(-1).status, "200", "the desk's own page may open more");
  for (let readers = 0; readers < 5; ++readers) streams.push(await open(`/api/pages/${page.id}/deliveries`));
  assert.deepEqual(streams.slice(-5).map(({ status }) => status), ["200", "200", "200", "200", "503"]);
  await answersOthers();
  for (const { socket } of streams) socket.destroy();
});

test("survives connections that send nothing, send half a request, or do not read", async () => {
  const half = `POST /api/pages ${HEAD}Content-Length: 100\r\n\r\n{`;
  const sockets = [await desk.dial(`GET /api/events ${HEAD}\r\n`)];
  sockets[0].pause();
  for (let thousands = 0; thousands < 10; ++thousands) {
    sockets.push(...await Promise.all(Array.from({ length: 1000 }, (_, i) => desk.dial(i % 2 ? half : ""))));
  }
  sockets.at(-2).write(`GET /api/desk ${HEAD}\r\n`);
  assert.equal(await statusOf(sockets.at(-2)), "200", "the oldest give way");
  const drip = setInterval(() => sockets.forEach((socket) => socket.write("x")), 500).unref();
  await answersOthers();
  clearInterval(drip);
  for (const socket of sockets) socket.destroy();
});

test("survives requests for more pages than it allows", async () => {
  const pages = [];
  for (let opened = 0; opened < 64; ++opened) pages.push(await desk.openPage());
  assert.equal((await desk.request("POST", "/api/pages", { body: {} })).status, 503);
  for (const [port, status] of [[1, 503], [desk.port, 201], [desk.port, 503]]) { // one more for the desk's own page
    const headers = { Origin: `http://localhost:${port}`, Host: `localhost:${desk.port}` };
    assert.equal((await desk.request("POST", "/api/pages", { body: { grace: 60 }, headers })).status, status);
  }
  await desk.call("DELETE", `/api/pages/${pages[0].id}`);
  await desk.call("DELETE", `/api/pages/${pages[1].id}`);
  await desk.openPage();
});

test("survives a plug-in that does not read its input", { timeout: 300_000 }, async () => {
  const page = await desk.openPage();
  const socket = await desk.socketOf(page);
  const posts = Array.from({ length: 60 }, () => ({ post: { ...VERSION, more: "x".repeat(1000) } }));
  let posted = 0;
  const fill = async () => {
    process.kill(page.pid, "SIGSTOP");
    let status = 200;
    for (let batches = 0; status === 200 && batches < 1000; ++batches) {
      ({ status } = await desk.send(page, posts));
    }
    assert.equal(status, 503);
    posted = (await desk.call("GET", `/api/pages/${page.id}`)).sent;
  };
  await fill();
  assert(posted > 6000, "8 MiB");
  await answersOthers();
  socket.send({ n: 1, post: { command: "the last" } });
  process.kill(page.pid, "SIGCONT");
  for (let heard = 0, acks = 0; heard <= posted || acks === 0;) {
    const { id, data, ack } = await socket.receive();
    if (id) assert.equal(data.command, heard++ < posted ? "getVersion" : "the last");
    if (ack) assert.equal(acks++, 0);
  }
  await fill();
  const others = await Promise.all([1, 2, 3].map(() => desk.deliveriesOf(page, 1e9)));
  socket.send({ n: 2, post: VERSION });
  socket.socket.end();
  let next; // Four may be open, so a fifth shows that one has ended, after its waiting post.
  while ((next = await desk.socketOf(page)).status === 503) next.socket.destroy();
  assert.equal(next.status, 101);
  next.socket.destroy();
  for (const stream of others) stream.close();
});

test("survives clients that do not read long answers", { timeout: 300_000 }, async () => {
  const page = await desk.openPage();
  const posts = Array.from({ length: 15 }, () => ({ post: { command: "x".repeat(4000) } }));
  for (let batches = 0; batches < 70; ++batches) await desk.send(page, posts);
  const path = `/api/pages/${page.id}/dialogue`;
  const lazy = await Promise.all(Array.from({ length: 40 }, () => desk.dial(`GET ${path} ${HEAD}\r\n`)));
  for (const socket of lazy) socket.pause();
  let answer = await desk.request("GET", path);
  assert.equal(answer.status, 503);
  await answersOthers();
  while (answer.status === 503) answer = await desk.request("GET", path); // They are closed after a timeout.
  for (const socket of lazy) socket.destroy();
});

test("survives a request that never ends, and a socket that does not confirm its close", { timeout: 300_000 }, async () => {
  const half = await desk.dial(`POST /api/pages ${HEAD}Content-Length: 100\r\n\r\n{`);
  const page = await desk.openPage();
  const { receive } = await desk.socketOf(page);
  await desk.call("DELETE", `/api/pages/${page.id}`);
  assert.equal((await receive()).event, "crash");
  assert.equal(await receive(), undefined);
  assert.equal(await contentOf(half), "");
});

// Limits of the process. If the test runs as root, the desk runs as another user, because some do not apply to root.
for (const limits of ["ulimit -n 64", "ulimit -n 24", "ulimit -u 100", "ulimit -u 12", "ulimit -u 4", "ulimit -s 4096"]) {
  test(`says that it cannot start, or refuses pages, with ${limits}`, async () => {
    await desk.stop();
    desk = null;
    let tight;
    try {
      tight = await Desk.start(limits);
    } catch (error) {
      assert.equal(error.status, 3, "it says why it cannot start");
      return;
    }
    const pids = [];
    let answer;
    do {
      answer = await tight.request("POST", "/api/pages", { body: { grace: 3600 } }).catch(() => null);
      if (!answer) return assert.equal((await tight.exit)[0], 3, "it says why it has ended");
      if (answer.json.pid) pids.push(answer.json.pid);
    } while (answer.status === 201 && pids.length < 70);
    assert.equal(answer.status, 503);
    assert.match(answer.json.error, /pages are already open|ulimit/);
    const crowd = await Promise.all(Array.from({ length: 100 }, () => tight.dial("")));
    const long = `/api/store/db/${"x".repeat(15_000)}`;
    assert.equal((await tight.request("GET", long)).status, 400);
    assert((await tight.call("GET", "/api/settings")).settings.length > 0);
    for (const socket of crowd) socket.destroy();
    assert.equal(await tight.stop(), 0);
    for (const pid of pids) await ended(pid);
  });
}
