// The calls of the set that can be made to fail, in words, and what makes a command of the plug-in fail.
import { settingAt, settingOf, shortName, state } from "./state.js";

// Descriptions of what fails; "@" is replaced by the setting or list of the fault.
const CALLS = {
  vconf_get_int: { text: "reading @", any: "any number" },
  vconf_get_bool: { text: "reading @", any: "any switch" },
  vconf_set_int: { text: "writing @", any: "any number" },
  vconf_set_bool: { text: "writing @", any: "any switch" },
  vconf_sync_key: { text: "saving @ to disk", any: "any setting" },
  vconf_notify_key_changed: { text: "starting to watch @", any: "any setting" },
  vconf_ignore_key_changed: { text: "ending the watch of @", any: "any setting" },
  system_info_get_custom_bool: { text: "asking whether the set has @", any: "any feature" },
  GetItemDataList: { text: "reading the list @", any: "of any name" },
  CreateVideoControl: { text: "getting the video control" },
  GetPictureSize: { text: "reading the picture size" },
  RegisterMessageHandler: { text: "registering the message handler" },
  GenericSyncCall: { text: "asking the embedder for @", any: "anything" },
};

/** What fails with a fault of `call`; the path "*" means any. */
export function describeCall(call, path = "*") {
  const known = CALLS[call];
  if (!known) return path === "*" ? call : `${call} of ${path}`;
  const setting = settingAt(path);
  return known.text.replace("@", path === "*" ? known.any ?? "" : setting ? shortName(setting) : path);
}

/** Whether the setting or list of a fault exists now; true if the page cannot know. */
export function isThere({ call, path }) {
  if (path === "*" || !state.values || !state.set) return true;
  if (call.startsWith("vconf_")) return state.values.has(path) || Boolean(settingAt(path));
  return call !== "GetItemDataList" || path in state.set.lists;
}

export const sentence = (text) => text[0].toUpperCase() + text.slice(1);

export const describeTimes = (times) => times === 0 ? "until cleared" : times === 1 ? "once" : `${times} times`;

/** "Reading CAPTION fails, once" */
export function describeFault({ call, path, times }) {
  return `${sentence(describeCall(call, path))} fails, ${describeTimes(times)}`;
}

const fault = (call, path, gives) => ({
  text: `${sentence(describeCall(call, path))} fails, once`, gives,
  isOn: () => state.faults.faults.some((each) => each.call === call && each.path === path),
  fault: { call, path, answer: -1, times: 1 },
});

const gate = (text, gives, part, undo, isOn) =>
  ({ text, gives, isOn: () => state.set !== null && isOn(state.set), part, undo });

/**
 * What makes a command fail: `text` says what, `gives` what the page gets, and `isOn()` whether it is so now. It is set
 * with the fault `fault`, or with a part of the set: `part` to have it, `undo` to have it no more. Null for what is no
 * command.
 */
export function failuresOf(message) {
  const { tables, commands, privilege } = state.catalog;
  const described = commands.find(({ name }) => name === message?.command);
  if (!described) return null;
  const command = described.name;
  const setting = described.table ? settingOf(described.table, message.propertyKey) : null;
  const path = setting?.path ?? "*";
  const kind = setting?.type === "bool" ? "bool" : "int";
  const delay = gate(`${command} takes 2 seconds longer`, "late", { latency: { [command]: 2000 } }, { latency: { [command]: null } },
    (set) => set.latency[command] !== undefined);
  const is = (role) => Object.values(tables).some((table) => table[role] === command);
  if (is("read")) return [fault(`vconf_get_${kind}`, path, "9999"), delay];
  if (is("watch")) return [fault("vconf_notify_key_changed", path, "9999"), delay];
  if (is("unwatch")) return [fault("vconf_ignore_key_changed", path, "9999"), delay];
  if (is("write")) {
    const list = setting?.values?.list;
    return [
      gate("The set is not a B2B product", "9", { b2b: false }, { b2b: true }, ({ b2b }) => b2b === false),
      gate("The set does not say whether it is a B2B product", "9", { b2b: null }, { b2b: true }, ({ b2b }) => b2b === null),
      gate("The application lacks the privilege (pages opened from now on)", "18", { privileges: { [privilege]: false } },
        { privileges: { [privilege]: true } }, ({ privileges }) => privileges[privilege] !== true),
      fault(`vconf_get_${kind}`, path, "9999"),
      ...list ? [fault("GetItemDataList", list, "9999")] : [],
      fault(`vconf_set_${kind}`, path, "26"), delay];
  }
  const published = { showCaption: "memory/webapp/caption", registerInAppCaptionControl: "memory/webapp/avplay" }[command];
  if (published) return [fault("vconf_set_int", published, "9999"), delay];
  if (command === "isTVSPicSizeResized") {
    return [gate("The set has no video control", "true", { pictureSize: null }, { pictureSize: 0 }, ({ pictureSize }) => pictureSize === null), delay];
  }
  return [delay];
}
