// Compares the desk's OpenAPI description (desk/web/openapi.json) with docs/desk-api.md and with a running desk.
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { createRequire } from "node:module";
import { after, before, it } from "node:test";
import { startSet } from "../../npm/mirado-desk/index.js";

const Ajv = createRequire(new URL("../browser/package.json", import.meta.url))("ajv/dist/2020").default;
process.env.MIRADO ??= new URL("../../build/release/bin/mirado", import.meta.url).pathname;
const METHODS = ["get", "put", "post", "delete", "patch"];

let set, description, ajv;
before(async () => {
  set = await startSet();
  description = await set.call("GET", "/openapi.json");
  ajv = new Ajv({ strict: false, allErrors: true });
  // A field that is missing in the description is an error, because clients may rely on it.
  const strict = (key, value) => value?.type === "object" && value.properties && !("additionalProperties" in value) ?
    { ...value, additionalProperties: false } : value;
  ajv.addSchema({ $id: "desk", ...JSON.parse(JSON.stringify(description, strict)) });
});
after(() => set.stop());

const methodsOf = (path) => METHODS.filter((method) => method in description.paths[path]);
const filled = (path, id) => path.replace("{id}", id).replace("{name}", "saved").replace("{path}", "db/menu/caption/caption");

it("has the paths that docs/desk-api.md names, and no more", () => {
  const document = readFileSync(new URL("../../docs/desk-api.md", import.meta.url), "utf8");
  const named = new Set(Array.from(document.matchAll(/`([A-Z]+) (\/api\/[\w/]+)/g), ([, method, path]) =>
    `${method} ${path.replace(/\/ID\b/, "/{id}").replace(/\/NAME\b/, "/{name}").replace(/\/PATH\b/, "/{path}")}`));
  const described = Object.keys(description.paths).flatMap((path) =>
    methodsOf(path).map((method) => `${method.toUpperCase()} ${path}`));
  assert.deepEqual(described.sort(), [...named].sort());
});

it("has every path of the desk", () => {
  const paths = Object.keys(description.paths).map((path) => path.replace("{path}", "**").replace(/\{\w+\}/, "*"));
  const sources = ["pages", "set", "store"].map((part) =>
    readFileSync(new URL(`../../desk/server/routes_${part}.cpp`, import.meta.url), "utf8"));
  const served = Array.from(sources.join().matchAll(/"(\/[a-z][\w/*]*)"/g), ([, end]) => end);
  assert.deepEqual(served.filter((end) => !paths.some((path) => path.endsWith(end))), []);
});

it("has the methods that the desk accepts", async () => {
  const { id } = await set.openPage();
  for (const path of Object.keys(description.paths)) {
    const method = METHODS.find((one) => !methodsOf(path).includes(one)).toUpperCase();
    const address = set.url.replace("localhost", "127.0.0.1") + filled(path, id);
    const answer = await fetch(address, { method });
    const allowed = answer.headers.get("allow")?.toLowerCase().split(/, */).filter((one) => METHODS.includes(one));
    assert.deepEqual([answer.status, allowed?.sort()], [405, methodsOf(path).sort()], path);
  }
});

it("has the schema of every answer", async () => {
  const page = await set.openPage();
  await page.send({ command: "getVersion" });
  await page.post({ command: "setMenuValue" });
  await page.told({ command: "setMenuValue" });
  const wait = async (path, method, body) => {
    const answer = await set.call(method.toUpperCase(), filled(path, page.id), body);
    const { responses } = description.paths[path][method];
    const [code] = Object.keys(responses);
    const pointer = ["paths", path.replaceAll("~", "~0").replaceAll("/", "~1"), method, "responses", code, "content"];
    const [type] = Object.keys(responses[code].content);
    const schema = `desk#/${[...pointer, type.replace("/", "~1"), "schema"].map(encodeURIComponent).join("/")}`;
    assert.ok(ajv.validate({ $ref: schema }, answer), `${method} ${path}: ${ajv.errorsText()}`);
  };
  await wait("/api/scenarios/{name}", "put", {});
  await wait("/api/faults", "post", { call: "vconf_get_int", answer: -1 });
  await wait("/api/store/{path}", "put", { value: 1 });
  await wait("/api/set", "patch", { latency: { getVersion: 1 } });
  await wait("/api/pages/{id}/recording", "post");
  await wait("/api/pages/{id}/messages", "post", [{ post: 1 }, { send: { command: "getVersion" } }]);
  await wait("/api/pages/{id}/verify", "post", { messages: [{ command: "getVersion" }] });
  for (const path of Object.keys(description.paths)) {
    const type = Object.keys(description.paths[path].get?.responses["200"]?.content ?? {})[0];
    if (type && type !== "text/event-stream") await wait(path, "get");
  }
  const refused = await set.call("GET", "/api/store/db/nothing").catch(({ status, code }) => ({ status, code }));
  assert.deepEqual(refused, { status: 404, code: "missing" });
});
