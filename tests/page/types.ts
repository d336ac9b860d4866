// Compiled, never run: what a page may write, and what the types refuse.
import { connect, MENU_KEY_CAPTION, MENU_KEY_VOICE_GUIDE_SPEED, MIRADO_KEY_BG_EXECUTABLE, MiradoError } from "mirado";

const mirado = connect(document.querySelector("embed")!);

const caption: number = mirado.getMenuValue(MENU_KEY_CAPTION);
const speed: "VERY_SLOW" | "SLOW" | "NORMAL" | "FAST" | "VERY_FAST" = mirado.getMenuValue(MENU_KEY_VOICE_GUIDE_SPEED);
const written: Promise<number> = mirado.setMenuValue(MENU_KEY_CAPTION, 1);
const unsubscribe: () => void = mirado.onChanged(MIRADO_KEY_BG_EXECUTABLE, (key: 0) => key);
const code = (error: unknown): 9 | 18 | 26 | 9999 | undefined =>
  error instanceof MiradoError ? error.code : undefined;

// @ts-expect-error: no such setting
mirado.getMenuValue(22);
// @ts-expect-error: the voice guide's speed reads as a name
const number: number = mirado.getMenuValue(MENU_KEY_VOICE_GUIDE_SPEED);
// @ts-expect-error: a setting is written as a number
mirado.setMenuValue(MENU_KEY_CAPTION, "1");
// @ts-expect-error: the TV viewer has one setting
mirado.onChanged(MENU_KEY_VOICE_GUIDE_SPEED, () => {});
// @ts-expect-error: the waiting commands return no promise
mirado.getVersion().then(() => {});
// @ts-expect-error: not an element of the plug-in
connect({ postMessage() {} });
