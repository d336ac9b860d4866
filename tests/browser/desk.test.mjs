// The desk's own page.
import assert from "node:assert/strict";
import { describe, it } from "node:test";
import { Desk } from "../desk/desk.mjs";
import { useDesk } from "./harness.mjs";

const CAPTION = "db/menu/caption/caption";

const { desk, openPage } = await useDesk();

async function openDesk(of = desk) {
  const page = await openPage(of.url);
  await page.getByText("Plug-in 4.0").waitFor();
  return page;
}

const settingOf = (page, name) => page.getByLabel(`Value of ${name}`, { exact: true });
const settingIs = async (page, name, value) => {
  const element = await settingOf(page, name).elementHandle();
  await page.waitForFunction(([field, wanted]) => field.value === wanted, [element, value]);
};
const spoken = (page, text) => page.getByRole("log", { name: "Dialogue" }).getByText(text).last().waitFor();

// Fills the console's form in and sends or posts what it made of it.
async function say(page, button, command, { key, value } = {}) {
  const form = page.getByRole("form", { name: "Message to the plug-in" });
  const field = (name) => form.getByRole("combobox", { name, exact: true });
  await field("Command").selectOption(command);
  if (key !== undefined) await field("Key").selectOption(String(key));
  if (value !== undefined) await field("Value").fill(String(value));
  await form.getByRole("button", { name: button, exact: true }).click();
}

// Starts a desk on the port that `choose` names, again while somebody else has that port.
async function startAt(choose) {
  for (let tries = 1; ; ++tries) {
    try {
      return await Desk.start("--port", choose());
    } catch (error) {
      if (error.status !== 3 || tries === 100) throw error;
    }
  }
}

