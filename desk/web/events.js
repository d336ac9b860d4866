// The stream of all that happens on the desk.
import { addressOf, get } from "./api.js";

const RETRY = 1000; // milliseconds

/**
 * Calls `handlers[kind](data)` for each event, `handlers.linked()` whenever all lists have to be read again, and
 * `handlers.broken(error)` when the stream has ended or was refused; `error` is why the desk answers no other request
 * either, null when it does.
 * A stream that broke is not taken up where it ended: the desk may be another one by then, which counts its events
 * anew.
 */
export function follow(handlers) {
  // A WebSocket, of which a browser opens more to one address than the six streams of other kinds.
  const socket = new WebSocket(`${location.origin.replace(/^http/, "ws")}${addressOf("/api/events")}`);
  socket.onopen = () => handlers.linked();
  socket.onmessage = ({ data }) => {
    const { event, data: content } = JSON.parse(data);
    if (event === "lost") handlers.linked();
    else handlers[event]?.(content);
  };
  socket.onclose = async () => {
    handlers.broken(await get("/api/desk").then(() => null, (error) => error));
    setTimeout(() => follow(handlers), RETRY);
  };
}
