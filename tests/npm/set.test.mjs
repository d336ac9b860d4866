// The functions of the package mirado-desk, called as a test of a page would call them, with real desks.
import assert from "node:assert/strict";
import { execFileSync, spawnSync } from "node:child_process";
import { once } from "node:events";
import { mkdtempSync, readdirSync, rmSync, watch } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, beforeEach, it } from "node:test";
import { startSet } from "../../npm/mirado-desk/index.js";

process.env.MIRADO ??= new URL("../../build/release/bin/mirado", import.meta.url).pathname;

// What the sets of this file leave behind: files in this folder, or processes that use it.
const folder = process.env.TMPDIR = mkdtempSync(join(tmpdir(), "mirado-npm-"));

let set;
before(async () => { set = await startSet(); });
after(async () => {
  await set.stop();
  rmSync(folder, { recursive: true });
});
beforeEach(() => set.reset());

const write = (value) => ({ command: "setMenuValue", propertyKey: 0, value });

it("records each message of a page and its plug-in once, and waits for later ones", { timeout: 50_000 }, async () => {
  const older = await set.openPage({ url: "http://localhost/older" });
  const page = await set.openPage({ title: "Bühne" });
  assert.equal((await set.pages()).at(-1), page);
  assert.equal((await set.page()).title, "Bühne");
  assert.equal(await set.page({ url: "/older" }), older);
  await older.leave();
  const forever = { timeout: 60_000 }; // a message ends the wait, not the timeout
  const asked = page.asked("setMenuValue", { value: 2 }, forever);
  const told = page.event("CAPTION", forever);
  await page.send({ command: "registerVconfKeysForMirado", propertyKey: 0 });
  await set.settings.set("BG_EXECUTABLE", 0); // key 0 of another table
  for (const propertyKey of [0, 1]) await page.send({ command: "registerVconfKeysForCaption", propertyKey });
  assert.deepEqual(await page.watching(),
    ["db/menu/caption/caption", "db/menu/caption/captionmode", "memory/tv-viewer/bg_executable"]);
  await set.settings.set("CAPTION_MODE", 1);
  for (const value of [[], 1, 2]) await page.post(write(value));
  assert.deepEqual(await asked, write(2));
  assert.deepEqual(await page.asked("setMenuValue", { value: [] }), write([]));
  assert.deepEqual(await page.asked("setMenuValue"), write(1));
  assert.equal((await told).event, "MIRADO_EVENT_CAPTION_CHANGED");
  assert.equal((await page.told({ code: 0, value: null })).errorName, ""); // a reply
  const commands = ["setMenuValue", "registerVconfKeysForCaption"];
  assert.deepEqual([(await page.verify(commands)).ok, (await page.verify(commands, { order: false })).ok],
    [false, true]);
  assert.deepEqual(await page.verify([commands[1]], { times: 2 }), { ok: true, difference: "" });
  assert.equal((await page.told({ command: "setMenuValue", code: 0 })).value, 1);
  await set.settings.becomes("CAPTION", 2, forever);
  await assert.rejects(page.asked("setMenuValue", {}, { timeout: 50 }),
    /50 ms the page has not sent setMenuValue. The last .*\n(.*register.*}\n)+(.*setMenu.*before\)\n){2}.*2} \(/);
  await assert.rejects(page.asked("setMenuValue", { timeout: 50 }), /asked\("setMenuValue", {}, { timeout/);
  await assert.rejects(page.told("setMenuValue"), /told\({ command/);
  await assert.rejects(set.settings.becomes("CAPTION", 3, { timeout: 50 }), /it is 2/);
  await page.leave();
});

it("reads and changes settings, faults and scenarios, and rejects wrong arguments", async () => {
  const page = await set.openPage();
  const read = () => page.send({ command: "getMenuValue", propertyKey: 15 });
  await set.settings.set("TTS", true);
  assert.deepEqual([await set.settings.get("MENU_KEY_TTS"), (await read()).value], [true, 1]);
  await set.fault("vconf_get_bool", { path: "TTS", times: 1 });
  assert.deepEqual([(await read()).code, (await read()).code], [9999, 0]);
  await set.fault("vconf_get_bool");
  await set.clearFaults();
  assert.equal((await read()).code, 0);
  assert.equal((await set.change({ pictureSize: 2 })).pictureSize, 2);
  assert.equal((await set.describe()).pictureSize, 2);

  await assert.rejects(set.settings.set("CAPTOIN", 1), /no setting CAPTOIN; the settings are: CAPTION,/);
  await assert.rejects(set.fault("vconf_get_bool", { path: "db/no/key" }), /no setting db/);
  await set.fault("vconf_notify_key_changed", { path: "CAPTION" }); // only a negative result is a failure of this call
  await set.clearFaults();
  const list = { path: "primary-audio-language" };
  await set.fault("GetItemDataList", list);
  assert.equal((await set.call("GET", "/api/faults")).faults[0].path, list.path);
  await assert.rejects(set.fault("GetItemDataList", { path: "CAPTION" }), /CAPTION is not a path of GetI.*primary-a/);
  await assert.rejects(set.fault("CreateVideoControl", list), /primary-.* is not a path of Create.* no path/);
  await assert.rejects(set.fault("vconf_get_bool", { tims: 1 }), /no option tims; its options are: path/);
  await assert.rejects(set.settings.set("CAPTION", "on"), /: CAPTION takes an integer, not "on"$/);
  await assert.rejects(set.settings.set("TTS", 1), /: TTS takes true or false, not 1$/);
  await set.saveScenario("first");
  await set.settings.set("TTS", false);
  await set.saveScenario("second", await set.call("GET", "/api/scenarios/first"));
  await set.scenario("second");
  assert.equal(await set.settings.get("TTS"), true);
  await assert.rejects(set.call("PUT", "/api/store/memory/webapp", { value: [] }), { status: 400, code: "bad-value" });
  await assert.rejects(set.fault("no_such_call"), /vconf_get_int/);
  await set.fault("RegisterMessageHandler");
  const deaf = await set.openPage();
  assert.equal(await deaf.send({ command: "getVersion" }), undefined);
  await deaf.leave();
  await page.kill();
  await assert.rejects(page.post(write(1)), { status: 410 });
  await assert.rejects(set.page({ timeout: 50 }), /after 50 ms no page has opened/);
});

it("reports why a set does not start", async () => {
  await assert.rejects(startSet({ program: "/nowhere/mirado" }), /"\/nowhere\/mirado" did not start: .*ENOENT.*MIRADO/);
  await assert.rejects(startSet({ program: "false" }), /did not start: status 1/);
});

it("leaves no process and no file, also when many sets run at the same time", async (t) => {
  const all = () => [...readdirSync(folder), // a desk removes its folder last
    ...execFileSync("ps", ["-eo", "pid,args"], { encoding: "utf8" }).split("\n").filter((args) => args.includes(folder))];
  const before = all(); // including plug-ins that are still exiting
  const left = () => all().filter((one) => !before.includes(one));
  let started = 0;
  await Promise.all(Array.from({ length: 16 }, async () => {
    while (started < 100) {
      ++started;
      const one = await startSet({ timeout: 60_000 });
      const page = await one.openPage();
      assert.equal((await page.send({ command: "getVersion" })).value, "4.0");
      await one.stop();
    }
  }));
  assert.deepEqual(left(), []);
  const removals = watch(folder);
  t.after(() => removals.close());
  for (const how of ["", "process.exit();", ...["INT", "KILL"].map((name) => `process.kill(process.pid, "SIG${name}");`)]) {
    const { error } = spawnSync(process.execPath, ["--input-type=module", "--eval", `
      import { startSet } from ${JSON.stringify(new URL("../../npm/mirado-desk/index.js", import.meta.url))};
      await (await (await startSet()).openPage()).event("CAPTION", { timeout: 1 }).catch(() => {});
      ${how}`], { timeout: 30_000 });
    assert.ifError(error);
    while (readdirSync(folder).length > 1) await once(removals, "change", { signal: AbortSignal.timeout(300_000) });
    assert.deepEqual(left(), []);
  }
});

it("rejects pending waits when it is stopped", { timeout: 30_000 }, async () => {
  const one = await startSet({ timeout: 600_000 }); // the stop ends the waits, not the timeout
  const page = await one.openPage();
  const waiting = [page.event("CAPTION"), one.settings.becomes("CAPTION", 1), one.page({ url: "none" })];
  for (let turn = 0; turn < 5; ++turn) await one.settings.get("CAPTION"); // after this the waits are pending
  await Promise.all([one.stop(), ...waiting.map((wait) => assert.rejects(wait, /has been stopped/))]);
  await assert.rejects(one.describe(), /has been stopped/);
});
