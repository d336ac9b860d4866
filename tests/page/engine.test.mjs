// Checks that an engine of generation 47 supports all scripts that it loads: the language by parsing them, the names by
// the table in docs/engines.md.
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { createRequire } from "node:module";
import { it } from "node:test";
import { fileURLToPath } from "node:url";
import { gzipSync } from "node:zlib";

const root = fileURLToPath(new URL("../../", import.meta.url));
const require = createRequire(`${root}tests/browser/package.json`);
const acorn = require("acorn");
const walk = require("acorn-walk");
const terser = require("terser");
const GENERATION = 47;
// The files that it loads, and the edition of ECMAScript of each.
const FILES = { "page/mirado.classic.js": 5, "desk/web/desk.js": 2015, "examples/app/film.js": 2015, "examples/app/app.js": 2015 };

const text = (file) => readFileSync(root + file, "utf8");
const known = new Map(Array.from(text("docs/engines.md").matchAll(/^\| `(\w+)` \|.*\| (\d+) \|$/gm),
  ([, name, since]) => [name, Number(since)]));

// Names of ECMAScript 5, and of the messages of the plug-in and the desk.
const USUAL = new Set(("Object String Number Array Date Math JSON Error TypeError create freeze defineProperty keys " +
  "hasOwnProperty now min max floor abs pow sin cos PI splice forEach map filter some every join concat replace test exec split substring " +
  "push pop shift slice indexOf length parse stringify apply call bind toLowerCase charAt message stack name " +
  "ack refused count miradoDesk errorMessage errorName code signal status reason data detail postMessage postMessageAndAwaitResponse pluginGone"
).split(" "));

// The parts of ECMAScript 2015 that the generation lacks.
const MISSING = {
  AssignmentPattern: "a default value", ArrayPattern: "destructuring", ObjectPattern: "destructuring",
  ImportDeclaration: "modules", ExportNamedDeclaration: "modules",
};

// The names that a script uses, and those that it defines in any scope.
function namesOf(tree) {
  const own = [];
  const used = new Set();
  const declare = (pattern) => { if (pattern) own.push(pattern.name); };
  walk.full(tree, (node) => {
    const missing = MISSING[node.type] || (node.regex && /[^gim]/.test(node.regex.flags) && "a flag of a pattern");
    assert.ok(!missing, `line ${node.loc.start.line}: ${missing}`);
    declare(node.id);
    (node.params || []).forEach((one) => declare(one.argument || one));
    if (node.type === "CatchClause") declare(node.param);
    if (node.key && !node.computed) own.push(node.key.name || node.key.value);
    const assigned = node.type === "AssignmentExpression" && node.left.property;
    if (assigned && !/^on/.test(assigned.name)) declare(assigned); // but event handlers are names of the platform
    if (node.operator === "typeof") declare(node.argument); // tested for, not relied on
    if (node.type === "MemberExpression" && !node.computed) used.add(node.property.name);
    if (node.type === "Identifier") used.add(node.name);
  });
  return { own, used };
}

it(`generation ${GENERATION} supports the language and all names of the scripts that it loads`, () => {
  const own = new Set(["arguments", "undefined", ...USUAL]);
  const used = new Map();
  for (const [file, ecmaVersion] of Object.entries(FILES)) {
    const tree = acorn.parse(text(file), { ecmaVersion, locations: true });
    const names = namesOf(tree);
    names.own.forEach((name) => own.add(name));
    names.used.forEach((name) => used.set(name, file));
    // That engine needs strict mode for let, const and class.
    const scope = tree.body[0].expression?.callee?.body?.body ?? tree.body;
    assert.ok(ecmaVersion === 5 || scope[0].directive === "use strict", `${file} must begin with "use strict"`);
  }
  const foreign = [...used].filter(([name]) => !own.has(name) && !(known.get(name) <= GENERATION));
  assert.deepEqual(foreign, [], "not in docs/engines.md, or too new");
});

it("docs/engines.md names nothing that is not used", () => {
  const all = Object.keys(FILES).map(text).join();
  assert.deepEqual([...known.keys()].filter((name) => !new RegExp(`\\b${name}\\b`).test(all)), []);
});

it("the classic client has at most 3 KiB, minified and compressed", async () => {
  const { code } = await terser.minify(text("page/mirado.classic.js"), { ecma: 5, toplevel: false });
  const size = gzipSync(code, { level: 9 }).length;
  console.log(`# ${size} bytes, ${code.length} before compression`);
  assert.ok(size <= 3072, `${size} bytes`);
});
