import type { PluginElement, PluginEnd } from "./mirado.js";

/** A plug-in, and the set around it, for unit tests: `connect(fakePlugin())`. A new set is a B2B product whose
 *  application holds the privilege. */
export interface FakePlugin extends PluginElement {
  /** The set's settings, by the name of their constant, such as "CAPTION" or "MENU_KEY_CAPTION". To `set` one is what
   *  another program on the set does: whoever registered for it is told. Null takes the setting away, and reading it
   *  fails. Both throw a TypeError for a name or a value that the set does not know. */
  readonly settings: {
    get(name: string): number | boolean | null;
    set(name: string, value: number | boolean | null): void;
  };

  /** The rest of the set, to be changed at will. */
  readonly set: {
    /** Null: the set has no answer to the question. */
    b2b: boolean | null;
    privilege: boolean;
    /** Null: the set has no video control. */
    pictureSize: number | null;
    /** The numbers that the audio languages may take. Null: the set has no such list. */
    lists: { "primary-audio-language": number[] | null; "secondary-audio-language": number[] | null };
    /** What the set's store refuses. */
    fails: { read: boolean; write: boolean; watch: boolean };
  };

  /** What the page has said so far, in order. */
  readonly messages: ({ send: any } | { post: any })[];

  /** Resolves when every delivery so far has been heard. */
  settle(): Promise<void>;

  /** The plug-in's process dies; `end` says how. */
  crash(end?: PluginEnd): void;
}

export function fakePlugin(): FakePlugin;
