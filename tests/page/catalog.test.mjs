// Compares desk/set/catalog.json with the plug-in, and the files that script/generate writes with those checked in.
import assert from "node:assert/strict";
import { execFileSync, spawnSync } from "node:child_process";
import { cpSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, it } from "node:test";
import { fileURLToPath } from "node:url";

const root = fileURLToPath(new URL("../../", import.meta.url));
const program = process.env.MIRADO ?? `${root}build/release/bin/mirado`;
const catalog = JSON.parse(readFileSync(`${root}desk/set/catalog.json`, "utf8"));
const folder = mkdtempSync(join(tmpdir(), "mirado-catalog-"));
after(() => rmSync(folder, { recursive: true }));

// The plug-in's replies to `lines`, and its messages.
function host(lines) {
  const { stdout, status } = spawnSync(program, ["host", "--store", join(folder, "store")], {
    input: lines.map((line) => `${JSON.stringify(line)}\n`).join(""), encoding: "utf8" });
  assert.equal(status, 0);
  const output = stdout.trim().split("\n").map((line) => JSON.parse(line));
  return { replies: output.flatMap(({ reply }) => reply ?? []),
    messages: output.flatMap(({ message }) => message ?? []) };
}

it("names every setting of the plug-in by its key, name and path", () => {
  const rows = readFileSync(`${root}pepper/inc/KeyTables.h`, "utf8").matchAll(/ROW\((\w+), "(.*)"\)/g);
  assert.deepEqual(catalog.settings.map(({ name, path }) => [name, path]), Array.from(rows, (row) => row.slice(1)));
  for (const [name, { read, watch, event }] of Object.entries(catalog.tables)) {
    const settings = catalog.settings.filter(({ table }) => table === name);
    const ask = (command) => settings.map(({ key }) => ({ send: { command, propertyKey: key } }));
    const value = ({ type, key }) => (type === "bool" ? true : key + 100);
    const { replies, messages } = host([
      ...ask(watch), ...settings.map((setting) => ({ set: { [setting.path]: value(setting) } })), { settle: true },
      ...ask(read), { send: { command: watch, propertyKey: settings.length } }]);
    const keys = settings.map(({ key }) => key);
    assert.deepEqual(keys, Array.from(keys.keys()));
    assert.deepEqual(messages.filter((message) => message.event === event).map((message) => message.value), keys);
    assert.notEqual(replies.pop().code, 0, `the plug-in has more ${name} keys`);
    assert.deepEqual(replies.slice(settings.length).map((reply) => reply.value), settings.map((setting) =>
      setting.watchOnly ? null : setting.values?.speeds ? catalog.otherSpeed : Number(value(setting))));
  }
});

it("names every command of the plug-in, and its field", () => {
  const source = readFileSync(`${root}pepper/src/PluginMirado.cpp`, "utf8");
  const served = Array.from(source.matchAll(/^ +\{"(\w+)", &MiradoMessageHandler::/gm), ([, name]) => name);
  const waiting = catalog.commands.filter(({ posted }) => !posted);
  assert.deepEqual(waiting.map(({ name }) => name).sort(), served.sort());
  host(waiting.map(({ name }) => ({ send: { command: name } }))).replies.forEach(({ code, errorMessage }, at) => {
    const [field] = waiting[at].fields;
    assert.ok(field ? code === 26 && errorMessage.includes(field) : code === 0, `${waiting[at].name}: ${errorMessage}`);
  });
});

it("names the speeds, the errors and the privilege of the plug-in", () => {
  const { key, path } = catalog.settings.find(({ values }) => values?.speeds);
  const speeds = Object.entries(catalog.speeds);
  const numbers = Array.from({ length: 18 }, (_, number) => number);
  const { replies } = host(numbers.flatMap((number) =>
    [{ set: { [path]: number } }, { send: { command: "getMenuValue", propertyKey: key } }]));
  assert.deepEqual(replies.map(({ value }) => value), numbers.map((number) =>
    speeds.find(([, { from, to }]) => from <= number && number <= to)?.[0] ?? catalog.otherSpeed));

  const write = { command: "setMenuValue", propertyKey: key, value: 1 };
  assert.equal(host([{ post: write }, { settle: true }]).messages[0].code, 0, "a new set holds the privilege");
  execFileSync(program, ["set-up", "privilege", "off", "--store", join(folder, "store")]);
  const refused = host([{ send: { command: "no such" } }, { send: 1 }, { post: write },
    { send: { command: "getMiradoValue", propertyKey: 9 } }, { settle: true }]);
  const failures = [...refused.replies, ...refused.messages].filter(({ code }) => code);
  assert.deepEqual(Object.fromEntries(failures.map(({ code, errorName }) => [code, errorName])),
    Object.fromEntries(Object.entries(catalog.errors).map(([code, { name }]) => [code, name])));
});

it("matches the generated files, and script/generate names a mistake in it", () => {
  execFileSync(`${root}script/generate`, ["--check"], { stdio: "pipe" });
  const copy = join(folder, "copy");
  for (const part of ["script/generate", "desk/set", "page", "docs/page-api.md", "npm/mirado-desk/index.d.ts"]) {
    cpSync(root + part, join(copy, part), { recursive: true });
  }
  const generate = (change, ...options) => {
    const changed = structuredClone(catalog);
    change(changed);
    writeFileSync(join(copy, "desk/set/catalog.json"), JSON.stringify(changed));
    const { status, stderr } = spawnSync(join(copy, "script/generate"), options, { encoding: "utf8" });
    return `${status} ${stderr}`;
  };
  const command = (row) => ({ commands }) => commands.push(
    { name: "mute", posted: false, fields: [], gives: null, about: "Mutes.", ...row });
  assert.match(generate(({ settings }) => { settings[1].lable = "Mode"; }), /^1 .*row 2 \(MENU_KEY_CAPTION_MODE\): "lable" is no/);
  assert.match(generate(({ settings }) => { delete settings[0].path; }), /^1 .*"path" is missing/);
  assert.match(generate(command({ fields: ["propertyKey"] })), /^1 .*"propertyKey" needs "table"/);
  assert.match(generate(command({ fields: ["left", "right"] })), /^1 .*mute takes several fields/);
  assert.match(generate(command({}), "--check"), /^1 page.mirado.js is out of date/);
  assert.equal(generate(command({})), "0 ");
  assert.match(readFileSync(join(copy, "page/mirado.classic.js"), "utf8"), /^ {4}mute: function \(\) { ask\("mute"\); },/m);
});
