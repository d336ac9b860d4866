/**
 * The calls that an embedded plug-in element has, on the set and on the desk. Any object that has them will do.
 */
export interface PluginElement {
  /** Hands a message over. What the plug-in answers comes as a "message" event. */
  postMessage(message: unknown): void;
  /** Hands a message over and blocks the page until the reply is there. Undefined when the plug-in is gone. */
  postMessageAndAwaitResponse(message: unknown): any;
  /** A "message" event carries in `data` what the plug-in posted; "crash" says that its process died. */
  addEventListener(type: "message" | "crash", listener: (event: any) => void): void;
}

declare global {
  /** `<embed type="application/x-mirado">` */
  interface HTMLEmbedElement {
    postMessage: PluginElement["postMessage"];
    postMessageAndAwaitResponse: PluginElement["postMessageAndAwaitResponse"];
  }
}

export const MENU_KEY_CAPTION: 0;
export const MENU_KEY_CAPTION_MODE: 1;
export const MENU_KEY_DIGITAL_CAPTION_SIZE: 2;
export const MENU_KEY_DIGITAL_CAPTION_FONT_STYLE: 3;
export const MENU_KEY_DIGITAL_CAPTION_FONT_COLOR: 4;
export const MENU_KEY_DIGITAL_CAPTION_FONT_OPACITY: 5;
export const MENU_KEY_DIGITAL_CAPTION_BACKGROUND_COLOR: 6;
export const MENU_KEY_DIGITAL_CAPTION_BACKGROUND_OPACITY: 7;
export const MENU_KEY_DIGITAL_CAPTION_EDGE_TYPE: 8;
export const MENU_KEY_DIGITAL_CAPTION_EDGE_COLOR: 9;
export const MENU_KEY_DIGITAL_CAPTION_WINDOW_COLOR: 10;
export const MENU_KEY_DIGITAL_CAPTION_WINDOW_OPACITY: 11;
export const MENU_KEY_FOCUS_ZOOM: 12;
export const MENU_KEY_HIGH_CONTRAST: 13;
export const MENU_KEY_APPS_TICKER: 14;
export const MENU_KEY_TTS: 15;
export const MENU_KEY_SUBTITLE: 16;
export const MENU_KEY_SUBTITLE_MODE: 17;
export const MENU_KEY_PRIMARY_AUDIO_LANGUAGE: 18;
export const MENU_KEY_SECONDARY_AUDIO_LANGUAGE: 19;
export const MENU_KEY_VOICE_GUIDE_SPEED: 20;
export const MENU_KEY_DIGITAL_CAPTION_STYLE: 21;
export const MIRADO_KEY_BG_EXECUTABLE: 0;

/** A menu setting: one of the MENU_KEY_ constants, 0 to 21. */
export type MenuKey =
  | 0 | 1 | 2 | 3 | 4 | 5 | 6 | 7 | 8 | 9 | 10 | 11 | 12 | 13 | 14 | 15 | 16 | 17 | 18 | 19 | 20 | 21;

/** A setting of the TV viewer; its numbers have nothing to do with those of the menu settings. */
export type MiradoKey = typeof MIRADO_KEY_BG_EXECUTABLE;

/** The value of MENU_KEY_VOICE_GUIDE_SPEED as the plug-in reports it. It is written as a number from 1 to 15. */
export type VoiceGuideSpeed = "VERY_SLOW" | "SLOW" | "NORMAL" | "FAST" | "VERY_FAST";

/**
 * A refusal by the plug-in. `name` and `message` are exactly what it gave, a trailing blank included:
 *
 * | code | name | |
 * |---|---|---|
 * | 9 | "NotSupportedError" | the key or command is not served, or the product does not allow it |
 * | 18 | "SecurityError" | the application lacks the privilege |
 * | 26 | "InvalidValuesError" | a parameter is missing, of the wrong type or out of range |
 * | 9999 | "UnknownError " | a call of the platform failed |
 */
export class MiradoError extends Error {
  private constructor();
  readonly code: 9 | 18 | 26 | 9999;
  readonly name: "NotSupportedError" | "SecurityError" | "InvalidValuesError" | "UnknownError ";
}

/** There is no plug-in to ask: it crashed, ended its registration or never answered. `message` says which. */
export class PluginGoneError extends Error {
  private constructor();
  readonly name: "PluginGoneError";
}

/** Ends one subscription. Further calls do nothing. Throws MiradoError when the plug-in refuses to unregister the key
 *  with the last of its listeners; the listener is gone all the same. */
export type Unsubscribe = () => void;

/**
 * The plug-in of one element. All calls but `setMenuValue` block the page until the plug-in has answered, throw
 * MiradoError when it refuses and PluginGoneError when it is gone. Numbers are 32-bit integers.
 */
export interface Mirado {
  /** The plug-in's version, such as "4.0". */
  getVersion(): string;

  /** Refused for MENU_KEY_APPS_TICKER. MENU_KEY_TTS reads as 0 or 1, MENU_KEY_VOICE_GUIDE_SPEED as a name. */
  getMenuValue(key: Exclude<MenuKey, typeof MENU_KEY_VOICE_GUIDE_SPEED>): number;
  getMenuValue(key: typeof MENU_KEY_VOICE_GUIDE_SPEED): VoiceGuideSpeed;
  getMenuValue(key: MenuKey): number | VoiceGuideSpeed;

  getMiradoValue(key: MiradoKey): number;

  /**
   * Writes a setting and resolves with the number that was stored. That is not always `value`: of most settings only
   * the low eight bits are replaced. Rejects with MiradoError (the set must be a B2B product and the application hold
   * the privilege) or, when the plug-in goes away first, with PluginGoneError.
   *
   * Replies are matched to requests by their order, so a page that uses this does not post "setMenuValue" messages to
   * the same element by hand.
   */
  setMenuValue(key: MenuKey, value: number): Promise<number>;

  /** Publishes a value for readers outside the plug-in. */
  showCaption(show: number): void;
  /** Publishes the application's playing status for readers outside the plug-in. */
  registerInAppCaptionControl(status: number): void;

  isTVSPicSizeResized(): boolean;

  /**
   * Calls `listener` after each change of a menu setting, by whoever made it. An event names the key and carries no
   * value; read it with `getMenuValue`. A key may have any number of listeners: it is registered with the plug-in for
   * the first and unregistered with the last. An error that a listener throws is reported as uncaught.
   */
  onCaptionChanged(key: MenuKey, listener: (key: MenuKey) => void): Unsubscribe;
  /** The same for a setting of the TV viewer, read with `getMiradoValue`. */
  onChanged(key: MiradoKey, listener: (key: MiradoKey) => void): Unsubscribe;

  /** Resolves when the plug-in is known to be gone. From then on every call fails and no listener is called. */
  readonly whenGone: Promise<PluginGoneError>;
}

/**
 * The client of an element; the same one for each call as long as its plug-in lives, so that parts of a page can share
 * the element. It does not talk to the plug-in yet.
 */
export function connect(element: PluginElement): Mirado;
