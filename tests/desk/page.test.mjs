// Pages over HTTP: their messages, streams and recordings, and the start and end of their processes.
import assert from "node:assert/strict";
import { once } from "node:events";
import { readdirSync } from "node:fs";
import { writeFile } from "node:fs/promises";
import { isAbsolute, join, relative } from "node:path";
import { after, before, test } from "node:test";
import { Desk, ended, isRunning, oneOfFiveIsBelow } from "./desk.mjs";

const CAPTION = "db/menu/caption/caption";
const VERSION = { command: "getVersion" };
const READ = { command: "getMenuValue", propertyKey: 0 };
const write = (value) => ({ command: "setMenuValue", propertyKey: 0, value });

let desk;
before(async () => { desk = await Desk.start(); });
after(Desk.stopAll);

test("a page sends, posts and receives messages", async () => {
  const page = await desk.openPage({ title: "App", url: "http://localhost/app" });
  assert.equal(page.state, "running");
  const stream = await desk.deliveriesOf(page);

  const { json } = await desk.send(page, { send: VERSION });
  assert.deepEqual(json, { reply: { code: 0, value: "4.0", errorName: "", errorMessage: "" } });
  assert.deepEqual((await desk.send(page, { post: write(3) })).json, {});
  const { data } = await stream.next("message");
  assert.equal(data.command, "setMenuValue");
  assert.equal(data.code, 0);

  const { dialogue } = await desk.call("GET", `/api/pages/${page.id}/dialogue`);
  assert.deepEqual(dialogue.map(({ kind, n, to }) => [kind, n, to]),
    [["send", 1, undefined], ["reply", 2, 1], ["post", 3, undefined], ["message", 4, 3]]);
  assert(dialogue.every(({ duration }) => duration === undefined || duration > 0));

  await desk.send(page, { send: { command: "registerVconfKeysForCaption", propertyKey: 0 } });
  await desk.call("PATCH", "/api/set", { latency: { getVersion: 500 } });
  await desk.send(page, { post: VERSION });
  await desk.call("PUT", `/api/store/${CAPTION}`, { value: 4 });
  await stream.next("message", (message) => message.command === "getVersion");
  await desk.call("PATCH", "/api/set", { latency: { getVersion: null } });
  const { dialogue: later } = await desk.call("GET", `/api/pages/${page.id}/dialogue`);
  const answer = ({ body, to }) => to && [body.command, to];
  assert.deepEqual(later.slice(-2).map(answer).filter(Boolean), [["getVersion", 7]], "an event answers no post");
  stream.close();
});

test("messages keep their order, and one that is sent twice is handled once", async () => {
  const page = await desk.openPage();
  const stream = await desk.deliveriesOf(page);
  const posts = Array.from({ length: 50 }, (_, i) => ({ n: i + 1, post: write(i) }));
  // The request that contains the posts may arrive after the one that repeats them with the send.
  const [, { json }] = await Promise.all([
    desk.send(page, posts.slice(0, 30)),
    desk.send(page, [...posts, { n: 51, send: READ }]),
  ]);
  assert.equal(json.reply.value, 49);
  for (const { post } of posts) assert.equal((await stream.next("message")).data.value, post.value);
  assert.equal((await desk.call("GET", `/api/pages/${page.id}`)).delivered, 50);
  stream.close();
});

