// Sends the same messages to the fake plug-in and to the real one, in several states of the simulated set. Both must
// send the same replies, events and answers to posts.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, it } from "node:test";
import { fileURLToPath } from "node:url";
import { fakePlugin } from "../../page/testing.js";

const root = fileURLToPath(new URL("../../", import.meta.url));
const program = process.env.MIRADO ?? `${root}build/release/bin/mirado`;
const catalog = JSON.parse(readFileSync(`${root}desk/set/catalog.json`, "utf8"));
const folder = mkdtempSync(join(tmpdir(), "mirado-fake-"));
after(() => rmSync(folder, { recursive: true }));
const run = (args, input) => execFileSync(program, [...args, "--store", join(folder, "store")],
  { input, encoding: "utf8", stdio: ["pipe", "pipe", "ignore"] });

const keys = [undefined, -1, ...catalog.settings.map(({ key }) => key), 99, 7.5, "7", null, true, 2 ** 31];
const values = [undefined, 0, 5, 256, -1, 2 ** 31 - 1, -(2 ** 31), 2 ** 31, 1.5, "FAST", "", null, true, []];
const odd = [1, "getVersion", null, [], {}, { command: 7 }, { command: "no such" }, { command: "constructor" }];
const commands = catalog.commands.map(({ name }) => name);
const changes = catalog.settings.map(({ path, type }) => ({ set: { [path]: type === "bool" ? true : 300 } }));

const messages = [
  ...odd.flatMap((message) => [{ send: message }, { post: message }]),
  ...commands.flatMap((command) => keys.flatMap((key) => [
    { send: { command, propertyKey: key, show: key, status: key } },
    { post: { command, propertyKey: key, value: 3 } }])),
  // At this point every setting has been watched and unwatched.
  ...["menu", "mirado"].flatMap((table) => catalog.settings.filter((setting) => setting.table === table)
    .map(({ key }) => ({ send: { command: catalog.tables[table].watch, propertyKey: key } }))),
  ...keys.flatMap((propertyKey) => values.map((value) => ({ post: { command: "setMenuValue", propertyKey, value } }))),
  { settle: true }, ...changes, ...changes,
  ...keys.flatMap((propertyKey) => [
    { send: { command: "getMenuValue", propertyKey } }, { post: { command: "setMenuValue", propertyKey, value: 5 } },
    { send: { command: "getMiradoValue", propertyKey } }]),
  { settle: true },
];

const [sent, posted] = ["send", "post"].map((name) => messages.filter((message) => message[name] !== undefined));

// Separates replies, events and answers to posts, because only the order within each kind is fixed.
function byKind(lines) {
  const delivered = lines.flatMap(({ message }) => message ?? []).filter((message) => message !== "Unregister");
  return { replies: lines.flatMap(({ reply }) => reply ?? []),
    events: delivered.filter(({ event }) => event !== undefined),
    answers: delivered.filter(({ command }) => command !== undefined) };
}

function real(words) {
  run(["reset"]);
  for (const each of words) run(each);
  const output = run(["host"], messages.map((line) => `${JSON.stringify(line)}\n`).join(""));
  return byKind(output.trim().split("\n").map((line) => JSON.parse(line)));
}

async function fake(prepare) {
  const plugin = fakePlugin();
  prepare(plugin);
  const lines = [];
  plugin.addEventListener("message", ({ data }) => lines.push({ message: data }));
  for (const { send, post, set } of messages) {
    if (send !== undefined) lines.push({ reply: plugin.postMessageAndAwaitResponse(send) });
    else if (post !== undefined) plugin.postMessage(post);
    else if (set) for (const [path, value] of Object.entries(set)) plugin.settings.set(nameOf(path), value);
    else await plugin.settle();
  }
  return byKind(lines);
}
const nameOf = (wanted) => catalog.settings.find(({ path }) => path === wanted).name;

const states = {
  "in its initial state": [[], () => {}],
  "that is no B2B product": [[["set-up", "b2b", "off"]], ({ set }) => { set.b2b = false; }],
  "that cannot say whether it is a B2B product": [[["set-up", "b2b", "unknown"]], ({ set }) => { set.b2b = null; }],
  "whose application lacks the privilege": [[["set-up", "privilege", "off"]], ({ set }) => { set.privilege = false; }],
  "without the primary audio languages and without video": [
    [["set-up", "items", "primary-audio-language", "--remove"], ["set-up", "picture-size", "none"]],
    ({ set }) => { set.lists["primary-audio-language"] = null; set.pictureSize = null; }],
  "with another picture and a short list": [
    [["set-up", "items", "secondary-audio-language", "5=Five"], ["set-up", "picture-size", "2"]],
    ({ set }) => { set.lists["secondary-audio-language"] = [5]; set.pictureSize = 2; }],
  "that cannot be read": [
    [["fault", "vconf_get_int", "-1"], ["fault", "vconf_get_bool", "-1"]], ({ set }) => { set.fails.read = true; }],
  "that cannot be written": [
    [["fault", "vconf_set_int", "-1"], ["fault", "vconf_set_bool", "-1"]], ({ set }) => { set.fails.write = true; }],
  "that cannot be watched": [
    [["fault", "vconf_notify_key_changed", "-1"], ["fault", "vconf_ignore_key_changed", "-1"]],
    ({ set }) => { set.fails.watch = true; }],
};
for (const [name, [words, prepare]] of Object.entries(states)) {
  it(`equals the real plug-in on a set ${name}`, async () => {
    const expected = real(words);
    const got = await fake(prepare);
    assert.ok(expected.replies.length > 300 && expected.answers.length > 600);
    for (const kind of Object.keys(expected)) {
      // -1 if all are equal; then both slices are empty.
      const first = expected[kind].findIndex((one, index) => JSON.stringify(one) !== JSON.stringify(got[kind][index]));
      assert.deepEqual(got[kind].slice(first, first + 1), expected[kind].slice(first, first + 1),
        `${kind} ${first}: ${JSON.stringify((kind === "replies" ? sent : kind === "answers" ? posted : [])[first])}`);
      assert.equal(got[kind].length, expected[kind].length);
    }
  });
}

it("lets a test set the fake's state and read the messages that were sent to it", async () => {
  const plugin = fakePlugin();
  const heard = [];
  for (const type of ["message", "crash"]) plugin.addEventListener(type, () => heard.push(type));
  const ask = (command) => plugin.postMessageAndAwaitResponse({ command, propertyKey: 0 });
  ask("registerVconfKeysForCaption");
  plugin.settings.set("CAPTION", null);
  assert.deepEqual([plugin.settings.get("CAPTION"), ask("getMenuValue").code, heard], [null, 9999, []]);
  assert.throws(() => plugin.settings.set("CAPTION", "on"), /MENU_KEY_CAPTION takes an integer/);
  plugin.crash();
  plugin.settings.set("CAPTION", 1);
  assert.equal(ask("getVersion"), undefined);
  await plugin.settle();
  assert.deepEqual([heard, plugin.pluginGone.signal, plugin.messages.length], [["message", "crash"], 9, 3]);
  const message = { command: "getVersion" };
  plugin.postMessage(message);
  message.command = "changed later";
  assert.deepEqual(plugin.messages.pop(), { post: { command: "getVersion" } });
});
