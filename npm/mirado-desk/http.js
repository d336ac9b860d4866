// HTTP with the desk. Not fetch: loading that takes longer than a desk takes to start.
import { EventEmitter, once } from "node:events";
import { Agent, request as httpRequest } from "node:http";

const address = (url) => ({ hostname: "127.0.0.1", port: new URL(url).port });

/** Gives a function that sends requests to the desk at `url`, and one that ends their connections. `authorization` is
 *  the header with the desk's token, or no header where the desk has none. */
export function connectTo(url, authorization) {
  const agent = new Agent({ keepAlive: true });

  // The answer's JSON, or its text where it is none. Throws with the desk's own words.
  async function call(method, path, body) {
    const text = body === undefined ? "" : JSON.stringify(body);
    const type = text && { "Content-Type": "application/json" };
    const headers = { ...authorization, "Content-Length": Buffer.byteLength(text), ...type };
    const request = httpRequest({ ...address(url), agent, method, path, headers }).end(text);
    let answer;
    try {
      [answer] = await once(request, "response");
    } catch (error) {
      throw new Error(`mirado-desk: ${method} ${path}: the desk does not answer`, { cause: error });
    }
    const said = (await answer.setEncoding("utf8").toArray()).join("");
    const json = /^application\/json(;|$)/.test(answer.headers["content-type"]) ? JSON.parse(said) : null;
    if (answer.statusCode < 300) return json ?? said;
    const error = new Error(`mirado-desk: ${method} ${path}: ${json?.error ?? said}`);
    throw Object.assign(error, { status: answer.statusCode, code: json?.code });
  }

  return { call, disconnect: () => agent.destroy() };
}

/** Follows the stream of server-sent events at `path`. Emits "event" with {event, data}; `close` ends it. */
export async function followEvents(url, path, authorization) {
  const request = httpRequest({ ...address(url), path, headers: authorization, agent: false }).end();
  const emitter = Object.assign(new EventEmitter(), { close: () => request.destroy() });
  emitter.setMaxListeners(0);
  const [answer] = await once(request, "response");
  request.on("error", () => {}); // it ends with the desk or with close()
  read(answer.setEncoding("utf8"), emitter).catch(() => {});
  return emitter;
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