test("a socket acknowledges posts, refuses invalid ones, and continues after the last event", async () => {
  const page = await desk.openPage();
  const first = await desk.socketOf(page);
  first.send([{ n: 1, post: write(1) }, { n: 2, post: write(2) }, { n: 3, post: write(3) }]);
  const heard = [await first.receive(), await first.receive(), await first.receive(), await first.receive()];
  assert.deepEqual(heard.filter(({ ack }) => ack), [{ ack: 3 }]);
  assert.deepEqual(heard.filter(({ id }) => id).map(({ id, data }) => [id, data.value]), [[1, 1], [2, 2], [3, 3]]);
  first.send([{ n: 3, post: write(9) }]);
  assert.deepEqual(await first.receive(), { ack: 3 }, "known by its number");
  for (const [text, number] of [["{", 0], ['{"n":7,"send":1}', 7], ['{"post":1}', 0], [`{"n":${"9".repeat(30)},"post":1}`, 0]]) {
    first.send(text);
    assert.equal((await first.receive()).refused, number, text);
  }
  first.socket.destroy();
  await desk.send(page, { post: write(4) });
  for (const [after, ids] of [[0, [1, 2, 3, 4]], [3, [4]]]) {
    const again = await desk.socketOf(page, `?after=${after}`);
    for (const id of ids) assert.equal((await again.receive()).id, id);
    again.socket.destroy();
  }
  const late = await desk.socketOf(page, "?after=99");
  assert.deepEqual(await late.receive(), { id: 4, event: "lost", data: { count: 0 } });
  late.socket.destroy();
});

test("events that are no longer stored are reported as lost", async () => {
  const page = await desk.openPage();
  const posts = Array.from({ length: 1000 }, () => ({ post: READ }));
  process.kill(page.pid, "SIGSTOP"); // more answers are awaited than the desk remembers posts
  for (let thousands = 0; thousands < 11; ++thousands) assert.equal((await desk.send(page, posts)).status, 200);
  const all = await desk.deliveriesOf(page);
  process.kill(page.pid, "SIGCONT");
  await all.next("message", () => all.last === 11_000);
  assert.equal((await desk.call("GET", `/api/pages/${page.id}/dialogue`)).dialogue.at(-1).to, 11_000);
  const late = await desk.deliveriesOf(page, 7);
  const lost = await late.next("lost");
  assert.equal(late.retry, 500);
  assert.equal(lost.data.count, lost.id - 7);
  assert(lost.id >= 1000, "10,000 are kept");
  assert.equal((await late.next("message")).id, lost.id + 1);
  const last = await desk.follow(`/api/pages/${page.id}/deliveries?after=10999`, 7);
  assert.equal((await last.next("message")).id, 11_000, "the query counts, not the header");
  for (const one of [all, late, last]) one.close();
  const { status, json } = await desk.request("POST", `/api/pages/${page.id}/verify`, { body: { messages: [READ], times: 11_000 } });
  assert.deepEqual([status, /more than the desk keeps/.test(json.error)], [409, true]);
});

test("lists the pages that watch a setting, until they stop, crash or close", async () => {
  const watchers = async () =>
    (await desk.call("GET", "/api/settings")).settings.find(({ path }) => path === CAPTION).watchers;
  const before = await watchers();
  const [one, two] = [await desk.openPage(), await desk.openPage()];
  const events = await desk.follow("/api/events");
  const register = { command: "registerVconfKeysForCaption", propertyKey: 0 };
  for (const page of [one, two]) await desk.send(page, { send: register });
  assert.deepEqual(await watchers(), [...before, one.number, two.number]);
  await desk.send(one, { send: { command: "unRegisterVconfKeysForCaption", propertyKey: 0 } });
  assert.deepEqual(await watchers(), [...before, two.number]);
  await desk.call("POST", `/api/pages/${two.id}/kill`);
  await events.next("page", ({ id, state }) => id === two.id && state === "crashed");
  assert.deepEqual(await watchers(), before);
  events.close();
});

test("a crash ends one page's plug-in, and requests that wait for it get an answer", async () => {
  const [victim, other] = [await desk.openPage(), await desk.openPage()];
  const stream = await desk.deliveriesOf(victim);
  const events = await desk.follow("/api/events");
  await desk.call("PATCH", "/api/set", { latency: { getMenuValue: 60_000 } });
  const waiting = desk.send(victim, `{"send":\r\n${JSON.stringify(READ)}\r}`); // one line in the stream
  await events.next("dialogue", ({ page, kind }) => page === victim.id && kind === "send");
  process.kill(victim.pid, "SIGABRT");
  assert.equal((await waiting).status, 410);
  const { data } = await stream.next("crash");
  assert.equal(data.signal, 6);
  assert.match(data.reason, /SIGABRT/);
  assert.equal((await desk.send(victim, { post: VERSION })).status, 410);
  await desk.call("PATCH", "/api/set", { latency: { getMenuValue: null } });
  assert.equal((await desk.send(other, { send: READ })).json.reply.code, 0);
  stream.close();
  events.close();
});

