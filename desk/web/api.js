// The desk's HTTP interface.

async function request(method, path, body) {
  const options = { method };
  if (body !== undefined) {
    options.headers = { "Content-Type": "application/json" };
    options.body = JSON.stringify(body);
  }
  let response;
  try {
    response = await fetch(path, options);
  } catch {
    throw new Error("the desk does not answer");
  }
  const answer = await response.json();
  if (!response.ok) throw new Error(answer.error);
  return answer;
}

export const get = (path) => request("GET", path);
export const post = (path, body) => request("POST", path, body);
export const put = (path, body) => request("PUT", path, body);
export const patch = (path, body) => request("PATCH", path, body);
export const remove = (path) => request("DELETE", path);

// All that happens on the desk. `handlers` has a function for each kind of event, and `linked(bool)` for the connection
// itself; it is called with true whenever all lists have to be read again. A stream that broke is not taken up where it
// ended: the desk may be another one by then, which counts its events anew.
export function follow(handlers) {
  // An address of its own: open streams of other tabs must not use up the six connections that a browser allows.
  const named = location.hostname === "localhost";
  const name = `desk-${Math.random().toString(36).slice(2)}.localhost`;
  const stream = new EventSource(named ? `http://${name}:${location.port}/api/events` : "/api/events");
  stream.onopen = () => handlers.linked(true);
  stream.onerror = () => {
    stream.close();
    handlers.linked(false);
    setTimeout(() => follow(handlers), 1000);
  };
  stream.addEventListener("lost", () => handlers.linked(true));
  for (const kind of ["setting", "set", "page", "gone", "dialogue", "log"]) {
    stream.addEventListener(kind, ({ data }) => handlers[kind](JSON.parse(data)));
  }
}
