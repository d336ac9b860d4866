// HTTP with the desk. `fetch` is not used, because loading it takes longer than a desk takes to start.
import { EventEmitter, once, setMaxListeners } from "node:events";
import { Agent, request as httpRequest } from "node:http";

/** Returns functions that send requests to the desk at `url`. `authorization` is an object with the header for the
 *  desk's token, or an empty one. `disconnect` makes all pending and later calls fail. */
export function connectTo(url, authorization) {
  const address = { hostname: "127.0.0.1", port: new URL(url).port };
  const agent = new Agent({ keepAlive: true }); // an idle connection does not keep this process running
  const connected = new AbortController();
  setMaxListeners(0, connected.signal);

  async function send(method, path, options, text, read) {
    try {
      const headers = { ...authorization, ...options.headers };
      const { signal } = connected;
      const request = httpRequest({ ...address, method, path, signal, ...options, headers }).end(text);
      const [answer] = await once(request, "response");
      return await read(answer.setEncoding("utf8"), request);
    } catch (cause) {
      const why = connected.signal.aborted ? "the set has been stopped" : "the desk does not answer";
      throw new Error(`mirado-desk: ${method} ${path}: ${why}`, { cause });
    }
  }

  // Resolves with the answer's JSON, or with its text if it is not JSON. Throws an Error with the desk's text.
  async function call(method, path, body) {
    const text = body === undefined ? "" : JSON.stringify(body);
    const headers = { "Content-Length": Buffer.byteLength(text), ...text && { "Content-Type": "application/json" } };
    const [answer, said] = await send(method, path, { agent, headers }, text,
      async (answer) => [answer, (await answer.toArray()).join("")]);
    const json = /^application\/json(;|$)/.test(answer.headers["content-type"]) ? JSON.parse(said) : null;
    if (answer.statusCode < 300) return json ?? said;
    const error = new Error(`mirado-desk: ${method} ${path}: ${json?.error ?? said}`);
    throw Object.assign(error, { status: answer.statusCode, code: json?.code });
  }

  // Reads the stream of server-sent events at `path`. It does not keep this process running. Resolves with an emitter
  // of "event" with {event, data}. When the stream ends, it emits an event "lost".
  const follow = (path) => send("GET", path, { agent: false }, "", (answer, request) => {
    const emitter = new EventEmitter().setMaxListeners(0);
    request.on("error", () => {}).socket.unref();
    read(answer, emitter).catch(() => {}).then(() => emitter.emit("event", { event: "lost" }));
    return emitter;
  });

  return { call, follow, disconnect: () => { connected.abort(); agent.destroy(); } };
}

async function read(stream, emitter) {
  let text = "";
  for await (const chunk of stream) {
    const parts = (text + chunk).split("\n\n");
    text = parts.pop();
    for (const part of parts) {
      const event = /^event: ?(.*)$/m.exec(part);
      const data = /^data: ?(.*)$/m.exec(part);
      if (event && data) emitter.emit("event", { event: event[1], data: JSON.parse(data[1]) });
    }
  }
}
