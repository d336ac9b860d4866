// The desk's page in Chromium: what its user sees and can do.
import assert from "node:assert/strict";
import { once } from "node:events";
import { readFile } from "node:fs/promises";
import { createServer } from "node:http";
import { join } from "node:path";
import { describe, it } from "node:test";
import { setTimeout as sleep } from "node:timers/promises";
import { answer, CAPTION, openConsole, openDesk, rowWith, sendCommand, valueOf } from "./desk-page.mjs";
import { MortalDesk, startAt, TIMEOUT, useDesk } from "./harness.mjs";

const { desk, newPage, openPage, startDesk } = await useDesk();

async function openedDesk(of = desk) {
  const page = await newPage();
  await openDesk(page, of.url);
  return page;
}

async function withConsole(of = desk) {
  const page = await openedDesk(of);
  await openConsole(page);
  return page;
}

const getVersion = { send: { command: "getVersion" } };
const tab = (page, name) => page.getByRole("tab", { name });
const button = (page, name) => page.getByRole("button", { name, exact: true });
const disabled = (part) => part.and(part.page().locator(":disabled")).waitFor(); // updated in the next frame
const banner = (page, text) => page.getByRole("alert").filter({ hasText: text });
const rowTexts = (page) => rowWith(page, "").allInnerTexts();
const settles = async (read, wanted) => {
  for (const started = Date.now(); Date.now() < started + TIMEOUT; await sleep(50)) if (await read() === wanted) return;
  assert.equal(await read(), wanted);
};
const storeOf = async (path) => (await desk.request("GET", `/api/store/${encodeURIComponent(path)}`)).json.value;

// Runs in the page: delays the desk's events, so that there is this much time between them.
function spaceEvents(milliseconds) {
  let last = Promise.resolve();
  globalThis.WebSocket = class extends WebSocket {
    set onmessage(receive) {
      this.addEventListener("message", (event) => {
        last = last.then(() => new Promise((resolve) => setTimeout(resolve, milliseconds))).then(() => receive(event));
      });
    }
  };
}

// Not a port that is free at the moment: an outgoing connection, such as the browser's, could take it first.
const startSomewhere = () => startAt(() => 20_000 + Math.floor(Math.random() * 10_000), startDesk);