describe("the desk's page", () => {
  it("reads through the plug-in, and edits settings in place", async () => {
    const page = await openDesk();
    await say(page, "Send", "getMenuValue", { key: 20 });
    await spoken(page, '"value":"NORMAL"');

    const field = settingOf(page, "MENU_KEY_CAPTION");
    const events = await desk.follow("/api/events");
    await field.fill("1");
    await page.keyboard.press("Enter");
    assert.equal((await events.next("setting")).data.value, 1);
    assert.equal(await desk.mirado("get", CAPTION), "1");

    await field.fill("many"); // and somebody else is faster
    await desk.mirado("set", CAPTION, "2");
    await desk.mirado("set", "db/setting/accessibility/tts", "true");
    await settingIs(page, "MENU_KEY_TTS", "true");
    assert.equal(await field.inputValue(), "many");
    assert.equal((await events.next("setting")).data.value, 2, "the first value was written once");
    events.close();
    await page.keyboard.press("Enter");
    await page.getByRole("alert").filter({ hasText: "whole number" }).waitFor();
    await settingIs(page, "MENU_KEY_CAPTION", "2");
  });

  it("offers every command with fields that the plug-in takes, and copies what was said", async () => {
    const page = await openDesk();
    await page.context().grantPermissions(["clipboard-read", "clipboard-write"]);
    await spoken(page, "✓ 0");
    await page.getByRole("button", { name: "Clear", exact: true }).first().click();
    const commands = await page.getByRole("combobox", { name: "Command", exact: true }).first().locator("option")
      .allTextContents();
    assert.equal(commands.length, 11);
    const codes = page.getByRole("log", { name: "Dialogue" }).getByText(/^[✓✕] \d+$/);
    for (const [done, command] of commands.entries()) {
      await say(page, command === "setMenuValue" ? "Post" : "Send", command);
      assert.equal(await codes.nth(done).textContent(), "✓ 0", command);
    }
    await Promise.all([
      page.getByRole("button", { name: "Copied" }).waitFor(), // stands for a second and a half
      page.getByRole("button", { name: "Copy", exact: true }).click(),
    ]);
    const copied = await page.evaluate(() => navigator.clipboard.readText());
    assert.equal(copied.trim().split("\n").length, 2 * commands.length);
  });

  it("watches through the plug-in, says by whom a setting is watched, and shows a change by anyone", async () => {
    const page = await openDesk();
    const row = page.getByRole("row").filter({ has: settingOf(page, "MENU_KEY_CAPTION") });
    const watch = row.getByRole("button", { name: "Watch MENU_KEY_CAPTION from the console" });
    await watch.click();
    await row.getByLabel(/^page \d+$/).waitFor();

    await desk.mirado("set", CAPTION, "2");
    await settingIs(page, "MENU_KEY_CAPTION", "2");
    await row.and(page.locator(".changed")).waitFor();
    await spoken(page, '"event":"MIRADO_EVENT_CAPTION_CHANGED"');

    await watch.click();
    await row.getByLabel(/^page \d+$/).waitFor({ state: "detached" });
  });

  it("writes through the plug-in, and shows each refusal with its code", async () => {
    const page = await openDesk();
    await say(page, "Post", "setMenuValue", { key: 0, value: 1 });
    await spoken(page, "✓ 0");
    await settingIs(page, "MENU_KEY_CAPTION", "1");

    await page.getByLabel("B2B product").selectOption("no");
    await page.waitForFunction(async () => (await (await fetch("/api/set")).json()).b2b === false);
    await say(page, "Post", "setMenuValue", { key: 0, value: 2 });
    await spoken(page, "✕ 9");
    await settingIs(page, "MENU_KEY_CAPTION", "1");
  });

  it("provokes a failure, shows it with its log line, and takes it back", async () => {
    const page = await openDesk();
    const form = page.getByRole("form", { name: "Add a fault" });
    await form.getByLabel("Call").selectOption("vconf_get_int");
    await form.getByRole("button").click();
    const clear = page.getByRole("list", { name: "Faults" }).getByRole("button");
    await clear.waitFor();

    await say(page, "Send", "getMenuValue", { key: 0 });
    await spoken(page, "getMenuValue is failed");
    await spoken(page, "✕ 9999");
    await page.getByRole("log", { name: "Log lines" }).getByText("Fail to get the vconf value").waitFor();

    await clear.click();
    await clear.waitFor({ state: "detached" });
    await say(page, "Send", "getMenuValue", { key: 0 });
    await spoken(page, "✓ 0");
  });

  it("survives the crash of its plug-in, and starts another", async () => {
    const page = await openDesk();
    await page.getByRole("button", { name: "Kill" }).click();
    await page.getByRole("alert").filter({ hasText: "✕" }).waitFor();
    await spoken(page, "signal 9");
    await page.getByRole("button", { name: "Start again" }).click();
    await page.getByText("Plug-in 4.0").waitFor();
    await say(page, "Send", "getMenuValue", { key: 20 });
    await spoken(page, '"value":"NORMAL"');
  });

  it("says that its desk has ended", async () => {
    const mortal = await Desk.start();
    const page = await openDesk(mortal);
    await mortal.stop();
    await page.getByRole("alert").filter({ hasText: "the desk has ended" }).waitFor();
    await page.getByText("Plug-in gone").waitFor();
    await page.close();
  });

  it("says that its desk is gone, and shows the set of the next one", async () => {
    // Not one that is free at the moment: an outgoing connection, such as the browser's, could get it in between.
    const first = await startAt(() => 20_000 + Math.floor(Math.random() * 10_000));
    const page = await openDesk(first);
    await first.mirado("set", CAPTION, "3");
    await settingIs(page, "MENU_KEY_CAPTION", "3");
    await first.stop("SIGKILL");
    await page.getByRole("alert").filter({ hasText: "the desk does not answer any more" }).waitFor();
    const second = await startAt(() => first.port);
    for (let events = 0; events < 20; ++events) await second.call("POST", "/api/reset"); // as many as the first had
    await settingIs(page, "MENU_KEY_CAPTION", "0");
    await page.getByRole("button", { name: "Start again" }).click();
    await page.getByText("Plug-in 4.0").waitFor();
    await second.stop();
  });

  it("shows one set in two windows, and after a reload", async () => {
    const [first, second] = [await openDesk(), await openDesk()];
    await settingOf(first, "MENU_KEY_TTS").selectOption("true");
    await settingIs(second, "MENU_KEY_TTS", "true");
    await second.getByLabel("Video control").uncheck();
    await first.waitForFunction(() => document.getElementById("picture-size").disabled);

    await first.reload();
    await settingIs(first, "MENU_KEY_TTS", "true");
    await second.getByRole("button", { name: "Reset the set" }).click();
    await settingIs(first, "MENU_KEY_TTS", "false");
  });
});
