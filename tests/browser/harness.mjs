// What the tests in a browser share: a desk on a temporary store, a server for the example application, and Chromium.
import assert from "node:assert/strict";
import { once } from "node:events";
import { readFile, writeFile } from "node:fs/promises";
import { createServer } from "node:http";
import { basename, extname, join } from "node:path";
import { after, afterEach, beforeEach } from "node:test";
import { fileURLToPath } from "node:url";
import { chromium } from "playwright-core";
import { Desk } from "../desk/desk.mjs";

const appFolder = fileURLToPath(new URL("../../examples/app", import.meta.url));
/** The timeout in milliseconds for actions that an idle machine does at once. */
export const TIMEOUT = 60_000;

const TYPES = { ".html": "text/html", ".js": "text/javascript", ".css": "text/css" };

/** Serves the example application. Its script tag loads `script` of the result, which may be changed. */
async function serveApp(script) {
  const server = createServer(async (request, response) => {
    const name = basename(request.url) || "index.html";
    try {
      const content = await readFile(join(appFolder, name), "utf8");
      response.setHeader("Content-Type", TYPES[extname(name)]);
      response.end(content.replace("http://localhost:8480/desk.js", served.script));
    } catch {
      response.writeHead(404).end();
    }
  });
  server.listen(0, "127.0.0.1");
  await once(server, "listening");
  const { port } = server.address();
  const stop = () => new Promise((resolve) => {
    server.close(resolve);
    server.closeAllConnections();
  });
  const served = { script, port, url: `http://localhost:${port}/`, stop };
  return served;
}

// Names that end in .test resolve to this machine, so that a page can have a foreign origin.
export const launchBrowser = () => chromium.launch({
  executablePath: "/usr/bin/chromium",
  timeout: TIMEOUT,
  args: ["--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
    "--disable-component-update", "--disable-sync", "--host-resolver-rules=MAP *.test 127.0.0.1"],
});

/** Starts a desk on the port that `choose` names, again while another process uses that port. */
export async function startAt(choose, start) {
  for (let tries = 1; ; ++tries) {
    try {
      return await start("--port", String(choose()));
    } catch (error) {
      if (error.status !== 3 || tries === 100) throw error;
    }
  }
}

/** A desk that a test may kill and start again, also on a damaged store. It keeps its address. */
export class MortalDesk {
  static async start() {
    const mortal = new MortalDesk();
    mortal.begin(await Desk.start());
    return mortal;
  }

  begin(desk) {
    this.desk = desk;
    this.url = desk.url;
    for (const name of ["call", "request", "send", "openPage", "mirado"]) this[name] = desk[name].bind(desk);
  }

  async kill() {
    this.desk.child.kill("SIGKILL");
    await this.desk.exit;
  }

  async damage() {
    await this.kill();
    const { store, folder, port } = this.desk;
    await writeFile(join(store, "keys.db"), "no database".repeat(1000));
    const again = await startAt(() => port, (...options) => Desk.startOn(store, ...options));
    this.begin(Object.assign(again, { folder }));
  }

  async stop() {
    await this.desk.stop();
  }
}

/**
 * A desk, the example application and a browser for all tests of a file. The set is reset before each test. A test
 * fails if one of its pages has an uncaught error.
 */
export async function useDesk() {
  const [desk, browser] = await Promise.all([Desk.start(), launchBrowser()]);
  const app = await serveApp(desk.script);
  const others = [];
  let context, errors;

  after(async () => {
    await browser.close();
    await app.stop();
    assert.equal(await desk.stop(), 0, "the desk's exit status");
  });
  beforeEach(async () => {
    await desk.call("POST", "/api/reset");
    context = await browser.newContext({ viewport: { width: 1280, height: 720 } });
    context.setDefaultTimeout(TIMEOUT);
    errors = [];
    context.on("weberror", (error) => errors.push(error.error()));
  });
  afterEach(async () => {
    await context?.close(); // undefined if the desk did not answer
    for (const other of others.splice(0)) await other.stop();
    assert.deepEqual(errors, []);
  });
  const newPage = () => context.newPage();
  // `shows` waits for something that is visible only for a while, so it starts before the page loads.
  const openPage = async (url, shows = () => {}) => {
    const page = await newPage();
    await Promise.all([shows(page), page.goto(url)]);
    return page;
  };
  // Another desk, for the test that starts it.
  const startDesk = async (...options) => {
    others.push(await Desk.start(...options));
    return others.at(-1);
  };
  return { desk, app, newPage, openPage, startDesk };
}
