// Composes a message and sends it to the plug-in of the chosen page, as the page itself would.
import * as api from "./api.js";
import { attempt } from "./banner.js";
import { byId, fillSelect, make, setText, showInvalid } from "./dom.js";
import { failuresOf } from "./failures.js";
import { showComposer } from "./layout.js";
import { readSet } from "./set-state.js";
import { changed, listeningPage, observe, openPages, selectedPage, settingOf, shortName, state } from "./state.js";
import { describeReply, describeRequest } from "./words.js";

const MAX_HISTORY = 100;
const command = byId("command");
const key = byId("key");
const value = byId("value");
const message = byId("message");

const history = JSON.parse(sessionStorage.getItem("history") ?? "[]"); // oldest first
let at = history.length; // the index of the entry that is shown; after the last it is the unsent message
let draft = "";
let awaitsFocus = false;

const commandOf = (name) => state.catalog.commands.find((each) => each.name === name);
const valueField = () => commandOf(command.value)?.fields.find((field) => field !== "propertyKey");

// Input that is not JSON is a text.
function parse(text) {
  try {
    return JSON.parse(text);
  } catch {
    return text;
  }
}

// The fields fill in the message, which may then be edited.
function compose() {
  const described = commandOf(command.value);
  if (!described) return;
  const request = { command: described.name };
  if (described.table) request.propertyKey = Number(key.value);
  if (valueField()) request[valueField()] = parse(value.value);
  message.value = JSON.stringify(request);
  at = history.length;
  showKind();
}

function chooseCommand() {
  const described = commandOf(command.value);
  if (!described) return;
  byId("key-field").hidden = !described.table;
  if (described.table) {
    fillSelect(key, state.catalog.settings.filter(({ table }) => table === described.table)
      .map((setting) => ({ value: setting.key, text: `${setting.key} ${shortName(setting)}` })));
  }
  byId("value-field").hidden = !valueField();
  byId("value-name").textContent = valueField() ?? "";
  offerValues();
  compose();
}

// The values with a meaning for this setting.
function offerValues() {
  const described = commandOf(command.value);
  const setting = described?.table ? settingOf(described.table, Number(key.value)) : null;
  const list = setting?.values?.list;
  const known = list ? (state.set?.lists[list] ?? []).map((item) => [item.value, item.label]) :
    Object.entries(setting?.values ?? {}).filter(([name]) => /^-?\d+$/.test(name));
  byId("value-presets").replaceChildren(...(known.length ? known : [[0, ""], [1, ""]])
    .map(([preset, label]) => make("option", { value: preset, textContent: label })));
}

// A post does not wait for a reply; an unknown command is sent.
function kindOf(text) {
  return commandOf(parse(text)?.command)?.posted ? "post" : "send";
}

const NAMES = { send: "Send", post: "Post" };
const TITLES = { send: "Wait for the reply", post: "Do not wait; a reply comes as a message" };

// Send stays before Post. A button that has the focus is not moved, because it would lose it.
function keepOrder(isSendUsual) {
  const [usual, other] = [byId("say"), byId("say-other")];
  const [send, post] = isSendUsual ? [usual, other] : [other, usual];
  if (send.nextElementSibling === post) return;
  if (document.activeElement === send) send.after(post);
  else post.before(send);
}

function showKind() {
  const kind = kindOf(message.value);
  const other = kind === "send" ? "post" : "send";
  byId("say").textContent = NAMES[kind];
  byId("say").title = `${TITLES[kind]} (Enter)`;
  byId("say-other").textContent = NAMES[other];
  keepOrder(kind === "send");
  byId("say-other").title = `${TITLES[other]} (Alt+Enter)`;
  showInvalid(message, byId("message-error"), "");
  showFailures();
}

async function submit(other = false) {
  const page = listeningPage();
  if (!page) return;
  let body;
  try {
    body = JSON.parse(message.value);
  } catch {
    showInvalid(message, byId("message-error"), "The message is not JSON. Put texts and names in double quotes.");
    message.focus();
    return;
  }
  const usual = kindOf(message.value);
  const kind = other ? usual === "send" ? "post" : "send" : usual;
  remember(message.value);
  byId("outcome").textContent = "";
  await attempt("message", async () => {
    const { reply } = await api.say(page.id, { [kind]: body });
    if (kind !== "send") return;
    const { text, rest } = describeRequest(body);
    byId("outcome").textContent = `${text} ${rest} gives ${describeReply(reply).text}`; // for screen readers
  });
}

