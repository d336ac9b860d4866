// The packages `mirado` and `mirado-desk` as a new user gets them: packed, installed into an empty folder, and used as
// in the README.
import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { copyFileSync, mkdtempSync, readFileSync, rmSync, symlinkSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { dirname, join } from "node:path";
import { after, it } from "node:test";
import { fileURLToPath } from "node:url";

const root = fileURLToPath(new URL("../../", import.meta.url));
const folder = mkdtempSync(join(tmpdir(), "mirado-npm-"));
after(() => rmSync(folder, { recursive: true }));
const { MIRADO = `${root}build/release/bin/mirado`, ...environment } = process.env;
const build = dirname(dirname(MIRADO));

function run(...command) {
  try {
    return execFileSync(command[0], command.slice(1), { cwd: folder, encoding: "utf8", stdio: "pipe",
      env: { ...environment, MIRADO_BUILD: build, NODE_TEST_CONTEXT: undefined } });
  } catch (error) {
    throw new Error(`${command.join(" ")}\n${error.stdout}${error.stderr}`);
  }
}

const readme = readFileSync(`${root}npm/mirado-desk/README.md`, "utf8");
const blocks = (language) => Array.from(readme.matchAll(/```(\w+)\n(.*?)```/gs)).filter(([, name]) => name === language)
  .map(([, , text]) => text);

it("the README's tests pass with only the packed files", () => {
  for (const source of ["page", "npm/mirado-desk"]) run("npm", "pack", "--silent", join(root, source));
  run("npm", "install", "--offline", "--no-audit", "--omit=peer", "--legacy-peer-deps", "./mirado-0.1.0.tgz",
    "./mirado-desk-0.1.0.tgz");
  for (const scope of ["@playwright", "playwright", "playwright-core"]) {
    symlinkSync(`${root}tests/browser/node_modules/${scope}`, join(folder, "node_modules", scope));
  }
  for (const name of ["mirado", "mirado-desk"]) {
    const text = readFileSync(join(folder, "node_modules", name, "README.md"), "utf8");
    assert.doesNotMatch(text, /\]\((?!https?:)/, "no file outside of the package is there to lead to");
  }
  const [config, pageTest, test] = blocks("js");
  writeFileSync(join(folder, "index.html"), blocks("html")[0]);
  writeFileSync(join(folder, "caption.page.mjs"), pageTest);
  writeFileSync(join(folder, "b2b.test.mjs"), test);
  writeFileSync(join(folder, "playwright.config.mjs"), config);
  assert.match(run("node", "--test", "b2b.test.mjs"), /# pass 1\n/);
  writeFileSync(join(folder, "fixture.page.mjs"), `import { expect, test } from "mirado-desk/playwright";
    let last;
    test("needs no answer to a script tag for a desk", async ({ page, set }) => {
      last = set;
      await page.setContent('<script src="http://localhost:1/desk.js" onerror="document.title = 1"></script>');
      expect(await page.title()).toBe("");
      await Promise.all([page.waitForEvent("console"), page.evaluate(() => console.error("Mirado: is copied"))]);
    });
    test("stops the last test's set", () => expect(last.describe()).rejects.toThrow("stopped"));`);
  const output = run("node", "node_modules/@playwright/test/cli.js", "test", "--workers", "1", "--reporter", "line");
  assert.match(output, /Mirado: is copied[^]*5 passed/);
  assert.doesNotMatch(output, /the desk has ended/);

  copyFileSync(fileURLToPath(new URL("types.mts", import.meta.url)), join(folder, "types.mts"));
  run("node", `${root}tests/browser/node_modules/typescript/bin/tsc`, "--noEmit", "--strict", "--skipLibCheck",
    "--target", "es2022", "--lib", "esnext,dom", "--module", "nodenext", "--types", "", "types.mts");
});
