// The client library, as a module and as a classic script, in this engine and in one for ECMAScript 5.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { describe, it } from "node:test";
import { fileURLToPath } from "node:url";
import vm from "node:vm";

const page = fileURLToPath(new URL("../../page/", import.meta.url));
const suite = readFileSync(new URL("client_suite.js", import.meta.url), "utf8");
const classic = `${readFileSync(`${page}mirado.classic.js`, "utf8")};mirado`;
vm.runInThisContext(suite);

const first = await import(`${page}mirado.js?1`);
const second = await import(`${page}mirado.js?2`);
const script = vm.runInThisContext(classic);

describe("the module", () => clientSuite(first, second, it));
describe("the classic script", () => clientSuite(script, first, it));

it("runs in an engine for ECMAScript 5", () => {
  const require = createRequire(new URL("../browser/package.json", import.meta.url));
  const promises = require.resolve("promise-polyfill/dist/polyfill");
  const folder = mkdtempSync(join(tmpdir(), "mirado-engine-"));
  writeFileSync(join(folder, "all.js"), `
    var self = this; // promise-polyfill defines Promise on it
    var queue = [];
    setTimeout = function (call) { queue.push(call); };
    ${readFileSync(promises, "utf8")}
    ${suite}
    var copies = [${JSON.stringify(classic)}, ${JSON.stringify(classic)}].map(function (text) { return eval(text); });
    var tests = [];
    clientSuite(copies[0], copies[1], function (name, check) { tests.push([name, check]); });
    tests.reduce(function (before, one) {
      return before.then(one[1]).then(function () { print("ok"); }, function (error) { print(one[0], error.stack); });
    }, Promise.resolve());
    while (queue.length) queue.shift()();`);
  const output = execFileSync("duk", [join(folder, "all.js")], { encoding: "utf8" });
  rmSync(folder, { recursive: true });
  const tests = suite.match(/^ +(connectedTest|test)\("/gm).length + 3; // one of them runs four times
  assert.equal(output, "ok\n".repeat(tests));
});
