// mirado-desk from a test's side, on real desks.
import assert from "node:assert/strict";
import { execFileSync, spawnSync } from "node:child_process";
import { mkdtempSync, readdirSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, beforeEach, it } from "node:test";
import { ended } from "../desk/desk.mjs";
import { startSet } from "../../npm/mirado-desk/index.js";

process.env.MIRADO ??= new URL("../../build/release/bin/mirado", import.meta.url).pathname;

// What this file's sets leave behind is what is left in here, or runs on it.
const folder = process.env.TMPDIR = mkdtempSync(join(tmpdir(), "mirado-npm-"));

let set;
before(async () => { set = await startSet(); });
after(async () => {
  await set.stop();
  rmSync(folder, { recursive: true });
});
beforeEach(() => set.reset());

const write = (value) => ({ command: "setMenuValue", propertyKey: 0, value });

it("sees what a page asks and is told, each message once, and waits for what comes", { timeout: 50_000 }, async () => {
  const older = await set.openPage();
  const page = await set.openPage({ title: "Bühne" });
  assert.equal((await set.pages()).at(-1), page);
  assert.equal((await set.page()).title, "Bühne");
  await older.leave();
  const forever = { timeout: 60_000 }; // what comes ends the wait, not the time
  const asked = page.asked("setMenuValue", { value: 2 }, forever);
  const told = page.event("CAPTION", forever);
  for (const propertyKey of [0, 1]) await page.send({ command: "registerVconfKeysForCaption", propertyKey });
  assert.deepEqual((await page.watching()).sort(), ["db/menu/caption/caption", "db/menu/caption/captionmode"]);
  await set.settings.set("CAPTION_MODE", 1);
  for (const value of [[], 1, 2]) await page.post(write(value));
  assert.deepEqual(await asked, write(2));
  assert.deepEqual(await page.asked("setMenuValue", { value: [] }), write([]));
  assert.deepEqual(await page.asked("setMenuValue"), write(1));
  assert.equal((await told).value, 0);
  assert.equal((await page.told({ command: "setMenuValue", code: 0 })).value, 1);
  await set.settings.becomes("CAPTION", 2, forever);
  await assert.rejects(page.asked("setMenuValue", {}, { timeout: 50 }),
    /50 ms the page has not asked setMenuValue. The last of it:\n(.*register.*\n)+(.*setMenu.*\n){2}.*"value":2}/);
  await assert.rejects(set.settings.becomes("CAPTION", 3, { timeout: 50 }), /it is 2/);
  await page.leave();
});

it("steers the set", async () => {
  const page = await set.openPage();
  const read = () => page.send({ command: "getMenuValue", propertyKey: 15 });
  await set.settings.set("TTS", true);
  assert.deepEqual([await set.settings.get("MENU_KEY_TTS"), (await read()).value], [true, 1]);
  await set.fault("vconf_get_bool", { path: "db/setting/accessibility/tts", times: 1 });
  assert.deepEqual([(await read()).code, (await read()).code], [9999, 0]);
  await set.fault("vconf_get_bool");
  await set.clearFaults();
  assert.equal((await read()).code, 0);
  assert.equal((await set.change({ pictureSize: 2 })).pictureSize, 2);
  assert.equal((await set.describe()).pictureSize, 2);

  await assert.rejects(set.settings.set("CAPTOIN", 1), /no setting CAPTOIN/);
  await assert.rejects(set.settings.set("CAPTION", "on"), { status: 409 });
  await assert.rejects(set.fault("no_such_call"), /vconf_get_int/);
  await set.fault("RegisterMessageHandler");
  const deaf = await set.openPage();
  assert.equal(await deaf.send({ command: "getVersion" }), undefined);
  await deaf.leave();
  await page.kill();
  await assert.rejects(page.post(write(1)), { status: 410 });
  await assert.rejects(set.page({ timeout: 50 }), /after 50 ms no page has opened/);
});

it("says why no set starts", async () => {
  await assert.rejects(startSet({ program: "/nowhere/mirado" }), /"\/nowhere\/mirado" did not start: .*ENOENT.*MIRADO/);
  await assert.rejects(startSet({ program: "false" }), /did not start: status 1/);
});

it("leaves nothing behind, also when many sets run at a time", async () => {
  const left = () => [readdirSync(folder),
    execFileSync("ps", ["-eo", "pid,args"], { encoding: "utf8" }).split("\n").filter((args) => args.includes(folder))];
  const before = left();
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
  assert.deepEqual(left(), before);
  const leave = (how) => spawnSync(process.execPath, ["--input-type=module", "--eval", `
    import { startSet } from ${JSON.stringify(new URL("../../npm/mirado-desk/index.js", import.meta.url))};
    await startSet();
    ${how}`]);
  leave("process.exit();");
  assert.deepEqual(left(), before);
  leave('process.kill(process.pid, "SIGKILL");');
  await Promise.all(left()[1].filter((line) => !before[1].includes(line)).map((line) => ended(parseInt(line))));
});
