/** What a setting or another key of the set's store holds. */
export type Value = number | boolean | string;

export interface StartOptions {
  /** The program `mirado`. Otherwise what the environment variable MIRADO names, else the one that comes with this
   *  package, else the one on the PATH. */
  program?: string;
  /** Lets in pages of every origin that load `script`, whose address then holds a token. Otherwise only those that come
   *  from this machine. */
  anyOrigin?: boolean;
  /** Milliseconds that a call waits for what it waits for, unless it says otherwise; 5000. */
  timeout?: number;
}

export interface WaitOptions {
  /** Milliseconds; then the promise is rejected, and the error says what has happened instead. */
  timeout?: number;
}

/** Starts a set as new, with a desk on a free port and a store of its own in a temporary folder. */
export function startSet(options?: StartOptions): Promise<SimulatedSet>;

/** A part of the set for `change`, as `describe` gives the whole. Null takes an entry or a single value away. */
export interface SetDescription {
  /** Null: the set does not know whether it is a B2B product. */
  b2b?: boolean | null;
  /** By URI. The plug-in asks when it starts; pages that are open keep theirs. */
  privileges?: Record<string, boolean | null>;
  /** Null: the set has no video control. */
  pictureSize?: number | null;
  lists?: Record<string, { value: number; label: string }[] | null>;
  embedder?: { offered?: boolean; name?: string; replies?: Record<string, Value | null> };
  /** Milliseconds by command of the plug-in. */
  latency?: Record<string, number | null>;
}

/** Every method rejects with an Error in the desk's words when the desk refuses; `status` is that of HTTP, and `code`
 *  the kind of failure where there is one. */
export interface SimulatedSet {
  /** Such as "http://localhost:40123". */
  readonly url: string;
  /** The address of desk.js for a script tag in a page. */
  readonly script: string;
  /** desk.js as a text that may run before a page's own scripts, for pages without a script tag for the desk. */
  initScript(): Promise<string>;

  /** Settings by the name of their constant ("CAPTION" or "MENU_KEY_CAPTION") or by their path. */
  readonly settings: {
    /** Null for a setting that the store lacks. */
    get(name: string): Promise<Value | null>;
    /** What another program on the set does: pages that watch the setting are told. */
    set(name: string, value: Value): Promise<void>;
    /** Waits until the setting has this value. */
    becomes(name: string, value: Value | null, options?: WaitOptions): Promise<void>;
  };

  describe(): Promise<SetDescription>;
  /** Changes what the part names and leaves the rest. */
  change(part: SetDescription): Promise<SetDescription>;
  /** Settings and set as new, no faults. Pages stay. */
  reset(): Promise<void>;

  /** Lets a call of the platform fail, such as "vconf_get_int": with that answer, so many times or (0) until it is
   *  cleared. `path` is a setting's name or path, or what `mirado fault --help` says for the calls that are not about
   *  settings; without it every path is meant. The desk's error names the calls and answers that there are. */
  fault(call: string, options?: { path?: string; answer?: number; times?: number }): Promise<void>;
  clearFaults(): Promise<void>;

  /** Loads settings, set and faults that were saved under this name. */
  scenario(name: string): Promise<void>;
  /** Saves them as they are, or as `scenario` has them. */
  saveScenario(name: string, scenario?: object): Promise<void>;

  /** The pages that have a plug-in now. */
  pages(): Promise<Page[]>;
  /** The newest page whose plug-in runs, and whose address contains `url`; waits for one. */
  page(options?: WaitOptions & { url?: string }): Promise<Page>;
  /** A page without a browser: the test speaks for it, with `send` and `post`. */
  openPage(description?: { title?: string; url?: string }): Promise<Page>;

  /** Any request to the desk's interface. Gives the answer's JSON. */
  call(method: string, path: string, body?: unknown): Promise<any>;

  /** Ends the desk and its plug-ins and removes the store. Whatever waits is rejected, and so is every later call. */
  stop(): Promise<void>;
  [Symbol.asyncDispose](): Promise<void>;
}

/** A page, as the desk last described it, and its dialogue with the plug-in. */
export interface Page {
  readonly id: string;
  readonly number: number;
  readonly title: string;
  readonly url: string;
  readonly state: "running" | "crashed";

  /** The oldest message with this command and these fields that the page has sent or posted and that was not given
   *  before; waits for one. */
  asked(command: string, fields?: Record<string, unknown>, options?: WaitOptions): Promise<any>;
  /** The same for what the plug-in has replied and delivered. */
  told(fields: Record<string, unknown>, options?: WaitOptions): Promise<any>;
  /** The same for the event of a change of the setting with this name. */
  event(setting: string, options?: WaitOptions): Promise<any>;
  /** Compares what the page has asked so far with `messages`; see `mirado verify`. */
  verify(messages: unknown[], options?: { order?: boolean; exact?: boolean }):
    Promise<{ ok: boolean; difference: string }>;

  /** The last 1000 messages in both directions, as the desk's interface describes them. */
  dialogue(): Promise<any[]>;
  /** The last 1000 lines of the plug-in's log. */
  log(): Promise<any[]>;
  /** The paths of the settings that it watches. */
  watching(): Promise<string[]>;

  /** Speaks for the page. Undefined when the plug-in gave no reply. */
  send(message: unknown): Promise<any>;
  post(message: unknown): Promise<void>;

  /** Kills the plug-in's process, as a crash does, and waits until it is gone. */
  kill(): Promise<void>;
  /** The page goes, and its plug-in with it. */
  leave(): Promise<void>;
}

declare global {
  interface SymbolConstructor {
    readonly asyncDispose: unique symbol;
  }
}
