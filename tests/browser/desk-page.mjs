// Actions on the desk's page, for the tests and the screenshots.

export const CAPTION = "db/menu/caption/caption";

export const openDesk = async (page, url) => {
  await page.goto(url);
  await page.locator("main[aria-busy=false]").waitFor();
};

export const openConsole = async (page) => {
  const chosen = page.locator("#pages [aria-selected=true]");
  await page.locator("#tab-all").waitFor({ state: "attached" }); // all tabs are drawn in one frame
  const earlier = await page.locator("#pages [role=tab]").evaluateAll((tabs) => tabs.map(({ id }) => id));
  await page.getByRole("button", { name: "+ Console" }).click();
  await chosen.filter({ hasText: / Console$/ }).and(page.locator(earlier.map((id) => `:not(#${id})`).join(""))).waitFor();
};

/** The rows of the dialogue that contain `text`. */
export const rowWith = (page, text) => page.getByRole("region", { name: "Messages" }).getByRole("listitem").filter({ hasText: text });

/** Fills in the composer, and sends or posts its message, as the command requires. */
export async function sendCommand(page, command, { key, value } = {}) {
  const form = page.getByRole("form", { name: "Message to the plug-in" });
  const field = (name) => form.getByRole("combobox", { name, exact: true });
  await field("Command").selectOption(command);
  if (key !== undefined) await field("Key").selectOption(String(key));
  if (value !== undefined) await field("value").fill(String(value));
  await form.locator("#say").click();
}

export const valueOf = (page, label) => page.getByRole("spinbutton", { name: label, exact: true });

/** Answers the confirmation dialog of the page. */
export const answer = (page, name) => page.getByRole("dialog").getByRole("button", { name }).click();