// Opens a page with a short grace, which `use` must prevent from ending. On a slow machine it may end before its first
// use, with a 404; then the test opens another one. A page that ends during its use gets another answer.
async function withBriefPage(use) {
  for (let tries = 1; ; ++tries) {
    const page = await desk.openPage({ grace: 1 });
    try {
      return { page, result: await use(page) };
    } catch (error) {
      if (error.actual !== 404 || tries === 5) throw error;
    }
  }
}

test("a page that leaves, or is silent too long, ends with its process", async () => {
  const [events, departures] = [await desk.follow("/api/events"), await desk.follow("/api/events")];
  const { page: closed, result: stream } = await withBriefPage((page) => desk.deliveriesOf(page));
  const silent = await desk.openPage({ grace: 1 });
  const gone = new Map([closed, silent].map((page) => [page.id, page.pid]));
  await oneOfFiveIsBelow(1500, async () => {
    const left = await desk.openPage();
    gone.set(left.id, left.pid);
    await desk.send(left, { send: VERSION });
    process.kill(left.pid, "SIGSTOP"); // no request waits for a process that cannot exit
    const start = performance.now();
    const heard = await desk.deliveriesOf(left);
    const waiting = desk.send(left, { send: READ });
    await events.next("dialogue",
      ({ page, kind, body }) => page === left.id && kind === "send" && body.propertyKey === 0);
    await desk.call("POST", `/api/pages/${left.id}/leave`);
    assert.equal((await waiting).status, 410);
    assert.equal((await heard.next("crash")).data.reason, "the desk has ended this page");
    return performance.now() - start;
  });
  stream.close();
  while (gone.size) {
    const { data } = await departures.next("gone", ({ id }) => gone.has(id));
    assert(!isRunning(gone.get(data.id)));
    assert.equal(data.ended === null, [closed.id, silent.id].includes(data.id), "kept only if something was said");
    assert.equal((await desk.request("GET", `/api/pages/${data.id}`)).status, 404);
    gone.delete(data.id);
  }
  events.close();
  departures.close();
});

test("a page that has left can be read, and deleted, while its process still ends", async () => {
  const events = await desk.follow("/api/events");
  const page = await desk.openPage();
  await desk.send(page, { send: VERSION });
  process.kill(page.pid, "SIGSTOP"); // two seconds pass before it is killed
  await desk.call("POST", `/api/pages/${page.id}/leave`);
  await desk.call("GET", `/api/pages/${page.id}/dialogue`);
  assert.equal((await desk.call("GET", "/api/pages")).ended.find(({ id }) => id === page.id).state, "ended");
  await desk.call("DELETE", `/api/pages/${page.id}`);
  assert.equal((await desk.request("GET", `/api/pages/${page.id}/dialogue`)).status, 404);
  await events.next("gone", ({ id, ended }) => id === page.id && !ended);
  events.close();
});

