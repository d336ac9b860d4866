// Compiled, never run: what a page may write, and what the types refuse.
import { connect, keepConnected, MENU_KEY_CAPTION, MENU_KEY_VOICE_GUIDE_SPEED, MIRADO_KEY_BG_EXECUTABLE, MiradoError,
         VOICE_GUIDE_SPEED } from "mirado";
import type { MiradoPost, MiradoRequest } from "mirado";
import { fakePlugin } from "mirado/testing";

const mirado = connect(document.querySelector("embed")!);

const caption: number = mirado.getMenuValue(MENU_KEY_CAPTION);
const speed: "VERY_SLOW" | "SLOW" | "NORMAL" | "FAST" | "VERY_FAST" = mirado.getMenuValue(MENU_KEY_VOICE_GUIDE_SPEED);
const written: Promise<number> = mirado.setMenuValue(MENU_KEY_CAPTION, 1);
const unsubscribe: () => void = mirado.onChanged(MIRADO_KEY_BG_EXECUTABLE, (key: 0) => key);
const code = (error: unknown): 9 | 18 | 26 | 9999 | undefined =>
  error instanceof MiradoError ? error.code : undefined;

const fast: Promise<number> = mirado.setMenuValue(MENU_KEY_VOICE_GUIDE_SPEED, VOICE_GUIDE_SPEED[speed]);
const cause: Promise<string | undefined> = mirado.whenGone.then(({ detail }) => detail?.reason);
const end: () => void = keepConnected(document.querySelector("embed")!, (client, { width }) => client.getVersion() + width);
const plugin = fakePlugin();
const title: string = connect(plugin).getVersion();
plugin.set.fails.read = plugin.messages.length > 1;
const reply: string | undefined = plugin.postMessageAndAwaitResponse({ command: "getVersion" })?.errorName;

// A page that does without the client.
const embed = document.querySelector("embed")!;
const request: MiradoPost = { command: "setMenuValue", propertyKey: MENU_KEY_CAPTION, value: 1 };
embed.postMessage(request);
embed.addEventListener("message", ({ data }) => {
  if (typeof data === "string") data satisfies "Unregister" | "Error while registering MessageHandler";
  else if ("event" in data) data.value satisfies number;
  else data.command satisfies string;
});
embed.addEventListener("crash", ({ detail }) => detail?.signal satisfies number | null | undefined);
embed.addEventListener("click", ({ type }) => type satisfies string);

// @ts-expect-error: a message of another command
const wrong: MiradoRequest = { command: "getMenuValue", value: 1 };
// @ts-expect-error: no such setting
mirado.getMenuValue(99);
// @ts-expect-error: the voice guide's speed reads as a name
const number: number = mirado.getMenuValue(MENU_KEY_VOICE_GUIDE_SPEED);
// @ts-expect-error: a setting is written as a number
mirado.setMenuValue(MENU_KEY_CAPTION, "1");
// @ts-expect-error: the TV viewer has one setting
mirado.onChanged(MENU_KEY_VOICE_GUIDE_SPEED, () => {});
// @ts-expect-error: the waiting commands return no promise
mirado.getVersion().then(() => {});
// @ts-expect-error: a reply may be missing
embed.postMessageAndAwaitResponse({ command: "getVersion" }).value;
// @ts-expect-error: a command that is posted, not sent
embed.postMessageAndAwaitResponse(request);
// @ts-expect-error: not an element of the plug-in
connect({ postMessage() {} });
