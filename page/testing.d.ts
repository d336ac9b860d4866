import type { PluginElement, PluginEnd } from "./mirado.js";

/** A fake plug-in with its own simulated set, for unit tests: `connect(fakePlugin())`. A new set is a B2B product whose
 *  application has the privilege. */
export interface FakePlugin extends PluginElement {
  /** The set's settings, by the name of their constant, such as "CAPTION" or "MENU_KEY_CAPTION". `set` changes one as
   *  another program on the set would: a page that watches it gets an event. After `set` with null, reading the setting
   *  fails. Both throw a TypeError for a name that the set does not have, and for a value of the wrong type. */
  readonly settings: {
    get(name: string): number | boolean | null;
    set(name: string, value: number | boolean | null): void;
  };

  /** The rest of the set. A test assigns to its members. */
  readonly set: {
    /** Whether the set is a B2B product. Null: the query for it fails. */
    b2b: boolean | null;
    privilege: boolean;
    /** Null: the set has no video control. */
    pictureSize: number | null;
    /** The numbers that the audio languages may take. Null: the set has no such list. */
    lists: { "primary-audio-language": number[] | null; "secondary-audio-language": number[] | null };
    /** Which calls of the set's store fail. */
    fails: { read: boolean; write: boolean; watch: boolean };
  };

  /** The messages that the page has sent and posted so far, in order. */
  readonly messages: ({ send: unknown } | { post: unknown })[];

  /** Resolves when the events of all messages and changes so far have been dispatched. */
  settle(): Promise<void>;

  /** Lets the plug-in's process die, as `end` says; without it, by SIGKILL. */
  crash(end?: PluginEnd): void;
}

export function fakePlugin(): FakePlugin;
