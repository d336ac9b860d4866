// Gives every <embed type="application/x-mirado"> of this document a plug-in on the desk: `postMessage`,
// `postMessageAndAwaitResponse`, and `message` and `crash` events. Loaded with one script tag, from the desk itself.
(() => {
  "use strict";

  const TYPE = "application/x-mirado";
  const MAX_BODY = 65536; // bytes, as the desk takes them
  const RETRY = 500; // milliseconds between attempts to reach a desk that does not answer
  const PATIENCE = 5000; // milliseconds without a stream, after which a desk is taken to have done with its page
  const desk = new URL(document.currentScript.src);
  const bytes = (text) => new TextEncoder().encode(text).length;

  // A browser opens six connections to one address and no more, and each page holds one. So each page has an address of
  // its own where the desk has a name; browsers take all names below `localhost` to this machine.
  function addressOf(id) {
    const named = desk.hostname === "localhost" || desk.hostname.endsWith(".localhost");
    return named ? `${desk.protocol}//${id}.localhost:${desk.port}` : desk.origin;
  }

  // A request that the page waits for. Throws when the desk cannot be reached.
  function exchange(url, body) {
    const request = new XMLHttpRequest();
    request.open("POST", url, false);
    request.setRequestHeader("Content-Type", "application/json");
    request.send(body);
    const answer = JSON.parse(request.responseText);
    if (request.status >= 400) throw Object.assign(new Error(answer.error), { status: request.status });
    return answer;
  }

  // Parts entries so that the desk takes each part as one body.
  function* batchesOf(entries) {
    let batch = [];
    let size = 2;
    for (const entry of entries) {
      const more = bytes(entry.text) + 1;
      if (batch.length && size + more > MAX_BODY) {
        yield batch;
        batch = [];
        size = 2;
      }
      batch.push(entry);
      size += more;
    }
    if (batch.length) yield batch;
  }

  const bodyOf = (batch) => `[${batch.map(({ text }) => text)}]`;

  // One bad message lets the desk refuse the whole batch. Its entries then go one by one, and only that one is lost.
  const mustPart = (status, batch) => status === 400 && batch.length > 1;
  const reportLost = (reason) => console.error(`Mirado: a message is lost: ${reason}`);

  // The plug-in of one element.
  class Plugin {
    constructor(element) {
      this.element = element;
      this.posts = []; // what the desk has not confirmed yet, in order
      this.number = 0;
      this.posting = false;
      this.gone = false;
      try {
        this.open();
      } catch (error) {
        this.end({ reason: `the desk started no plug-in: ${error.message.replace(/\.$/, "")}` });
      }
    }

    open() {
      const title = this.element.dataset.title || document.title;
      const { id } = exchange(`${desk.origin}/api/pages`, JSON.stringify({ title, url: location.href }));
      this.address = `${addressOf(id)}/api/pages/${id}`;
      this.element.dataset.page = id;
      this.deliveries = new EventSource(`${this.address}/deliveries`);
      this.deliveries.addEventListener("message", ({ data }) =>
        this.element.dispatchEvent(new MessageEvent("message", { data: JSON.parse(data) })));
      this.deliveries.addEventListener("crash", ({ data }) => this.end(JSON.parse(data)));
      this.deliveries.addEventListener("lost", ({ data }) =>
        console.error(`Mirado: ${JSON.parse(data).count} messages of the plug-in came too fast and are lost`));
      // It reconnects on its own, for ever, unless the desk has answered that there is no such page any more.
      let broken = null; // since when
      this.deliveries.onopen = () => { broken = null; };
      this.deliveries.onerror = () => {
        broken ??= Date.now();
        if (this.deliveries.readyState === EventSource.CLOSED) this.end({ reason: "the desk has ended this page" });
        else if (Date.now() - broken > PATIENCE) this.end({ reason: "the desk does not answer any more" });
      };
    }

    // A message as it goes over the wire. The desk skips a number that it has seen, so that one may be sent again.
    entry(kind, message) {
      const json = JSON.stringify(message);
      if (json === undefined) throw new TypeError("The message is no JSON value.");
      const number = this.number + 1;
      const text = `{"n":${number},"${kind}":${json}}`;
      if (bytes(text) + 2 > MAX_BODY) throw new TypeError(`The message is over the desk's ${MAX_BODY} bytes.`);
      this.number = number;
      return { number, kind, text };
    }

    post(message) {
      const entry = this.entry("post", message);
      if (this.gone) return;
      this.posts.push(entry);
      if (!this.posting) this.deliverPosts();
    }

    async deliverPosts() {
      this.posting = true;
      while (this.posts.length && !this.gone) {
        const [batch] = batchesOf(this.posts);
        try {
          await this.deliver(batch);
          this.posts = this.posts.filter(({ number }) => number > batch.at(-1).number);
        } catch {
          await new Promise((resolve) => setTimeout(resolve, RETRY));
        }
      }
      this.posting = false;
    }

    // Throws where another attempt makes sense.
    async deliver(batch) {
      const headers = { "Content-Type": "application/json" };
      const answer = await fetch(`${this.address}/messages`, { method: "POST", headers, body: bodyOf(batch) });
      if (answer.status >= 500) throw new Error(answer.statusText);
      if (mustPart(answer.status, batch)) {
        for (const entry of batch) await this.deliver([entry]);
      } else if (!answer.ok) {
        reportLost(await answer.text());
      }
    }

    // The same while the page waits. Returns the answer to the last entry.
    deliverNow(batch) {
      let answer;
      try {
        answer = exchange(`${this.address}/messages`, bodyOf(batch));
      } catch (error) {
        if (mustPart(error.status, batch)) {
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
        // What was posted before must arrive before, even if its own request is still on its way.
        for (const batch of batchesOf([...this.posts, entry])) answer = this.deliverNow(batch);
      } catch (error) {
        if (error.status === 400) throw new TypeError(error.message);
        // When the process died, the stream brings the crash with its cause.
        console.error(`Mirado: no reply: ${error.message}`);
        if (error.name === "NetworkError") this.end({ reason: "the desk cannot be reached" });
        return undefined;
      }
      this.posts = [];
      return answer.reply === null ? undefined : answer.reply;
    }

    // The plug-in is gone. After a crash the stream stays open, so that the desk shows the page until it is closed;
    // otherwise there is nobody to ask any more.
    end({ status = null, signal = null, reason }) {
      if (this.gone) return;
      this.gone = true;
      if (status === null && signal === null) this.deliveries?.close();
      console.error(`Mirado: ${reason}`);
      const detail = { status, signal, reason };
      // Not at once: who made the element has had no time to listen.
      setTimeout(() => this.element.dispatchEvent(new CustomEvent("crash", { detail })));
    }

    leave() {
      this.gone = true;
      if (!this.deliveries) return;
      this.deliveries.close();
      navigator.sendBeacon(`${this.address}/leave`);
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
    Object.defineProperty(HTMLEmbedElement.prototype, name, { value, configurable: true, writable: true });
  }
  define("postMessage", (plugin, message) => plugin.post(message));
  define("postMessageAndAwaitResponse", (plugin, message) => plugin.send(message));

  // Elements that were called before they came into the document are in the map and not in the document; what counts is
  // that one was there and is not any more.
  function follow(changes) {
    for (const element of document.querySelectorAll(`embed[type="${TYPE}"]`)) pluginOf(element);
    for (const node of changes.flatMap(({ removedNodes }) => Array.from(removedNodes))) {
      for (const [element, plugin] of plugins) {
        if (node.contains(element) && !element.isConnected) {
          plugins.delete(element);
          plugin.leave();
        }
      }
    }
  }
  new MutationObserver(follow).observe(document, {
    childList: true, subtree: true, attributes: true, attributeFilter: ["type"],
  });
  follow([]);

  addEventListener("pagehide", () => plugins.forEach((plugin) => plugin.leave()));
  // A page that comes back out of the browser's memory has lost its plug-ins.
  addEventListener("pageshow", ({ persisted }) => { if (persisted) location.reload(); });
})();
