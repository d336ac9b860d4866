// Who may not hold up the others: each attack ends with an answer for everybody else, and leaves nothing behind.
import assert from "node:assert/strict";
import { once } from "node:events";
import { Agent } from "node:http";
import { afterEach, beforeEach, test } from "node:test";
import { Desk, ended, oneOfFiveIsBelow } from "./desk.mjs";

const HEAD = "HTTP/1.1\r\nHost: localhost\r\n";
const VERSION = { command: "getVersion" };
let desk;
beforeEach(async () => { desk = await Desk.start(); });
afterEach(async () => { if (desk) assert.equal(await desk.stop(), 0); });

// That a page opens, is answered and reads its settings while the attack goes on.
const answersOthers = () => oneOfFiveIsBelow(1000, async () => {
  const start = performance.now();
  const page = await desk.openPage();
  assert.equal((await desk.say(page, { send: VERSION })).json.reply.value, "4.0");
  assert((await desk.call("GET", "/api/settings")).settings.length > 0);
  await desk.call("DELETE", `/api/pages/${page.id}`);
  return performance.now() - start;
});

const statusOf = async (socket) => (await once(socket, "data"))[0].split(" ")[1];

test("a hostile page that loads as fast as it can", async () => {
  const agent = new Agent({ keepAlive: true, maxSockets: 6 });
  const headers = { "Sec-Fetch-Site": "cross-site", "Accept-Encoding": "gzip, deflate, br" };
  let going = true;
  const flood = Array.from({ length: 6 }, async () => {
    while (going) assert.equal((await desk.request("GET", "/layout.css", { headers, agent })).status, 200);
  });
  await answersOthers();
  going = false;
  await Promise.all(flood);
  agent.destroy();
});

test("clients that give up what they wait for", async () => {
  await desk.call("PATCH", "/api/set", { latency: { getMenuValue: 60_000 } });
  const page = await desk.openPage({ grace: 1 });
  const events = await desk.follow("/api/events");
  const body = JSON.stringify({ send: { command: "getMenuValue", propertyKey: 0 } });
  const send = `POST /api/pages/${page.id}/messages ${HEAD}Content-Type: application/json\r\n` +
    `Content-Length: ${body.length}\r\n\r\n${body}`;
  const waiting = [];
  for (let sends = 0; sends < 257; ++sends) waiting.push(await desk.dial(send));
  assert.equal(await statusOf(waiting[16]), "503", "as many as may wait do");
  await answersOthers();
  for (const socket of waiting) socket.destroy();
  await events.next("gone", ({ id }) => id === page.id); // Its grace counts again, not the minute of one that waits.
  events.close();
});

test("more streams than there is room for", async () => {
  const page = await desk.openPage();
  const open = async (path, more = "") => {
    const socket = await desk.dial(`GET ${path} ${HEAD}${more}\r\n`);
    return { socket, status: await statusOf(socket) };
  };
  const streams = await Promise.all(Array.from({ length: 300 }, () => open("/api/events")));
  assert.equal(streams.filter(({ status }) => status === "200").length, 32);
  assert.equal(streams.filter(({ status }) => status === "503").length, 268);
  streams.push(await open("/api/events", "Sec-Fetch-Site: same-origin\r\n"));
  assert.equal(streams.at(-1).status, "200", "the desk's own page has room");
  for (let readers = 0; readers < 5; ++readers) streams.push(await open(`/api/pages/${page.id}/deliveries`));
  assert.deepEqual(streams.slice(-5).map(({ status }) => status), ["200", "200", "200", "200", "503"]);
  await answersOthers();
  for (const { socket } of streams) socket.destroy();
});

test("connections that say nothing, half of what they want, or do not listen", async () => {
  const half = `POST /api/pages ${HEAD}Content-Length: 100\r\n\r\n{`;
  const sockets = [await desk.dial(`GET /api/events ${HEAD}\r\n`)];
  sockets[0].pause();
  for (let thousands = 0; thousands < 10; ++thousands) {
    sockets.push(...await Promise.all(Array.from({ length: 1000 }, (_, i) => desk.dial(i % 2 ? half : ""))));
  }
  const drip = setInterval(() => sockets.forEach((socket) => socket.write("x")), 500);
  await answersOthers();
  clearInterval(drip);
  for (const socket of sockets) socket.destroy();
});

test("more pages than there may be", async () => {
  const pages = [];
  for (let opened = 0; opened < 64; ++opened) pages.push(await desk.openPage());
  assert.equal((await desk.request("POST", "/api/pages", { body: {} })).status, 503);
  const headers = { Origin: `http://localhost:${desk.port}`, Host: `localhost:${desk.port}` };
  assert.equal((await desk.request("POST", "/api/pages", { body: { grace: 60 }, headers })).status, 201, "the desk's own");
  await desk.call("DELETE", `/api/pages/${pages[0].id}`);
  await desk.call("DELETE", `/api/pages/${pages[1].id}`);
  await desk.openPage();
});

test("a page that does not read what it is sent", async () => {
  const page = await desk.openPage();
  process.kill(page.pid, "SIGSTOP");
  const posts = Array.from({ length: 60 }, () => ({ post: { command: "x".repeat(1000) } }));
  let taken = 0;
  let status = 200;
  while (status === 200 && taken < 1000) {
    ({ status } = await desk.say(page, posts));
    ++taken;
  }
  assert.equal(status, 503);
  assert(taken > 100, "8 MiB");
  await answersOthers();
});

// What a process may have; the desk runs as nobody where root would not be bound by it.
for (const limits of ["ulimit -n 64", "ulimit -n 24", "ulimit -u 100", "ulimit -u 12", "ulimit -s 4096"]) {
  test(`a desk with ${limits}`, async () => {
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
      answer = await tight.request("POST", "/api/pages", { body: { grace: 3600 } });
      if (answer.json.pid) pids.push(answer.json.pid);
    } while (answer.status === 201 && pids.length < 70);
    assert.equal(answer.status, 503);
    assert.match(answer.json.error, /pages are open already|ulimit/);
    const crowd = await Promise.all(Array.from({ length: 100 }, () => tight.dial("")));
    const long = `/api/store/db/${"x".repeat(15_000)}`;
    assert.equal((await tight.request("GET", long)).status, 400);
    assert((await tight.call("GET", "/api/settings")).settings.length > 0);
    for (const socket of crowd) socket.destroy();
    assert.equal(await tight.stop(), 0);
    for (const pid of pids) await ended(pid);
  });
}
