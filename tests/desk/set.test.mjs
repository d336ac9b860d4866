// The simulated set over HTTP: settings, events of changes, faults, and the plug-in's log.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { writeFile } from "node:fs/promises";
import { join } from "node:path";
import { after, before, beforeEach, test } from "node:test";
import { fileURLToPath } from "node:url";
import { Desk } from "./desk.mjs";

const CAPTION = "db/menu/caption/caption";
const READ = { send: { command: "getMenuValue", propertyKey: 0 } };

let desk;
before(async () => { desk = await Desk.start(); });
after(Desk.stopAll);
beforeEach(() => desk.call("POST", "/api/reset"));

test("settings are listed, read, written and removed", async () => {
  const { settings } = await desk.call("GET", "/api/settings");
  assert.deepEqual(settings.find(({ name }) => name === "MENU_KEY_TTS"), {
    table: "menu", key: 15, name: "MENU_KEY_TTS", path: "db/setting/accessibility/tts", type: "bool", value: false,
    initial: false, group: "Accessibility", label: "Text to speech", command: "getMenuValue",
    values: { 0: "Off", 1: "On" }, watchers: [] });

  await desk.call("PUT", `/api/store/${CAPTION}`, { value: 5 });
  assert.equal(await desk.mirado("get", CAPTION), "5");
  await desk.call("PUT", "/api/store/memory/a%20new/one", { value: "text" });
  const { keys } = await desk.call("GET", "/api/store?prefix=memory/a");
  assert.deepEqual(keys, [{ path: "memory/a new/one", value: "text" }]);
  await desk.call("DELETE", "/api/store/memory/a%20new/one");
  assert.equal((await desk.request("GET", "/api/store/memory/a%20new/one")).status, 404);
  assert.equal((await desk.request("DELETE", "/api/store/memory/a%20new/one")).status, 404);
});

test("changes by every program are reported as events", async () => {
  const events = await desk.follow("/api/events");
  const page = await desk.openPage();
  await desk.mirado("set", CAPTION, "1");
  assert.deepEqual((await events.next("setting")).data, { path: CAPTION, value: 1 });
  await desk.send(page, { post: { command: "setMenuValue", propertyKey: 0, value: 2 } });
  const { id, data } = await events.next("setting");
  assert.deepEqual(data, { path: CAPTION, value: 2 });
  await desk.call("DELETE", `/api/store/${CAPTION}`);
  assert.deepEqual((await events.next("setting")).data, { path: CAPTION, value: null });
  await desk.mirado("set-up", "b2b", "off");
  await events.next("set");
  const changed = await desk.call("PATCH", "/api/set", { latency: { getVersion: 5 } });
  assert.deepEqual([changed.b2b, changed.latency], [false, { getVersion: 5 }]);
  assert.deepEqual(await desk.call("GET", "/api/set"), changed);
  events.close();

  const again = await desk.follow("/api/events", id);
  assert.equal((await again.next("setting")).data.value, null);
  again.close();
});

test("a stream that is opened after the answer to a change does not begin with that change", async () => {
  for (let value = 1; value <= 30; ++value) {
    const body = JSON.stringify({ value });
    // Both requests in one write, so that no other event comes between them.
    const socket = await desk.dial(`PUT /api/store/${CAPTION} HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n` +
      `Content-Length: ${body.length}\r\n\r\n${body}GET /api/events HTTP/1.1\r\nHost: localhost\r\n\r\n`);
    let text = "";
    for await (const chunk of socket) {
      const opens = !text.includes("retry:") && (text + chunk).includes("retry:");
      text += chunk;
      if (opens) await desk.call("PUT", "/api/store/memory/last", { value });
      if (/memory\/last.*\n\n/s.test(text)) break;
    }
    assert.deepEqual(text.match(/(?<=^data: ).*/gm), [JSON.stringify({ path: "memory/last", value })]);
  }
});

test("every call that checks for a fault can be made to fail", async () => {
  const sources = execFileSync("grep", ["-rhoE", "(TakeFault|Answer|Read|Write)\\(\"\\w+", "platform", "desk"],
    { cwd: fileURLToPath(new URL("../..", import.meta.url)), encoding: "utf8" });
  const asked = sources.trim().split("\n").map((call) => call.split('"')[1]);
  assert.deepEqual((await desk.call("GET", "/api/faults")).calls.map(({ name }) => name).sort(), asked.sort());
});

test("faults replace the results of calls, as often as requested", async () => {
  const page = await desk.openPage();
  const fault = { call: "vconf_get_int", path: CAPTION, answer: -1, times: 2 };
  const events = await desk.follow("/api/events");
  assert.deepEqual((await desk.call("POST", "/api/faults", fault)).faults, [fault]);
  await events.next("set");
  events.close();
  const codes = [];
  for (let i = 0; i < 3; ++i) codes.push((await desk.send(page, READ)).json.reply.code);
  assert.deepEqual(codes, [9999, 9999, 0]);

  await desk.call("POST", "/api/faults", { call: "vconf_get_int", answer: -1 });
  await desk.call("POST", "/api/faults", { call: "vconf_set_int", path: CAPTION, answer: -2 });
  const left = await desk.call("DELETE", "/api/faults?call=vconf_get_int&path=*");
  assert.deepEqual(left.faults.map(({ call }) => call), ["vconf_set_int"]);
  assert.deepEqual((await desk.call("DELETE", "/api/faults")).faults, []);
});

test("the plug-in's log is stored and reported, split into its fields", async () => {
  const events = await desk.follow("/api/events");
  const page = await desk.openPage();
  const replies = await desk.follow("/api/events");
  await desk.send(page, { send: { command: "no such command" } });
  const { id, data } = await events.next("log", ({ text }) => text.includes("Can not handle the command!!"));
  assert(id < (await replies.next("dialogue", ({ kind }) => kind === "reply")).id, "before its reply");
  assert.deepEqual([data.page, data.priority, data.tag, data.logId], [page.id, "E", "QRL_BASE", 0]);
  const { log } = await desk.call("GET", `/api/pages/${page.id}/log`);
  assert.deepEqual(log.at(-1), data);
  for (const stream of [events, replies]) stream.close();
});

test("a store that is damaged while it is open is reported", async () => {
  const other = await Desk.start();
  // The database first: a damaged "live" alone is recreated from it at once.
  for (const file of ["keys.db", "live"]) await writeFile(join(other.store, file), "no database".repeat(1000));
  assert.equal((await other.call("GET", "/api/desk")).store.code, "damaged");
});