function remember(text) {
  if (history.at(-1) !== text) history.push(text);
  history.splice(0, history.length - MAX_HISTORY);
  sessionStorage.setItem("history", JSON.stringify(history));
  at = history.length;
}

function recall(step) {
  const to = Math.min(Math.max(at + step, 0), history.length);
  if (to === at) return;
  if (at === history.length) draft = message.value;
  at = to;
  message.value = at === history.length ? draft : history[at];
  message.setSelectionRange(message.value.length, message.value.length);
  showKind();
}

// The failures of the command, each with a switch.
function showFailures() {
  const failures = failuresOf(parse(message.value));
  if (!failures) return; // the input is not a valid message yet
  const on = failures.filter((failure) => failure.isOn()).length;
  byId("failures-title").textContent = on ? `Make it fail (${on} on)` : "Make it fail";
  const list = byId("failure-list");
  const focused = [...list.children].findIndex((row) => row.contains(document.activeElement));
  list.replaceChildren(...failures.map((failure) => make("li", {},
    make("button", { type: "button", "aria-pressed": String(failure.isOn()), onclick: () => toggle(failure) },
      make("span", { className: "what" }, failure.text),
      make("span", { className: "gives" }, `→ ${failure.gives}`)))));
  list.children[focused]?.firstElementChild.focus();
}

function toggle(failure) {
  const on = failure.isOn();
  return attempt("set", async () => {
    if (!failure.fault) await api.patch("/api/set", on ? failure.undo : failure.part);
    else if (on) await api.remove(`/api/faults?${new URLSearchParams({ call: failure.fault.call, path: failure.fault.path })}`);
    else await api.post("/api/faults", failure.fault);
    await readSet();
  });
}

command.onchange = chooseCommand;
key.onchange = () => {
  offerValues();
  compose();
};
value.oninput = compose;
message.oninput = showKind;
message.onkeydown = (event) => {
  if (event.key === "Enter") {
    event.preventDefault();
    submit(event.altKey);
  } else if (event.key === "ArrowUp" || event.key === "ArrowDown") {
    event.preventDefault();
    recall(event.key === "ArrowUp" ? -1 : 1);
  }
};
byId("composer").onsubmit = (event) => {
  event.preventDefault();
  submit();
};
byId("say-other").onclick = () => submit(true);

observe(["catalog"], () => {
  const chosen = command.value;
  fillSelect(command, state.catalog.commands.map(({ name, posted }) => ({ value: name, text: posted ? `${name} (posted)` : name })));
  if (chosen && chosen === command.value) return; // what is being composed stays
  command.value = commandOf("getMenuValue") ? "getMenuValue" : command.value;
  chooseCommand();
});
observe(["set", "faults"], () => {
  offerValues();
  showFailures();
});
/** Focuses the message field as soon as there is a plug-in to send to. */
export function focusMessage() {
  showComposer();
  awaitsFocus = true;
  changed("selected");
}

// Why nothing can be sent now; empty if it can.
function whyNot() {
  const page = selectedPage();
  if (!state.linked) return "Messages can be sent when this page is connected to the desk again.";
  if (state.desk?.store.error) return "Messages can be sent when the store can be used again.";
  if (!page) return `${openPages().length ? "Choose" : "Open"} a page or a console to send messages to its plug-in.`;
  return page.state === "running" ? "" : "Its plug-in has ended. Nothing can be sent to it.";
}

observe(["pages", "selected", "linked", "desk"], () => {
  setText(byId("why-not"), whyNot());
  byId("why-not").hidden = !whyNot();
  byId("failures").hidden = !byId("why-not").hidden;
  if (awaitsFocus && listeningPage()) {
    awaitsFocus = false;
    queueMicrotask(() => message.focus()); // after everything is shown: a hidden field cannot get the focus
  }
});
