import type { PlaywrightTestArgs, PlaywrightTestOptions, PlaywrightWorkerArgs, PlaywrightWorkerOptions,
              TestType } from "@playwright/test";
import type { SimulatedSet, StartOptions } from "./index.js";

export { expect } from "@playwright/test";

/** Playwright's `test` with one more fixture: `set`, a simulated set for each test. The plug-in of each page in the
 *  test's context runs in that set, with or without a script tag for the desk; such a tag gets an empty script. Lines of
 *  a page's console that begin with "Mirado:" are copied to the test's output. */
export const test: TestType<
  PlaywrightTestArgs & PlaywrightTestOptions & { set: SimulatedSet; setOptions: StartOptions },
  PlaywrightWorkerArgs & PlaywrightWorkerOptions>;
