// Pages in Chromium that use the plug-in through a desk: the example application, and pages of several origins.
import assert from "node:assert/strict";
import { describe, it } from "node:test";
import { startSet } from "../../npm/mirado-desk/index.js";
import { useDesk } from "./harness.mjs";

const CAPTION = "db/menu/caption/caption";
const SIZE = "db/menu/caption/digitalcaptionoptions/size";

const { desk, app, openPage, startDesk } = await useDesk();

const openApp = (shows) => openPage(app.url, shows);

const rowShows = (page, name, value) =>
  page.getByRole("button", { name: new RegExp(`^${name}\\b.*\\b${value}\\b`) }).waitFor();
const caption = (page, state) => page.locator("#caption").waitFor({ state });
const notice = (page, text) => page.getByRole("status").filter({ hasText: text }).waitFor(); // visible for six seconds
const pages = async () => (await desk.call("GET", "/api/pages")).pages;
const newestPage = async () => (await pages()).at(-1);

describe("the example application", () => {
  it("switches its captions as another process changes the settings", async () => {
    const page = await openApp();
    await rowShows(page, "Captions", "Off");
    await caption(page, "hidden");

    await desk.mirado("set", CAPTION, "1");
    await caption(page, "visible");
    const text = page.locator("#caption .text");
    const heightOf = async () => parseFloat(await text.evaluate((element) => getComputedStyle(element).fontSize));
    const usual = await heightOf();

    await desk.mirado("set", SIZE, "4");
    await rowShows(page, "Size", "Extra large");
    assert.equal(await heightOf(), usual * 1.8);

    await desk.mirado("set", "db/menu/caption/digitalcaptionoptions/fontcolor", "6");
    await rowShows(page, "Text", "Yellow");
    assert.equal(await text.evaluate((element) => getComputedStyle(element).color), "rgb(255, 220, 60)");

    assert.equal(await desk.mirado("get", "memory/webapp/caption"), "1");
    await desk.mirado("set", CAPTION, "0");
    await caption(page, "hidden");
    assert.equal(await desk.mirado("get", "memory/webapp/caption"), "0");
  });

  it("writes settings by remote control, and shows the reason if the set refuses", async () => {
    const page = await openApp();
    await rowShows(page, "Size", "Standard");
    await page.keyboard.press("ArrowDown");
    await page.keyboard.press("ArrowRight");
    await rowShows(page, "Size", "Large");
    assert.equal(await desk.mirado("get", SIZE), "3");

    await desk.call("PATCH", "/api/set", { b2b: false });
    await Promise.all([
      notice(page, "SUBTITLE menu can be setted on B2B product only (9)"),
      page.keyboard.press("ArrowRight"),
    ]);
    await rowShows(page, "Size", "Large");
    assert.equal(await desk.mirado("get", SIZE), "3");
  });

  it("continues if a setting cannot be read", async () => {
    await desk.call("POST", "/api/faults", { call: "vconf_get_int", path: SIZE, answer: -1 });
    const page = await openApp((opening) => notice(opening, "getMenuValue is failed (9999)"));
    await desk.mirado("set", CAPTION, "1");
    await caption(page, "visible");
  });
});

