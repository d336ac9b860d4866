// Playwright's test with a set of its own for each test, whose pages have their plug-in there.
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

  // The page needs no script tag for the desk. Where it has one, the tag does nothing.
  context: async ({ context, set }, use) => {
    // Chromium asks before it lets a page that comes from elsewhere talk to this machine; other browsers know no such
    // permission.
    await context.grantPermissions(["local-network-access"]).catch(() => {});
    await context.addInitScript({ content: await set.initScript() });
    await context.route(/\/desk\.js(\?|$)/, (route) => route.fulfill({ contentType: "text/javascript", body: "" }));
    context.on("console", (message) => {
      if (message.text().startsWith("Mirado:")) console.log(message.text());
    });
    await use(context);
  },
});