test("a page that has ended can be read until newer ones replace it or it is deleted", async () => {
  const own = await Desk.start();
  let grace = 0; // does not make it another page
  const events = await own.follow("/api/events");
  const load = async (title, { recorded = false, crashed = false, page } = {}) => {
    page ??= await own.openPage({ title: title[0], url: title.slice(1), grace: 3000 + (grace += 1) });
    if (recorded) await own.call("POST", `/api/pages/${page.id}/recording`);
    await own.send(page, { send: VERSION });
    if (crashed) {
      await own.call("POST", `/api/pages/${page.id}/kill`);
      await events.next("page", ({ id, state }) => id === page.id && state === "crashed");
    }
    await own.call("POST", `/api/pages/${page.id}/leave`);
    return (await events.next("gone", ({ id, ended }) => id === page.id && ended)).data.ended;
  };
  const descriptors = () => readdirSync(`/proc/${own.child.pid}/fd`).length;
  const few = descriptors();
  const kept = async () => (await own.call("GET", "/api/pages")).ended.map(({ title, url }) => title + url);
  const first = await own.openPage({ title: "first" });
  const recorded = await load("one", { recorded: true });
  assert.deepEqual([recorded.state, recorded.open], ["ended", false]);
  const crashed = await load("one", { crashed: true });
  for (let times = 0; times < 3; ++times) await load("one");
  assert.deepEqual(await kept(), ["one", "one", "one"], "the recorded one, the one that crashed, and the last");
  const read = async (part) => (await own.request("GET", `/api/pages/${recorded.id}/${part}`)).status;
  for (const part of ["dialogue", "log", "recording"]) assert.equal(await read(part), 200, part);
  assert.equal(await read("deliveries"), 404);

  const others = ["A1", "A2", "A3", "B1", "B2", "B3"]; // only pages with the same title and address replace each other
  for (const title of others) await load(title);
  assert.deepEqual(await kept(), ["one", "one", ...others], "the recorded one and the one that crashed");
  assert.equal(await read("dialogue"), 200);
  await load("first", { page: first });
  await load("8");
  assert.deepEqual(await kept(), ["one", "one", ...others.slice(2), "first", "8"], "by the order of their ends");
  assert((await own.call("GET", "/api/pages")).ended.some(({ id }) => id === crashed.id));
  assert(descriptors() < few + 5, "an ended page holds no descriptor");
  const last = (await own.call("GET", "/api/pages")).ended.at(-1);
  await own.call("DELETE", `/api/pages/${last.id}`);
  await events.next("gone", ({ id, ended }) => id === last.id && !ended);
  assert.equal((await kept()).length, 7);
  events.close();
  await own.stop();
});

test("a page that waits for a slow reply is not ended", async () => {
  await desk.call("PATCH", "/api/set", { latency: { getVersion: 2500 } });
  const { result } = await withBriefPage(async (page) => {
    const { status, json } = await desk.send(page, { send: VERSION });
    assert.equal(status, 200);
    return json;
  });
  assert.equal(result.reply?.value, "4.0");
  await desk.call("PATCH", "/api/set", { latency: { getVersion: null } });
});

test("a recording that starts in the middle of a session can be replayed", async () => {
  const page = await desk.openPage();
  await desk.send(page, { send: { command: "registerVconfKeysForCaption", propertyKey: 0 } });
  assert.equal((await desk.request("GET", `/api/pages/${page.id}/recording`)).status, 404);
  await desk.call("POST", `/api/pages/${page.id}/recording`);
  assert.equal((await desk.request("POST", `/api/pages/${page.id}/recording`)).status, 409);
  await desk.send(page, [{ post: write(2) }, { post: write(-1) }, { post: { command: "nothing" } }, { send: READ }]);
  await desk.send(page, { send: { command: "showCaption", show: true } });
  const { text, headers } = await desk.request("GET", `/api/pages/${page.id}/recording`);
  assert.equal(headers["content-type"], "application/jsonl");
  assert.match(text, /MIRADO_EVENT_CAPTION_CHANGED/);
  assert.equal((await desk.call("DELETE", `/api/pages/${page.id}/recording`)).recording.bytes, text.length);
  await desk.send(page, { send: READ });
  assert.equal((await desk.request("GET", `/api/pages/${page.id}/recording`)).text, text, "it has ended");
  const file = join(desk.folder, "session.jsonl");
  await writeFile(file, text);
  assert.match(await desk.mirado("replay", file), /the same/);
});

