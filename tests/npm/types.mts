// Compiled, never run: what a test may write, and what the types refuse.
import { startSet } from "mirado-desk";
import { test } from "mirado-desk/playwright";

test("typed", async ({ page, set }) => {
  const value: number | boolean | string | null = await set.settings.get("CAPTION");
  await set.settings.becomes("MENU_KEY_TTS", true, { timeout: 1 });
  await using other = await startSet({ timeout: 1 });
  const seen = await other.page();
  await page.goto(set.url + seen.id);
  await set.fault("GetItemDataList", { path: "primary-audio-language" });
  (await set.change({ b2b: false, latency: { getVersion: 5 } })).pictureSize satisfies number | null;
  (await seen.asked("setMenuValue", { value: 1 })).command satisfies string;
  (await seen.told({ command: "setMenuValue", code: 0 })).errorName satisfies string;
  (await seen.event("db/menu/caption/caption")).value satisfies number;
  (await seen.send({ command: "getVersion" }))?.value satisfies number | boolean | string | null | undefined;
  (await seen.dialogue())[0]!.kind satisfies "send" | "post" | "reply" | "message" | "crash";
  await seen.verify(["getVersion", { command: "getMenuValue" }], { order: false, times: 2 });
  const { version } = await set.call<{ version: string }>("GET", "/api/desk");

  // @ts-expect-error: no such call
  set.unknown();
  // @ts-expect-error: no such setting
  set.settings.get("CAPTOIN");
  // @ts-expect-error: a setting is a number or true or false
  set.settings.set("CAPTION", "on");
  // @ts-expect-error: the platform has no such call
  set.fault("vconf_get_text");
  // @ts-expect-error: the plug-in has no such command
  seen.asked("setMenu");
  // @ts-expect-error: what waits is no option of a fault
  set.fault("vconf_get_int", { timeout: 1 });
  // @ts-expect-error: there may be no reply
  (await seen.send({ command: "getVersion" })).value;
  // @ts-expect-error: a code is none of a reply's
  seen.told({ code: 7 });
  // @ts-expect-error: the interface has no such method
  set.call("LIST", "/api/desk");
  // @ts-expect-error: the type of an answer is the caller's to say
  (await set.call("GET", "/api/desk")).version;
  // @ts-expect-error: no such command
  set.change({ latency: { getVersions: 5 } });
});
