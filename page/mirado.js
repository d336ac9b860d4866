// The menu settings, as `propertyKey` names them. The library keeps to ES2017 because the set's engine is an old one.
export const MENU_KEY_CAPTION = 0;
export const MENU_KEY_CAPTION_MODE = 1;
export const MENU_KEY_DIGITAL_CAPTION_SIZE = 2;
export const MENU_KEY_DIGITAL_CAPTION_FONT_STYLE = 3;
export const MENU_KEY_DIGITAL_CAPTION_FONT_COLOR = 4;
export const MENU_KEY_DIGITAL_CAPTION_FONT_OPACITY = 5;
export const MENU_KEY_DIGITAL_CAPTION_BACKGROUND_COLOR = 6;
export const MENU_KEY_DIGITAL_CAPTION_BACKGROUND_OPACITY = 7;
export const MENU_KEY_DIGITAL_CAPTION_EDGE_TYPE = 8;
export const MENU_KEY_DIGITAL_CAPTION_EDGE_COLOR = 9;
export const MENU_KEY_DIGITAL_CAPTION_WINDOW_COLOR = 10;
export const MENU_KEY_DIGITAL_CAPTION_WINDOW_OPACITY = 11;
export const MENU_KEY_FOCUS_ZOOM = 12;
export const MENU_KEY_HIGH_CONTRAST = 13;
export const MENU_KEY_APPS_TICKER = 14;
export const MENU_KEY_TTS = 15;
export const MENU_KEY_SUBTITLE = 16;
export const MENU_KEY_SUBTITLE_MODE = 17;
export const MENU_KEY_PRIMARY_AUDIO_LANGUAGE = 18;
export const MENU_KEY_SECONDARY_AUDIO_LANGUAGE = 19;
export const MENU_KEY_VOICE_GUIDE_SPEED = 20;
export const MENU_KEY_DIGITAL_CAPTION_STYLE = 21;

// The one setting of the TV viewer; a key space of its own.
export const MIRADO_KEY_BG_EXECUTABLE = 0;

export class MiradoError extends Error {
  constructor(reply) {
    super(reply.errorMessage);
    this.name = reply.errorName;
    this.code = reply.code;
  }
}

export class PluginGoneError extends Error {
  constructor(reason) {
    super(reason);
    this.name = "PluginGoneError";
  }
}

function valueOf(reply) {
  if (reply.code !== 0) throw new MiradoError(reply);
  return reply.value;
}

// Messages that are bare strings, and mean that the plug-in handles no message (any more).
const LAST_WORDS = {
  "Unregister": "The plug-in has ended its registration.",
  "Error while registering MessageHandler": "The plug-in could not register its message handler.",
};

const clients = new WeakMap();

export function connect(element) {
  if (typeof (element && element.postMessageAndAwaitResponse) !== "function") {
    throw new TypeError("There is no plug-in in this element. At a desk: is the desk running, and does desk.js load?");
  }
  let client = clients.get(element);
  if (!client) {
    client = createClient(element);
    clients.set(element, client);
  }
  return client;
}

function createClient(element) {
  const writes = []; // The setMenuValue promises without a reply, in the order of posting.
  let answered = false; // Whether the plug-in has ever answered a waiting call.
  let gone = null;
  let announceGone;
  const whenGone = new Promise((resolve) => (announceGone = resolve));

  function end(reason) {
    if (gone) return;
    gone = new PluginGoneError(reason);
    clients.delete(element); // A later connect() starts afresh, with what the element may hold by then.
    for (const write of writes.splice(0)) write.reject(gone);
    announceGone(gone);
  }

  function ask(command, fields) {
    if (gone) throw gone;
    const reply = element.postMessageAndAwaitResponse(Object.assign({ command }, fields));
    if (reply === undefined || reply === null) {
      end("The plug-in went away before it answered " + command + ".");
      throw gone;
    }
    answered = true;
    return valueOf(reply);
  }

  // A message that is posted to a plug-in which was gone before this client listened is dropped without a word, and
  // the promise would never end. So the plug-in must have shown itself once.
  function setMenuValue(key, value) {
    return new Promise((resolve, reject) => {
      if (gone) throw gone;
      if (!answered) ask("getVersion");
      element.postMessage({ command: "setMenuValue", propertyKey: key, value });
      writes.push({ resolve, reject });
    });
  }

  // A reply names its command and nothing more, but replies come in the order of the requests. Replies to other posts,
  // the malformed ones among them, name another command or none.
  function settleWrite(reply) {
    const write = writes.shift();
    if (!write) return;
    if (reply.code === 0) write.resolve(reply.value);
    else write.reject(new MiradoError(reply));
  }

  const subscriptions = {};

  // The plug-in counts no subscriptions: one unregistration ends them all. So the first listener of a key registers
  // it, the last one unregisters it.
  function subscriber(event, register, unregister) {
    const listenersOf = new Map();
    subscriptions[event] = (key) => {
      const listeners = listenersOf.get(key);
      if (!listeners) return;
      for (const entry of Array.from(listeners)) {
        if (!listeners.has(entry)) continue; // Dropped by a listener before it.
        try {
          entry.listener(key);
        } catch (error) {
          setTimeout(() => { throw error; }); // Told to the page as uncaught, but not at the cost of the others.
        }
      }
    };
    return (key, listener) => {
      let listeners = listenersOf.get(key);
      if (!listeners) {
        ask(register, { propertyKey: key });
        listeners = new Set();
        listenersOf.set(key, listeners);
      }
      const entry = { listener }; // An object of its own, for the same function may subscribe twice.
      listeners.add(entry);
      return () => {
        if (!listeners.delete(entry) || listeners.size > 0) return;
        listenersOf.delete(key);
        if (!gone) ask(unregister, { propertyKey: key });
      };
    };
  }

  const client = {
    getVersion: () => ask("getVersion"),
    getMenuValue: (key) => ask("getMenuValue", { propertyKey: key }),
    getMiradoValue: (key) => ask("getMiradoValue", { propertyKey: key }),
    setMenuValue,
    showCaption: (show) => { ask("showCaption", { show }); },
    registerInAppCaptionControl: (status) => { ask("registerInAppCaptionControl", { status }); },
    isTVSPicSizeResized: () => ask("isTVSPicSizeResized"),
    onCaptionChanged: subscriber(
        "MIRADO_EVENT_CAPTION_CHANGED", "registerVconfKeysForCaption", "unRegisterVconfKeysForCaption"),
    onChanged: subscriber("MIRADO_EVENT_CHANGED", "registerVconfKeysForMirado", "unRegisterVconfKeysForMirado"),
    whenGone,
  };

  element.addEventListener("message", ({ data }) => {
    if (gone) return;
    if (typeof data === "string") {
      if (LAST_WORDS.hasOwnProperty(data)) end(LAST_WORDS[data]);
    } else if (data && data.command === "setMenuValue") {
      settleWrite(data);
    } else if (data && subscriptions.hasOwnProperty(data.event)) {
      subscriptions[data.event](data.value);
    }
  });
  // On the desk the event says more: without a status and a signal it was no crash, the desk has ended or never began.
  element.addEventListener("crash", ({ detail }) => {
    const crashed = !detail || detail.status !== null || detail.signal !== null;
    end(crashed ? "The plug-in has crashed." : "The plug-in is gone: " + detail.reason + ".");
  });

  return Object.freeze(client);
}
