// The console: puts messages together, sends them as a page does, and shows the dialogue of any open page.
import * as keys from "./mirado.js";
import * as api from "./api.js";
import { appendRows, attempt, byId, fillSelect, make, MAX_ROWS, showError, timeOf } from "./dom.js";

const menuKeys = keysOf("MENU_KEY_");
const miradoKeys = keysOf("MIRADO_KEY_");

function keysOf(prefix) {
  return Object.entries(keys).filter(([name]) => name.startsWith(prefix))
    .map(([name, value]) => ({ value, text: `${value} ${name.slice(prefix.length)}` }))
    .sort((one, other) => one.value - other.value);
}

// What each command takes: a key of one of the tables, and a value under some name with presets for it.
const COMMANDS = {
  getVersion: {},
  getMenuValue: { keys: menuKeys },
  getMiradoValue: { keys: miradoKeys },
  setMenuValue: { keys: menuKeys, value: "value", presets: [0, 1, 2, 3], posted: true },
  registerVconfKeysForCaption: { keys: menuKeys },
  unRegisterVconfKeysForCaption: { keys: menuKeys },
  registerVconfKeysForMirado: { keys: miradoKeys },
  unRegisterVconfKeysForMirado: { keys: miradoKeys },
  showCaption: { value: "show", presets: [1, 0] },
  registerInAppCaptionControl: { value: "status", presets: [1, 0] },
  isTVSPicSizeResized: {},
};
export const commands = Object.keys(COMMANDS);

const command = byId("command");
const key = byId("key");
const value = byId("value");
const message = byId("message");
const list = byId("dialogue");
const shown = byId("dialogue-page");
const error = byId("console-error");
let own = null; // the id of the console's own page
let awaited = null; // that page, until it is listed
let emptied = 0; // how often; what was asked for before the last time is of no use any more
let entries = []; // the dialogue as it is shown
let last = 0; // the number of the newest entry that was ever shown of this page

// The fields fill the message, which may then be edited at will.
function compose() {
  const needs = COMMANDS[command.value];
  const request = { command: command.value };
  if (needs.keys) request.propertyKey = Number(key.value);
  if (needs.value) request[needs.value] = parse(value.value);
  message.value = JSON.stringify(request);
}

// What is no JSON is meant as text.
function parse(text) {
  try {
    return JSON.parse(text);
  } catch {
    return text;
  }
}

function chooseCommand() {
  const { keys: options, value: name, presets = [], posted } = COMMANDS[command.value];
  byId("key-field").hidden = !options;
  if (options) fillSelect(key, options);
  byId("value-field").hidden = !name;
  byId("value-field").firstElementChild.textContent = name ? name[0].toUpperCase() + name.slice(1) : "";
  byId("value-presets").replaceChildren(...presets.map((preset) => make("option", { value: preset })));
  if (name) value.value = "1";
  byId("send").classList.toggle("usual", !posted);
  byId("post").classList.toggle("usual", Boolean(posted));
  compose();
}

// The page must not stand still while a slow command runs, so this is the desk's call and not the element's.
function submit(kind) {
  return attempt(error, () => {
    let body;
    try {
      body = JSON.parse(message.value);
    } catch {
      throw new Error("the message is no JSON");
    }
    return api.post(`/api/pages/${own}/messages`, { [kind]: body });
  });
}

const WORDS = {
  send: { sign: "→", word: "send" },
  post: { sign: "⇢", word: "post" },
  reply: { sign: "←", word: "reply" },
  message: { sign: "⇠", word: "message" },
  crash: { sign: "✕", word: "crash" },
};

function rowOf({ time, kind, body, duration }) {
  const { sign, word } = WORDS[kind];
  const outcome = outcomeOf(kind, body);
  return make("li", { className: `${kind} ${outcome.failed ? "failed" : ""}`, title: JSON.stringify(body) },
    make("time", {}, timeOf(time)),
    make("span", { className: "kind" }, make("span", { "aria-hidden": "true" }, sign), ` ${word}`),
    make("span", { className: "code" }, outcome.text),
    make("code", {}, JSON.stringify(body, withoutEmpty)),
    make("span", { className: "duration" }, duration ? `${duration.toFixed(duration < 10 ? 2 : 0)} ms` : ""));
}

