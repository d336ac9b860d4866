// The stream of all events of the desk.
import { addressOf, get } from "./api.js";

const RETRY = 1000; // milliseconds

/**
 * Calls `handlers[kind](data)` for each event, `handlers.linked()` whenever all lists must be read again, and
 * `handlers.broken(error)` when the stream has ended or was refused; `error` is the failure of other requests, null
 * if they succeed.
 * A broken stream does not continue where it ended: another desk may answer by then, with other event numbers.
 */
export function follow(handlers) {
  // A WebSocket, because a browser opens only six streams of other kinds to one address.
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
