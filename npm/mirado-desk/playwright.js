// Playwright's `test` with a simulated set for each test. The plug-in of each page runs in that set.
import { expect, test as base } from "@playwright/test";
import { startSet } from "./index.js";

export { expect };
export const test = base.extend({
  setOptions: [{}, { option: true }],

  set: async ({ setOptions }, use) => {
    const set = await startSet(setOptions);
    await use(set);
    await set.stop();
  },

  // desk.js is injected, so a page needs no script tag for it. If it has one, the tag gets an empty script.
  // `set` is named first, so that the context closes before the set ends, and no page complains that its desk is gone.
  context: async ({ set, context }, use) => {
    // Chromium asks for permission before a page from another machine may connect to this one. Other browsers have no
    // such permission.
    await context.grantPermissions(["local-network-access"]).catch(() => {});
    await context.addInitScript({ content: await set.initScript() });
    await context.route(/\/desk\.js(\?|$)/, (route) => route.fulfill({ contentType: "text/javascript", body: "" }));
    context.on("console", (message) => {
      if (message.text().startsWith("Mirado:")) console.log(message.text());
    });
    await use(context);
  },
});