test("a recording has a maximum size, and contains nothing of the previous one", async () => {
  const page = await desk.openPage();
  const path = `/api/pages/${page.id}/recording`;
  const long = Array.from({ length: 10 }, () => ({ post: { command: "x".repeat(6000) } }));
  process.kill(page.pid, "SIGSTOP"); // The output for the first two comes after the third has started.
  for (let times = 0; times < 2; ++times) {
    await desk.call("POST", path);
    await desk.send(page, long);
    await desk.call("DELETE", path);
  }
  await desk.call("POST", path);
  process.kill(page.pid, "SIGCONT");
  await desk.send(page, { send: VERSION });
  const [first, ...lines] = (await desk.request("GET", path)).text.trim().split("\n").map((line) => JSON.parse(line));
  assert.equal(first.recording, 1);
  assert.deepEqual(lines.map(({ in: asked, out }) => asked ?? out.reply.value), [{ send: VERSION }, "4.0"]);
  const P = () => desk.call("GET", `/api/pages/${page.id}`);
  while (!(await P()).recording.full) await desk.send(page, [...long, { send: VERSION }]);
  const { recording } = await P();
  assert.equal(recording.running, false);
  assert(recording.bytes > 8_000_000 && recording.bytes <= 8 * 1024 * 1024, recording.bytes);
  assert.equal((await desk.call("POST", path)).recording.full, false);
});

test("the desk starts in any state of the set, but not without a plug-in", async () => {
  const fault = { call: "RegisterMessageHandler", path: "*", answer: -1, times: 1 };
  await desk.call("POST", "/api/faults", fault);
  await desk.call("PATCH", "/api/set", { latency: { getVersion: 60_000 } });
  const second = await Desk.startOn(relative("", desk.store));
  const { command } = await second.call("GET", "/api/desk");
  assert(isAbsolute(command[command.indexOf("--store") + 1]), "starts it again from any folder");
  assert.deepEqual((await second.call("GET", "/api/faults")).faults, [fault]);
  assert.equal(await second.stop("SIGINT"), 0);
  await desk.call("POST", "/api/reset");
  await assert.rejects(desk.mirado("desk", "--port", "0", "--plugin", "/none.so"), { code: 3, stderr: /none\.so: .*open/ });
});

test("the desk exits at once, also with a busy client, unless a plug-in still runs; under nohup it survives its terminal", async () => {
  const kept = await Desk.start("ulimit -c 0 && trap '' HUP");
  if (!process.env.MIRADO_EMULATED) kept.child.kill("SIGHUP"); // the emulator forgets at an exec what is ignored
  assert.equal((await kept.send(await kept.openPage(), { send: VERSION })).json.reply.value, "4.0");
  assert.equal(await kept.stop(), 0);
  await oneOfFiveIsBelow(1500, async () => {
    const brief = await Desk.start();
    const put = "PUT /api/store/db/a HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\nContent-Length: 11\r\n\r\n";
    const busy = (await brief.dial(`${put}{"value":1}`.repeat(100_000))).resume();
    await once(busy, "data");
    const start = performance.now();
    assert.equal(await brief.stop("SIGHUP"), 0);
    return performance.now() - start;
  });
});

test("no child process is left after any kind of exit", async () => {
  for (const [signal, status] of [["SIGINT", 0], ["SIGTERM", 0], ["SIGKILL", null]]) {
    const mortal = await Desk.start();
    const crashed = await mortal.openPage(); // has ended before the others
    const pages = [await mortal.openPage(), await mortal.openPage()];
    const stream = await mortal.deliveriesOf(pages[0]);
    const events = await mortal.follow("/api/events");
    await mortal.call("POST", `/api/pages/${crashed.id}/kill`);
    await events.next("page", ({ state }) => state === "crashed");
    await mortal.send(pages[1], { send: VERSION });
    process.kill(pages[1].pid, "SIGSTOP"); // it cannot exit by itself
    assert.equal(await mortal.stop(signal), status);
    if (signal !== "SIGKILL") {
      assert.equal((await stream.next("crash")).data.reason, "the desk has ended");
      for (const { id } of pages) await events.next("gone", ({ id: gone }) => gone === id);
    }
    for (const { pid } of pages) {
      if (signal === "SIGKILL") await ended(pid);
      assert(!isRunning(pid), signal);
    }
    for (const one of [stream, events]) one.close();
  }
});
