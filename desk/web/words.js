// Messages between a page and its plug-in, in words.
import { settingOf, shortName, state } from "./state.js";

const json = (value) => JSON.stringify(value) ?? "";
export const describeValue = json;

/** `{setting, text, rest}` of a request: the setting that it is about or null, the command, its other fields. */
export function describeRequest(body) {
  if (typeof body?.command !== "string") return { setting: null, text: json(body), rest: "" };
  const { command, propertyKey, ...others } = body;
  const table = state.catalog.commands.find(({ name }) => name === command)?.table;
  const setting = table ? settingOf(table, propertyKey) ?? null : null;
  const fields = Object.entries(others).map(([name, value]) => name === "value" ? `= ${json(value)}` : `${name} ${json(value)}`);
  if (propertyKey !== undefined) fields.unshift(setting ? shortName(setting) : `key ${json(propertyKey)}`);
  return { setting, text: command, rest: fields.join(" ") };
}

/** `{failed, text}` of a reply, null if the plug-in gave none. */
export function describeReply(reply) {
  if (reply === null) return { failed: true, text: "no reply" };
  if (typeof reply?.code !== "number") return { failed: false, text: json(reply) };
  if (reply.code !== 0) return { failed: true, text: `${reply.code} ${reply.errorMessage.trim()}` };
  return { failed: false, text: reply.value === null ? "done" : json(reply.value) };
}

/** `{setting, text, rest}` of a message that the plug-in posts. */
export function describeDelivery(body) {
  const table = Object.keys(state.catalog.tables).find((name) => state.catalog.tables[name].event === body?.event);
  const setting = table ? settingOf(table, body.value) ?? null : null;
  if (setting) return { setting, text: "changed", rest: shortName(setting) };
  if (typeof body?.event === "string") return { setting, text: body.event, rest: json(body.value) };
  return { setting, text: json(body), rest: "" };
}

export function describeEnd({ status, signal, reason }) {
  if (signal === 9) return "was killed (signal 9)";
  if (signal !== null) return `crashed with signal ${signal}`;
  if (status !== null) return `ended with status ${status}`;
  return reason;
}

/** Milliseconds as text for the user. */
export const describeDuration = (milliseconds) =>
  milliseconds < 1 ? `${milliseconds.toFixed(2)} ms` : milliseconds < 10 ? `${milliseconds.toFixed(1)} ms` :
    milliseconds < 10_000 ? `${Math.round(milliseconds)} ms` : `${(milliseconds / 1000).toFixed(1)} s`;
