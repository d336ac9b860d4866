// Gives every <embed type="application/x-mirado"> of this document a plug-in on the desk: `postMessage`,
// `postMessageAndAwaitResponse`, and `message` and `crash` events. Loaded with one script tag, from the desk itself.
// It runs in an engine of generation 47, so it uses only what that engine supports.
(() => {
  "use strict";

  const TYPE = "application/x-mirado";
  const MAX_BODY = 65536; // bytes, the limit of the desk
  const RETRY = 500; // milliseconds between attempts to reach a desk that does not answer
  const PATIENCE = 5000; // milliseconds without a connection, after which the desk has ended the page

  // With the document's own getter, because an element named "currentScript" would hide it.
  const script = Object.getOwnPropertyDescriptor(Document.prototype, "currentScript").get.call(document);
  // A test that injects this script sets the address of the desk.
  const source = script ? script.src : self.miradoDesk;
  if (typeof source !== "string" || !source) {
    console.error("Mirado: desk.js is a classic script: load it with <script src=…>, not as a module or by import.");
    return;
  }
  const desk = new URL(source);
  const token = (/[?&]token=([^&]*)/.exec(desk.search) || [])[1];
  const addressOf = (path, query) => {
    const parts = [query, token && `token=${token}`].filter(Boolean).join("&");
    return desk.origin + path + (parts && `?${parts}`);
  };
  const bytes = (text) => new TextEncoder().encode(text).length;

  // A request that the page waits for. Throws when the desk cannot be reached.
  function exchange(path, body) {
    const request = new XMLHttpRequest();
    request.open("POST", addressOf(path), false);
    request.setRequestHeader("Content-Type", "application/json");
    request.send(body);
    const answer = JSON.parse(request.responseText);
    if (request.status >= 400) throw Object.assign(new Error(answer.error), { status: request.status });
    return answer;
  }

  // Splits entries into batches that fit into one request.
  function batchesOf(entries) {
    const batches = [];
    let size = MAX_BODY;
    for (const entry of entries) {
      const more = bytes(entry.text) + 1;
      if (size + more > MAX_BODY) {
        batches.push([]);
        size = 2;
      }
      batches[batches.length - 1].push(entry);
      size += more;
    }
    return batches;
  }

  const reportLost = (reason) => console.error(`Mirado: a message is lost: ${reason}`);

  // The plug-in of one element.
  class Plugin {
    constructor(element) {
      this.element = element;
      this.posts = []; // what the desk has not acknowledged yet, in order
      this.number = 0;
      this.last = 0; // the number of the last delivery
      this.broken = null; // the time when the connection was lost, or null
      this.gone = false;
      this.attached = false;
      try {
        this.open();
      } catch (error) {
        this.end({ reason: `the desk started no plug-in: ${error.message.replace(/\.$/, "")}` });
      }
    }

    open() {
      const title = this.element.dataset.title || document.title;
      const id = exchange("/api/pages", JSON.stringify({ title: title, url: location.href })).id;
      this.path = `/api/pages/${id}`;
      this.element.dataset.page = id;
      this.connect();
    }

    connect() {
      const address = addressOf(`${this.path}/socket`, `after=${this.last}`).replace(/^http/, "ws");
      const socket = this.socket = new WebSocket(address);
      socket.onopen = () => {
        this.broken = null;
        this.posts.forEach((entry) => socket.send(entry.text)); // The desk skips those that it has received.
      };
      socket.onmessage = (event) => this.hear(JSON.parse(event.data));
      socket.onclose = () => { if (!this.gone && this.socket === socket) this.askAgain(); };
    }

    // A failed socket gives no cause, so the page is requested to find it.
    askAgain() {
      this.broken = this.broken || Date.now();
      const request = new XMLHttpRequest();
      request.open("GET", addressOf(this.path));
      request.onloadend = () => {
        if (this.gone) return;
        if (request.status === 404) this.end({ reason: "the desk has ended this page" });
        else if (Date.now() - this.broken > PATIENCE) this.end({ reason: "the desk does not answer any more" });
        else setTimeout(() => { if (!this.gone) request.status === 200 ? this.connect() : this.askAgain(); }, RETRY);
      };
      request.send();
    }

    hear(said) {
      if (said.id) this.last = said.id;
      if (said.ack) {
        this.posts = this.posts.filter((entry) => entry.number > said.ack);
      } else if (said.error) {
        this.posts = this.posts.filter((entry) => entry.number !== said.refused);
        reportLost(said.error);
      } else if (said.event === "message") {
        this.element.dispatchEvent(new MessageEvent("message", { data: said.data }));
      } else if (said.event === "crash") {
        this.end(said.data);
      } else if (said.event === "lost") {
        console.error(`Mirado: ${said.data.count} messages of the plug-in came too fast and are lost`);
      }
    }

    // A message with its JSON. The desk skips a number that it has received, so that a message can be sent again.
    entry(kind, message) {
      const json = JSON.stringify(message);
      if (json === undefined) throw new TypeError("The message is not a JSON value.");
      const number = this.number + 1;
      const text = `{"n":${number},"${kind}":${json}}`;
      if (bytes(text) + 2 > MAX_BODY) throw new TypeError(`The message is over the desk's ${MAX_BODY} bytes.`);
      this.number = number;
      return { number: number, kind: kind, text: text };
    }

    post(message) {
      const entry = this.entry("post", message);
      if (this.gone) return;
      this.posts.push(entry);
      if (this.socket.readyState === WebSocket.OPEN) this.socket.send(entry.text);
    }

    // Returns the answer to the last entry.
    deliverNow(batch) {
      let answer;
      try {
        answer = exchange(`${this.path}/messages`, `[${batch.map((entry) => entry.text)}]`);
      } catch (error) {
        // The desk refuses a batch with an invalid message. Then each is sent alone, and only the invalid one is lost.
        if (error.status === 400 && batch.length > 1) {
          for (const entry of batch) answer = this.deliverNow([entry]);
        } else if (error.status === 400 && batch[0].kind === "post") {
          reportLost(error.message);
        } else {
          throw error;
        }
      }
      return answer;
    }

    send(message) {
      const entry = this.entry("send", message);
      if (this.gone) return undefined;
      let answer;
      try {
        // Earlier posts must be handled first, so those that are not acknowledged are sent again.
        for (const batch of batchesOf(this.posts.concat(entry))) answer = this.deliverNow(batch);
      } catch (error) {
        if (error.status === 400) throw new TypeError(error.message);
        // If the process died, the socket receives the crash with its cause.
        console.error(`Mirado: no reply: ${error.message}`);
        if (error.name === "NetworkError") this.end({ reason: "the desk cannot be reached" });
        return undefined;
      }
      this.posts = [];
      return answer.reply === null ? undefined : answer.reply;
    }

    // Ends the plug-in. After a crash the socket stays open, so that the desk shows the page until it is closed;
    // otherwise the desk has no page for it any more.
    end(cause) {
      if (this.gone) return;
      this.gone = true;
      const status = cause.status === undefined ? null : cause.status;
      const signal = cause.signal === undefined ? null : cause.signal;
      if (status === null && signal === null && this.socket) this.socket.close();
      console.error(`Mirado: ${cause.reason}`);
      const detail = { status: status, signal: signal, reason: cause.reason };
      this.element.pluginGone = detail;
      // Later, so that the code that creates the element can add its listener first.
      setTimeout(() => this.element.dispatchEvent(new CustomEvent("crash", { detail: detail })));
    }

    leave() {
      this.gone = true;
      if (!this.socket) return;
      this.socket.close();
      navigator.sendBeacon(addressOf(`${this.path}/leave`));
    }
  }

  const plugins = new Map();

  function pluginOf(element) {
    if (!plugins.has(element)) plugins.set(element, new Plugin(element));
    return plugins.get(element);
  }

  function define(name, call) {
    const value = function (message) {
      if (this.type !== TYPE) throw new TypeError(`This element is no ${TYPE} and has no ${name}.`);
      return call(pluginOf(this), message);
    };
    const property = { value: value, configurable: true, writable: true };
    Object.defineProperty(HTMLEmbedElement.prototype, name, property);
  }
  define("postMessage", (plugin, message) => plugin.post(message));
  define("postMessageAndAwaitResponse", (plugin, message) => plugin.send(message));

  // Also for elements in shadow roots.
  function isAttached(element) {
    let node = element;
    while (node && node !== document) node = node.parentNode || node.host;
    return node === document;
  }

  // An element may be called before it is in the document; only one that was in it and was removed counts.
  function follow() {
    for (const element of Array.from(document.querySelectorAll(`embed[type="${TYPE}"]`))) pluginOf(element);
    plugins.forEach((plugin, element) => {
      const attached = isAttached(element);
      if (plugin.attached && !attached) {
        plugins.delete(element);
        plugin.leave();
      }
      plugin.attached = attached;
    });
  }
  new MutationObserver(follow).observe(document, {
    childList: true, subtree: true, attributes: true, attributeFilter: ["type"],
  });
  follow();

  addEventListener("pagehide", () => plugins.forEach((plugin) => plugin.leave()));
  // A page that the browser restores from its back/forward cache has lost its plug-ins.
  addEventListener("pageshow", (event) => { if (event.persisted) location.reload(); });
})();