// A good reply says twice that there is no error; the list has better use for the room.
const withoutEmpty = (name, member) => /^error(Name|Message)$/.test(name) && member === "" ? undefined : member;

function outcomeOf(kind, body) {
  if (kind === "crash") return { failed: true, text: `✕ ${body.signal ? `signal ${body.signal}` : `status ${body.status}`}` };
  if (kind === "reply" && body === null) return { failed: true, text: "✕ none" };
  if ((kind !== "reply" && kind !== "message") || typeof body?.code !== "number") return { failed: false, text: "" };
  return body.code === 0 ? { failed: false, text: "✓ 0" } : { failed: true, text: `✕ ${body.code}` };
}

function append(more) {
  entries = entries.concat(more).slice(-MAX_ROWS);
  last = more.at(-1)?.n ?? last;
  appendRows(list, more.map(rowOf));
}

function showDialogue() {
  clear();
  last = 0;
  const asked = emptied;
  if (shown.value) attempt(error, async () => {
    const { dialogue } = await api.get(`/api/pages/${shown.value}/dialogue`);
    if (asked !== emptied) return;
    const read = dialogue.at(-1)?.n ?? 0;
    const meanwhile = entries.filter(({ n }) => n > read); // came while the list was on its way
    clear();
    append(dialogue.concat(meanwhile));
  });
}

function clear() {
  ++emptied;
  entries = [];
  list.replaceChildren();
}

export function addDialogue(more) {
  append(more.filter(({ page, n }) => page === shown.value && n > last));
}

// `anew`: the dialogue may have grown unnoticed.
export function showPages(pages, anew) {
  const before = shown.value;
  fillSelect(shown, pages.map(({ id, number, title, state }) => {
    const name = id === own ? "console" : title || "page";
    return { value: id, text: `#${number} ${name}${state === "crashed" ? " ✕" : ""}` };
  }));
  const listed = (id) => pages.some((page) => page.id === id);
  if (listed(awaited) || (!listed(before) && listed(own))) {
    shown.value = own;
    awaited = null;
  }
  byId("save").disabled = byId("kill").disabled = !shown.value;
  if (anew || shown.value !== before) showDialogue();
}

// The console's page has a new plug-in; its own dialogue is the one to be seen, as soon as the page is listed.
export function usePage(id) {
  own = id;
  const isListed = [...shown.options].some(({ value: listed }) => listed === id);
  awaited = isListed ? null : id;
  if (isListed && shown.value !== id) {
    shown.value = id;
    showDialogue();
  }
}

// As `mirado host` would have it on its input and output.
function asJsonLines() {
  return entries.filter(({ kind }) => kind in WORDS && kind !== "crash")
    .map(({ kind, body }) => JSON.stringify({ [kind]: body })).join("\n") + "\n";
}

function saveSession() {
  const number = /^p(\d+)/.exec(shown.value)[1];
  make("a", { href: `/api/pages/${shown.value}/session`, download: `session-${number}.jsonl` }).click();
}

fillSelect(command, commands.map((name) => ({ value: name, text: name })));
command.value = "getMenuValue";
chooseCommand();
command.onchange = chooseCommand;
key.onchange = compose;
value.oninput = compose;
byId("composer").onsubmit = (event) => {
  event.preventDefault();
  submit("send");
};
byId("post").onclick = () => submit("post");
message.onkeydown = (event) => {
  if (event.key === "Enter" && event.altKey) {
    event.preventDefault();
    submit("post");
  }
};
shown.onchange = showDialogue;
byId("clear").onclick = () => {
  clear();
  showError(error, null);
};
byId("copy").onclick = () => attempt(error, async () => {
  await navigator.clipboard.writeText(asJsonLines());
  byId("copy").textContent = "Copied";
  setTimeout(() => { byId("copy").textContent = "Copy"; }, 1500);
});
byId("save").onclick = saveSession;
byId("kill").onclick = () => attempt(error, () => api.post(`/api/pages/${shown.value}/kill`));