describe("pages and their plug-ins", () => {
  it("each have their own: a crash is reported to its page and does not affect the other", async () => {
    const first = await openApp();
    await rowShows(first, "Captions", "Off");
    const { id } = await newestPage();
    const second = await openApp();
    await rowShows(second, "Captions", "Off");

    await first.keyboard.press("ArrowRight");
    await Promise.all([caption(first, "visible"), caption(second, "visible")]);

    await Promise.all([
      notice(first, "The plug-in has crashed: "),
      desk.call("POST", `/api/pages/${id}/kill`),
    ]);
    await desk.mirado("set", CAPTION, "0");
    await caption(second, "hidden");
    await caption(first, "hidden"); // Another plug-in has replaced the crashed one.
    await desk.mirado("set", CAPTION, "1");
    await Promise.all([caption(first, "visible"), caption(second, "visible")]);
  });

  it("lose no message but the one that the desk refuses, also when the connection is lost", async () => {
    const page = await openApp();
    const outcome = await page.evaluate(async () => {
      const embed = document.querySelector("embed");
      const refused = "\ud800"; // half of a surrogate pair
      const key = { propertyKey: 1 }; // the application does not read it
      const write = (value) => embed.postMessage({ command: "setMenuValue", ...key, value });
      const heard = [];
      const on = (listen) => embed.addEventListener("message", ({ data }) => { if (data.command) listen(data.value); });
      on((value) => heard.push(value));
      const [one, two, four] = [1, 2, 4].map((last) => new Promise((done) => on((value) => value === last && done())));
      const { send } = WebSocket.prototype;
      let socket;
      WebSocket.prototype.send = function (text) { send.call(socket = this, text); };
      write(1);
      await one;
      embed.postMessage(refused);
      write(2);
      const { value } = embed.postMessageAndAwaitResponse({ command: "getMenuValue", ...key });
      await two;
      socket.close();
      write(3);
      embed.postMessage(refused);
      write(4);
      await four;
      try {
        return embed.postMessageAndAwaitResponse(refused);
      } catch (error) {
        return [value, heard, error.name];
      }
    });
    assert.deepEqual(outcome, [2, [1, 2, 3, 4], "TypeError"]);
  });

  it("end every waiting call when the plug-in dies", async () => {
    await desk.call("PATCH", "/api/set", { latency: { isTVSPicSizeResized: 60_000, setMenuValue: 60_000 } });
    for (const command of ["isTVSPicSizeResized", "setMenuValue"]) {
      const page = await openApp();
      await rowShows(page, "Captions", "Off");
      const { id } = await newestPage();
      const events = await desk.follow("/api/events");
      const outcome = page.evaluate(async (name) => {
        const { connect } = window.mirado;
        try {
          return await connect(document.querySelector("embed"))[name](0, 1);
        } catch (error) {
          return error.name;
        }
      }, command);
      await events.next("dialogue", ({ body }) => body.command === command);
      events.close();
      await desk.call("POST", `/api/pages/${id}/kill`);
      assert.equal(await outcome, "PluginGoneError", command);
      await page.close();
    }
  });
});

describe("a page of another origin", () => {
  it("gets no plug-in, unless its script tag has the token", async () => {
    const stranger = `http://stranger.test:${app.port}`;
    await openPage(stranger, (page) => notice(page, "The plug-in"));
    assert.deepEqual((await pages()).filter(({ url }) => url.startsWith(stranger)), []);

    process.env.MIRADO ??= new URL("../../build/release/bin/mirado", import.meta.url).pathname;
    const open = await startSet({ anyOrigin: true });
    app.script = open.script;
    try {
      const page = await openPage(stranger);
      await rowShows(page, "Captions", "Off");
      await open.settings.set("CAPTION", 1);
      await caption(page, "visible");
      assert((await open.page()).url.startsWith(stranger));
    } finally {
      app.script = desk.script;
      await open.stop();
    }
  });

  it("gets no plug-in in a sandboxed frame without the token, nor by an element named currentScript", async () => {
    const locked = await startDesk("--token");
    const frame = (script) => `<iframe sandbox="allow-scripts" srcdoc='<img name=currentScript src="http://stranger.test/">
      <script src="${script}"></script><embed type="application/x-mirado"><script>
      const embed = document.querySelector("embed");
      embed.addEventListener("message", ({ data }) => parent.postMessage(data.value, "*"));
      const tell = () => parent.postMessage("gone", "*");
      if (embed.pluginGone) tell(); else embed.addEventListener("crash", tell);
      embed.postMessage({ command: "setMenuValue", propertyKey: 0, value: 7 });
      </script>'></iframe>`;
    const page = await openApp();
    for (const [script, heard] of [[locked.script, 7], [desk.script, "gone"], [locked.script.split("?")[0], "gone"]]) {
      assert.equal(await page.evaluate((content) => new Promise((resolve) => {
        addEventListener("message", ({ data }) => resolve(data), { once: true });
        document.body.insertAdjacentHTML("beforeend", content);
      }), frame(script)), heard, script);
    }
  });

  it("can be one of any number of pages with the same address", async () => {
    const open = [];
    while (open.length < 9) open.push(await openApp());
    for (const page of open) await rowShows(page, "Captions", "Off");
    await desk.mirado("set", CAPTION, "1");
    for (const page of open) await caption(page, "visible");
  });
});