describe("the desk's page", () => {
  it("leads from an empty desk to a page that receives an event", async () => {
    const page = await openedDesk();
    await page.context().grantPermissions(["clipboard-read", "clipboard-write"]);
    await page.getByText("Waiting for your page").waitFor();
    await button(page, "Copy the script tag").click();
    await settles(() => page.evaluate(() => navigator.clipboard.readText()), `<script src="${desk.url}/desk.js"></script>`);
    for (const address of ["/mirado.js", "/mirado.classic.js", "/example/"]) {
      assert.equal((await desk.request("GET", address)).status, 200, address);
    }

    const [download] = await Promise.all([page.waitForEvent("download"), button(page, "Save hello.html").click()]);
    const body = await readFile(await download.path(), "utf8");
    const server = createServer((_, response) => response.setHeader("Content-Type", "text/html").end(body)).listen(0, "127.0.0.1").unref();
    await once(server, "listening");
    const own = await openPage(`http://localhost:${server.address().port}/hello.html`);
    await tab(page, /^#\d+ My page/).and(page.locator("[aria-selected=true]")).waitFor();
    await valueOf(page, "Caption, Caption").press("ArrowUp");
    await own.getByText("Caption is 1").waitFor();
    await rowWith(page, "CAPTION changed").waitFor();

    await desk.openPage({ title: "Other" }); // so that the reloaded page is not chosen for being the only one
    await own.reload(); // the chosen page stays chosen
    await rowWith(page, "CAPTION changed").waitFor({ state: "detached" });
    await tab(page, /^#\d+ My page$/).and(page.locator("[aria-selected=true]")).waitFor();
    await tab(page, /^#\d+ My page \(ended\)/).click();
    await rowWith(page, /CAPTION changed.*now 1/).waitFor();
    await tab(page, /^#\d+ My page$/).click();
    await rowWith(page, "CAPTION changed").waitFor({ state: "detached" });
    await rowWith(page, /getMenuValue CAPTION.*1/).waitFor();

    await button(page, "Kill …").click();
    await answer(page, "Kill it");
    const crash = banner(page, /My page was killed.*connected again, as #\d+/);
    await crash.getByText(/Sending|RegisterMessageHandler|registerVconf/).first().waitFor();
    await rowWith(page, "signal 9").waitFor({ state: "detached" });
    await crash.getByRole("button", { name: /^Show #/ }).click();
    await rowWith(page, "signal 9").waitFor();
    await disabled(button(page, "Send"));
    await crash.getByRole("button", { name: /^Show #/ }).waitFor();
    await button(page, "Dismiss").click();
    await button(page, "Close").click();
    await tab(page, /My page ✕ killed/).waitFor({ state: "detached" });
    server.close();
    server.closeAllConnections();
  });

  it("shows, sends to, records and kills the page whose tab is chosen", async () => {
    const [one, two] = [await desk.openPage({ title: "One" }), await desk.openPage({ title: "Two" })];
    await desk.send(one, getVersion);
    await desk.send(two, { send: { command: "isTVSPicSizeResized" } });
    const page = await openedDesk();
    await tab(page, /^All/).and(page.locator("[aria-selected=true]")).waitFor();
    await rowWith(page, "getVersion").waitFor();
    await rowWith(page, "isTVSPicSizeResized").waitFor();
    await disabled(button(page, "Send")); // there is no plug-in to send to
    await page.getByText("Choose a page or a console to send messages to its plug-in").waitFor();
    await page.getByText("Make it fail").waitFor({ state: "hidden" });

    // A late answer to a request for another page is not shown.
    const held = new Map(); // by page
    await page.route("**/dialogue", (route) => { held.set(route.request().url().split("/").at(-2), route); });
    await tab(page, / One/).click();
    await rowWith(page, "").first().waitFor({ state: "detached" }); // nor are another page's rows
    await tab(page, / Two/).click();
    await settles(() => held.size, 2);
    await desk.send(two, { send: { command: "getMenuValue", propertyKey: 20 } }); // in the answer, and also an event
    await held.get(two.id).continue();
    await rowWith(page, "isTVSPicSizeResized").waitFor();
    await Promise.all([page.waitForResponse(`**/${one.id}/dialogue`).then((response) => response.finished()), held.get(one.id).continue()]);
    await page.unroute("**/dialogue");
    await desk.send(two, { send: { command: "getMenuValue", propertyKey: 0 } }); // a later entry is shown
    await rowWith(page, "getMenuValue CAPTION").waitFor();
    assert.equal(await rowWith(page, "getVersion").count(), 0);
    assert.equal(await rowWith(page, "VOICE_GUIDE_SPEED").count(), 1);
    await button(page, "Record").click();
    await page.locator("#stop:focus").waitFor();
    await sendCommand(page, "registerVconfKeysForCaption", { key: 0 }); // the watch button shows this subscription too
    const watch = page.getByRole("button", { name: /^Watch Caption, Caption; watched by 1 page/ });
    await watch.and(page.locator("[aria-pressed=true]")).waitFor();
    assert.deepEqual((await desk.call("GET", `/api/pages/${two.id}`)).watches, [CAPTION]);
    assert.deepEqual((await desk.call("GET", `/api/pages/${one.id}`)).watches, []);
    for (const value of ["1", "0"]) await desk.mirado("set", CAPTION, value);
    await rowWith(page, /CAPTION changed.*now 0/).first().waitFor();
    await tab(page, / One/).click();
    await watch.and(page.locator("[aria-pressed=false]")).click();
    await page.getByRole("button", { name: /^Watch Caption, Caption; watched by 2 pages/ }).click();
    await watch.and(page.locator("[aria-pressed=false]")).waitFor();
    await tab(page, / Two/).click();
    await button(page, "Stop").click();
    const [download] = await Promise.all([page.waitForEvent("download"), button(page, "Download").click()]);
    assert.match(await readFile(await download.path(), "utf8"), /registerVconfKeysForCaption/);
    await button(page, "Record").waitFor();
    await watch.click();
    await page.getByRole("button", { name: /^Watch Caption, Caption; watched by 0 pages/ }).waitFor();

    await button(page, "Kill …").click();
    await answer(page, "Cancel");
    await button(page, "Kill …").click();
    await answer(page, "Kill it");
    await banner(page, /Two was killed/).waitFor();
    await rowWith(page, "signal 9").waitFor();
    for (const name of ["Send", "Record"]) await disabled(button(page, name));
    await tab(page, / One/).click();
    await button(page, "Dismiss").click(); // what happened is told until somebody has read it
    await banner(page, /Two was killed/).waitFor({ state: "detached" });
    assert.equal((await desk.call("GET", `/api/pages/${one.id}`)).state, "running");
    for (const { id } of [two, one]) await desk.call("DELETE", `/api/pages/${id}`);
    await tab(page, "All").and(page.locator("[aria-selected=true]")).waitFor();
  });

  it("shows a request and its reply in one row, filters, and shows the JSON of both", async () => {
    const page = await withConsole();
    await sendCommand(page, "getMenuValue", { key: 0 });
    const row = rowWith(page, /getMenuValue CAPTION.*0.*ms/);
    await row.waitFor();
    await sendCommand(page, "getMenuValue", { key: 14 });
    await rowWith(page, "9 key is not supported").waitFor();
    assert.equal((await rowTexts(page)).length, 2);
    await row.getByRole("button").click();
    await row.getByText('"errorName": ""').waitFor();

    await page.getByLabel("Failures").check();
    await row.waitFor({ state: "detached" });
    await page.getByLabel("Failures").uncheck();
    await page.getByRole("combobox", { name: "Setting", exact: true }).selectOption("CAPTION");
    await rowWith(page, "APPS_TICKER").waitFor({ state: "detached" });
    await page.getByRole("combobox", { name: "Kind", exact: true }).selectOption("Events");
    await page.locator("#talk").getByText("No entry matches the filters").waitFor();
  });

  it("follows the end of the dialogue unless it is scrolled up, also when the panel changes its size", async () => {
    const page = await withConsole();
    const { id } = (await desk.call("GET", "/api/pages")).pages.at(-1);
    const post = (command) => desk.send({ id }, { post: { command } });
    const fill = (count) => desk.send({ id }, Array.from({ length: count }, () => ({ post: { command: "getVersion" } })));
    const list = page.getByRole("region", { name: "Messages" });
    const newestRow = list.getByRole("listitem").last();
    const isWhole = () => newestRow.evaluate((it) => it.getBoundingClientRect().bottom <= it.closest(".scroll").getBoundingClientRect().bottom);
    await fill(149);
    await post("isTVSPicSizeResized");
    await rowWith(page, "isTVSPicSizeResized").waitFor(); // the last, so all have been received
    assert(await list.getByRole("listitem").count() < 60, "no more rows than a panel shows, and some");
    await page.setViewportSize({ width: 1280, height: 560 });
    await settles(isWhole, true);

    await list.evaluate((it) => { it.scrollTop -= 300; });
    const newest = button(page, "↓ Newest");
    await newest.waitFor();
    assert.equal(await list.getByRole("listitem").count(), 150);
    await fill(7);
    await button(page, "↓ Newest (7)").click();
    await settles(isWhole, true);
    assert.equal(await page.getByRole("button", { name: /Newest/ }).count(), 0);
  });

  it("composes every command, keeps a history, and makes a command fail", async () => {
    const page = await withConsole();
    const message = page.getByRole("textbox", { name: /^Message as JSON/ });
    const commands = (await desk.call("GET", "/api/catalog")).commands.map(({ name }) => name);
    for (const command of commands) {
      await sendCommand(page, command);
      await rowWith(page, `${command} `).or(rowWith(page, command)).filter({ hasText: /gives/ }).first().waitFor();
    }
    assert.equal(await page.locator("#dialogue .failed").count(), 0, "each command is sent as the plug-in takes it");
    await message.fill("a draft");
    await message.press("ArrowUp");
    await message.press("ArrowUp");
    assert.equal(JSON.parse(await message.inputValue()).command, commands.at(-2));
    await message.press("ArrowDown");
    await message.press("ArrowDown");
    assert.equal(await message.inputValue(), "a draft");

    await message.fill("{command}");
    await message.press("Enter");
    await page.getByText("The message is not JSON").waitFor();
    await page.getByText("Make it fail", { exact: true }).click();
    await page.getByRole("combobox", { name: "Command", exact: true }).first().selectOption("getMenuValue");
    const failure = page.getByRole("button", { name: /Reading CAPTION fails, once/ });
    await failure.click();
    await failure.and(page.locator("[aria-pressed=true]")).waitFor();
    await sendCommand(page, "getMenuValue", { key: 0 });
    await rowWith(page, "9999 getMenuValue is failed").waitFor();
    await page.getByRole("region", { name: "Log lines" }).getByText("Fail to get the vconf value").waitFor();
    await failure.and(page.locator("[aria-pressed=false]")).waitFor();
  });

  it("edits values exactly, and changes no other key", async () => {
    const page = await openedDesk();
    const field = valueOf(page, "Caption, Caption");
    await field.fill("many"); // and another program writes first
    await desk.mirado("set", CAPTION, "2");
    await desk.mirado("set", "db/setting/accessibility/tts", "true");
    await page.getByRole("switch", { name: "Text to speech, Accessibility", checked: true }).waitFor();
    assert.equal(await field.inputValue(), "many");
    await page.keyboard.press("Enter");
    await page.getByText("A whole number is needed, such as 1").waitFor();
    await page.keyboard.press("Escape");
    assert.equal(await field.inputValue(), "2");
    await desk.mirado("set", CAPTION, "1");
    await settles(() => field.inputValue(), "1");
    const more = page.getByRole("listitem").filter({ has: field }).locator(".more");
    await settles(() => more.getAttribute("aria-disabled"), "true"); // On is the last value with a meaning
    await field.press("ArrowDown");
    await settles(() => storeOf(CAPTION), 0);
    await settles(() => more.getAttribute("aria-disabled"), "false");
    const long = valueOf(page, "Caption mode, Caption");
    await long.fill("2147483648");
    await long.press("Enter");
    await page.getByText("The number must be from").waitFor();
    await long.blur(); // what is wrong is not kept
    assert.equal(await long.inputValue(), "0");
    await long.fill("-2147483648");
    await long.press("Enter");
    await settles(() => storeOf("db/menu/caption/captionmode"), -2147483648);
    await settles(() => long.evaluate((it) => it.scrollWidth <= it.clientWidth), true);

    const odd = "memory/a?b#c/../%2e&d";
    const form = page.getByRole("form", { name: "Add a key" });
    await form.getByLabel("Path").fill(odd);
    await form.getByLabel("Type").selectOption("text");
    await form.getByRole("button").click();
    const text = page.getByRole("textbox", { name: odd });
    await text.waitFor();
    assert.equal(await storeOf(odd), "", "an empty text is a text");
    await text.fill("  two\n lines ");
    await text.press("Enter");
    await settles(() => storeOf(odd), "  two\n lines ");
    await page.getByRole("searchbox", { name: "Find a setting" }).fill("C/../");
    await button(page, odd).click();
    await button(page, "Remove key …").click();
    await answer(page, "Remove it");
    await text.waitFor({ state: "detached" });
    assert.equal((await desk.request("GET", `/api/store/${encodeURIComponent(odd)}`)).status, 404);

    const find = page.getByRole("searchbox", { name: "Find a setting" });
    for (const [words, label] of [["font color", "Text colour, Digital caption"], ["20", "Voice guide speed, Accessibility"],
      ["voiceguide/sp", "Voice guide speed, Accessibility"]]) {
      await find.fill(words);
      await valueOf(page, label).waitFor();
      assert.equal(await page.getByRole("region", { name: "Settings" }).getByRole("spinbutton").count(), 1, words);
    }
    await find.fill("yellow");
    await button(page, "Text colour").click();
    await button(page, "6 Yellow").click();
    const colour = valueOf(page, "Text colour, Digital caption");
    await settles(() => colour.inputValue(), "6");
    await colour.press("ArrowDown");
    await settles(() => colour.inputValue(), "5");
    await find.fill("secondary");
    const language = valueOf(page, "Secondary language, Audio");
    await desk.call("PATCH", "/api/set", { lists: { "secondary-audio-language": [{ value: 2, label: "French" }, { value: 40, label: "Sami" }] } });
    await settles(async () => (await page.getByLabel("Secondary", { exact: true }).inputValue()).includes("Sami"), true);
    await language.press("ArrowUp"); // to the next value of the list
    await settles(() => language.getAttribute("aria-valuetext"), "40, Sami");
  });

  it("describes the set in words, changes it, and saves and restores it under a name", async () => {
    const page = await openedDesk();
    const form = page.getByRole("form", { name: "Add a fault" });
    await form.getByLabel("What fails").selectOption("Reading any number");
    await form.getByLabel("Which one").fill("caption");
    await form.getByRole("button").click();
    await page.getByRole("list", { name: "Faults" }).getByText("Reading CAPTION fails, once").waitFor();
    await form.getByLabel("Which one").fill("db/none");
    await form.getByRole("button").click();
    await page.getByText("Reading db/none fails, once. The set has nothing of that name").waitFor();
    await page.getByLabel("Picture size", { exact: true }).fill("");
    await page.getByLabel("Picture size", { exact: true }).blur();
    await page.getByText("The picture size is a whole number").waitFor();
    await page.getByLabel("B2B product").selectOption("no");
    await settles(async () => (await desk.call("GET", "/api/set")).b2b, false);
    const scenario = page.getByRole("form", { name: "Save a scenario" });
    await scenario.getByLabel("Name").fill("no b2b");
    await scenario.getByRole("button").click();
    await page.getByText("and no spaces").waitFor();
    await scenario.getByLabel("Name").fill("no-b2b");
    await scenario.getByRole("button").click();
    await button(page, "Load no-b2b").waitFor();
    assert.equal(await page.getByLabel("Picture size", { exact: true }).inputValue(), "", "what is wrong stays to be corrected");

    await button(page, "Reset …").click();
    await answer(page, "Reset the set");
    await settles(() => page.getByLabel("B2B product").inputValue(), "true");
    assert.equal((await desk.call("GET", "/api/faults")).faults.length, 0);
    await button(page, "Load no-b2b").click();
    await answer(page, "Load it");
    await settles(() => page.getByLabel("B2B product").inputValue(), "false");
    await page.getByRole("list", { name: "Faults" }).getByText("Reading CAPTION fails, once").waitFor();
    assert.equal((await desk.call("GET", "/api/set")).pictureSize, 0);
    await button(page, "Delete no-b2b").click();
    await answer(page, "Delete it");
    await button(page, "Load no-b2b").waitFor({ state: "detached" });
  });

  it("reports once that its desk has ended, disables what cannot work, and shows the next desk", async () => {
    const first = await startSomewhere();
    const page = await withConsole(first);
    await openConsole(page);
    await first.mirado("set", CAPTION, "3");
    await settles(() => valueOf(page, "Caption, Caption").inputValue(), "3");
    await first.stop("SIGKILL");
    await banner(page, "The desk does not answer").waitFor();
    assert.equal(await page.getByText("does not answer").count(), 1);
    for (const part of [button(page, "Reset …"), button(page, "Send"), valueOf(page, "Caption, Caption")]) await disabled(part);
    await startAt(() => first.port, startDesk);
    await banner(page, "The desk does not answer").waitFor({ state: "detached" });
    await settles(() => valueOf(page, "Caption, Caption").inputValue(), "0");
    await tab(page, /^#\d+ Console$/).nth(1).waitFor(); // both
    await sendCommand(page, "getVersion");
    await rowWith(page, /getVersion.*"4.0"/).waitFor();
  });

  it("keeps what one reads when the desk ends, until the page is loaded anew", async () => {
    const first = await startSomewhere();
    const selected = (page, name) => tab(page, name).and(page.locator("[aria-selected=true]")).waitFor();
    await first.send(await first.openPage({ title: "Read" }), getVersion);
    const page = await withConsole(first);
    await first.send(await first.openPage({ title: "Other" }), getVersion);
    await tab(page, / Read$/).click();
    await rowWith(page, "getVersion").waitFor();
    await first.stop("SIGINT");
    await banner(page, /does not answer.*temporary and end with it/s).waitFor();
    await selected(page, / Read \(ended\)$/);
    for (const [name, says] of [[/^All/, /^Not read before the desk ended: the messages of (.*, )?#\d+ Other\.$/],
      [/ Other \(ended\)$/, "These messages were not read before the desk ended."]]) {
      await tab(page, name).click();
      await page.locator("#talk").getByText(says).waitFor();
    }
    await tab(page, / Read \(ended\)$/).click();
    await rowWith(page, "getVersion").waitFor();
    const next = await startAt(() => first.port, startDesk);
    await tab(page, /^#\d+ Console$/).waitFor(); // it comes back by itself, and nobody looks at it
    await selected(page, / Read \(ended\)$/);
    await rowWith(page, "getVersion").waitFor();
    await next.openPage({ title: "Read" });
    await selected(page, / Read$/);
    await rowWith(page, "getVersion").waitFor({ state: "detached" });
  });

  it("reports a crash with the last log lines, and starts again without losing the keyboard", async () => {
    for (const milliseconds of [0, 50]) { // the old page's end and the new one's beginning are seen together, and apart
      const page = await newPage();
      await page.addInitScript(spaceEvents, milliseconds);
      await openDesk(page, desk.url);
      await openConsole(page);
      await sendCommand(page, "getVersion");
      await rowWith(page, /getVersion.*"4.0"/).waitFor(); // so the log contains the lines of the start
      const { id } = (await desk.call("GET", "/api/pages")).pages.at(-1);
      await desk.call("POST", `/api/pages/${id}/kill`);
      const crash = banner(page, /Console was killed/);
      await crash.getByText(/RegisterMessageHandler success/).waitFor();
      await crash.getByRole("button", { name: "Start again" }).press("Enter");
      await page.locator("#message:focus").waitFor();
      await page.keyboard.press("Enter");
      await rowWith(page, /getVersion.*"4.0"/).waitFor();
      assert.equal(await crash.count(), 0);
      await page.close();
    }
  });

  it("replaces a damaged store and keeps its files", async () => {
    const mortal = await MortalDesk.start();
    try {
      await mortal.damage();
      const page = await openedDesk(mortal);
      await banner(page, "The store is damaged").waitFor();
      await page.getByText("unknown").first().waitFor();
      await page.getByText("Unknown, because the store cannot be read").waitFor();
      await page.getByLabel("B2B product").waitFor({ state: "hidden" });
      await button(page, "Replace the store …").press("Enter");
      await answer(page, "Cancel");
      await page.locator("#banner button:focus").press("Enter");
      await answer(page, "Replace the store");
      await banner(page, "The store was replaced").waitFor();
      await settles(() => valueOf(page, "Caption, Caption").inputValue(), "0");
      const [, folder] = /The old files are in (.*)\.$/m.exec(await page.getByRole("alert").first().innerText());
      assert.match(await readFile(join(folder, "keys.db"), "utf8"), /^no database/);
    } finally {
      await mortal.stop();
    }
  });

  it("takes the token from its link, keeps the chosen page after a reload, and requests a missing token", async () => {
    const locked = await startDesk("--token");
    for (const title of ["One", "Two", "Three"]) await locked.call("POST", `/api/pages?token=${locked.token}`, { grace: 3600, title });
    const page = await openedDesk({ url: `${locked.url}/?token=${locked.token}` });
    assert.equal(page.url(), `${locked.url}/`);
    await button(page, "Connect a page").click();
    await tab(page, / Two/).click();
    await tab(page, / Two/).and(page.locator("[aria-selected=true]")).waitFor();
    await button(page, "Kill …").waitFor();
    await page.reload();
    await tab(page, / Two/).and(page.locator("[aria-selected=true]")).waitFor();
    assert.match((await page.getByRole("tablist", { name: "Pages" }).innerText()).replace(/\s+/g, " "), /^All \(3\) #\d+ One #\d+ Two #\d+ Three$/);

    const stranger = await newPage();
    await stranger.goto(locked.url);
    await banner(stranger, "This desk asks for its token").waitFor();
    await disabled(button(stranger, "Reset …"));
    await locked.stop("SIGKILL");
    await banner(page, /does not answer.*mirado desk --port \d+ --temporary --token/s).waitFor();
  });

  it("reports that no more pages can be opened, and closes one", async () => {
    const full = await startDesk();
    const { limit } = (await full.call("GET", "/api/desk")).pages;
    await Promise.all(Array.from({ length: limit }, (_, at) => full.openPage({ title: `Page ${at}` })));
    const page = await openedDesk(full);
    await banner(page, `${limit} pages are open`).waitFor();
    await page.getByRole("combobox", { name: "Choose a page" }).selectOption({ index: limit });
    const last = tab(page, new RegExp(`^#${limit} `)).and(page.locator("[aria-selected=true]"));
    await settles(() => last.evaluate((it) => it.getBoundingClientRect().right <= innerWidth), true);
    await page.getByRole("button", { name: /^Close #/ }).click();
    await answer(page, "Close it");
    await banner(page, `${limit} pages are open`).waitFor({ state: "detached" });
  });

  it("shows one set in two windows", async () => {
    const [first, second] = [await newPage(), await newPage()];
    await second.addInitScript(spaceEvents, 50);
    await openDesk(second, desk.url);
    await first.route("**/api/store", async (route) => {
      const response = await route.fetch();
      await desk.mirado("set", CAPTION, "1"); // after the answer was made
      await settles(() => valueOf(second, "Caption, Caption").inputValue(), "1");
      await route.fulfill({ response });
    }, { times: 1 });
    await openDesk(first, desk.url);
    await settles(() => valueOf(first, "Caption, Caption").inputValue(), "1");
    for (let steps = 0; steps < 6; ++steps) await valueOf(second, "Caption mode, Caption").press("ArrowUp"); // faster than they are confirmed
    await settles(() => valueOf(first, "Caption mode, Caption").inputValue(), "6");
    await first.getByRole("switch", { name: "Text to speech, Accessibility" }).check();
    await second.getByRole("switch", { name: "Text to speech, Accessibility", checked: true }).waitFor();
    await second.getByRole("switch", { name: "The set has a video control" }).uncheck();
    await settles(() => first.getByLabel("Picture size", { exact: true }).isDisabled(), true);
  });
});
