// The package `mirado` as a page's project gets it: packed, installed into an empty folder, imported, type-checked.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { copyFileSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { tmpdir } from "node:os";
import { dirname, join } from "node:path";
import { after, it } from "node:test";
import { fileURLToPath } from "node:url";

const here = dirname(fileURLToPath(import.meta.url));
const packageFolder = join(here, "../../page");
const folder = mkdtempSync(join(tmpdir(), "mirado-page-"));
after(() => rmSync(folder, { recursive: true }));

const run = (program, ...args) => execFileSync(program, args, { cwd: folder, encoding: "utf8" });

// One test, because each step needs the one before.
it("packs, installs, imports and type-checks outside of its folder", async () => {
  const [packed] = JSON.parse(run("npm", "pack", "--json", packageFolder));
  assert.deepEqual(packed.files.map(({ path }) => path).sort(),
    ["README.md", "mirado.classic.js", "mirado.d.ts", "mirado.js", "package.json", "testing.d.ts",
      "testing.js"]);

  writeFileSync(join(folder, "package.json"), '{ "type": "module" }');
  run("npm", "install", "--offline", "--no-save", `./${packed.filename}`);
  const imported = JSON.parse(run("node", "--input-type=module", "--eval", `
    import * as mirado from "mirado";
    console.log(JSON.stringify(Object.entries(mirado).map(([name, value]) => [name, typeof value])));`));

  // The declared names and the exported ones are the same, and every constant has the number that it is declared with.
  const declarations = readFileSync(join(packageFolder, "mirado.d.ts"), "utf8");
  const declared = Array.from(declarations.matchAll(/^export (?:const|class|function) (\w+)/gm), ([, name]) => name);
  assert.deepEqual(imported.map(([name]) => name).sort(), declared.sort());

  const { connect } = await import(join(packageFolder, "mirado.js"));
  const client = connect({ addEventListener() {}, postMessage() {}, postMessageAndAwaitResponse() {} });
  const [, members] = /^export interface Mirado \{\n(.*?)^\}/ms.exec(declarations);
  const named = Array.from(members.matchAll(/^ {2}(?:readonly )?(\w+)[(:]/gm), ([, name]) => name);
  assert.deepEqual([...new Set(named)].sort(), Object.keys(client).sort());

  const typescript = createRequire(join(here, "../browser/package.json")).resolve("typescript/package.json");
  copyFileSync(join(here, "types.ts"), join(folder, "types.ts"));
  writeFileSync(join(folder, "classic.ts"), `/// <reference types="mirado" />
    const version: string = mirado.connect(document.querySelector("embed")!).getVersion();`);
  run("node", join(dirname(typescript), "bin/tsc"), "--noEmit", "--strict", "--target", "es2020", "--module", "esnext",
    "--moduleResolution", "bundler", "--moduleDetection", "legacy", "--types", "", "types.ts", "classic.ts");
});
