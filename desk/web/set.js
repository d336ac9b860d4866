// The simulated set: what it is, what fails, and what takes long.
import * as api from "./api.js";
import { attempt, byId, fillSelect, make } from "./dom.js";

const PRIVILEGE = "http://norvika.com/privilege/mirado";
const USUAL_PICTURE_SIZE = 0;
const error = byId("set-error");

const parts = ["b2b", "privilege", "video-control", "picture-size", "primary-list", "secondary-list", "offered",
  "embedder-name"].reduce((all, id) => ({ ...all, [id]: byId(id) }), {});

// Writes a field unless somebody is typing in it at this moment.
function showText(field, text) {
  if (document.activeElement !== field) field.value = text;
}

const asLines = (list) => (list ?? []).map(({ value, label }) => `${value} ${label}`).join("\n");

function fromLines(text) {
  return text.split("\n").map((line) => line.trim()).filter(Boolean).map((line) => {
    const [, value, label] = /^(\S+)\s*(.*)$/.exec(line);
    if (!/^[+-]?\d+$/.test(value)) throw new Error(`"${line}" does not begin with a number`);
    return { value: Number(value), label };
  });
}

export function show(set) {
  parts.b2b.value = String(set.b2b);
  parts.privilege.checked = set.privileges[PRIVILEGE] === true;
  parts["video-control"].checked = set.pictureSize !== null;
  parts["picture-size"].disabled = set.pictureSize === null;
  showText(parts["picture-size"], set.pictureSize ?? "");
  showText(parts["primary-list"], asLines(set.lists["primary-audio-language"]));
  showText(parts["secondary-list"], asLines(set.lists["secondary-audio-language"]));
  parts.offered.checked = set.embedder.offered;
  showText(parts["embedder-name"], set.embedder.name);
  byId("latencies").replaceChildren(...Object.entries(set.latency).map(([command, milliseconds]) =>
    entry(`${command}: ${milliseconds} ms`, () => change({ latency: { [command]: null } }))));
}

// Faults that go when they have answered often enough tell nobody that they did.
export let countsDown = false;

export function showFaults({ calls, faults }) {
  countsDown = faults.some(({ times }) => times > 0);
  const select = byId("fault-call");
  if (!select.options.length) fillSelect(select, calls.map(({ name }) => ({ value: name, text: name })));
  byId("faults").replaceChildren(...faults.map(({ call, path, answer, times }) => {
    const how = times === 0 ? "until cleared" : times === 1 ? "once more" : `${times} times more`;
    const clear = () => act(() => api.remove(`/api/faults?${new URLSearchParams({ call, path })}`));
    return entry(`${call} ${path} answers ${answer}, ${how}`, clear);
  }));
}

function entry(text, remove) {
  return make("li", {}, make("span", {}, text),
    make("button", { type: "button", "aria-label": `Clear ${text}`, title: "Clear", onclick: remove }, "✕"));
}

const act = (action) => attempt(error, action);

async function change(part) {
  if (await act(async () => show(await api.patch("/api/set", part)))) return;
  api.get("/api/set").then(show, () => {}); // What went wrong has been told.
}

parts.b2b.onchange = () => change({ b2b: JSON.parse(parts.b2b.value) });
parts.privilege.onchange = () => change({ privileges: { [PRIVILEGE]: parts.privilege.checked } });
parts["video-control"].onchange =
  () => change({ pictureSize: parts["video-control"].checked ? USUAL_PICTURE_SIZE : null });
parts["picture-size"].onchange = () => change({ pictureSize: Number(parts["picture-size"].value) });
parts.offered.onchange = () => change({ embedder: { offered: parts.offered.checked } });
parts["embedder-name"].onchange = () => change({ embedder: { name: parts["embedder-name"].value } });
for (const id of ["primary-list", "secondary-list"]) {
  const field = parts[id];
  field.onchange = () => act(async () => {
    const items = fromLines(field.value);
    show(await api.patch("/api/set", { lists: { [field.dataset.list]: items } }));
  });
}

byId("fault-form").onsubmit = (event) => {
  event.preventDefault();
  act(() => api.post("/api/faults", {
    call: byId("fault-call").value,
    path: byId("fault-path").value,
    answer: Number(byId("fault-answer").value),
    times: Number(byId("fault-times").value),
  }));
};

byId("latency-form").onsubmit = (event) => {
  event.preventDefault();
  change({ latency: { [byId("latency-command").value]: Number(byId("latency-ms").value) } });
};

byId("reset").onclick = () => act(() => api.post("/api/reset"));

// `commands` are those that may be held back.
export function offer(commands) {
  fillSelect(byId("latency-command"), commands.map((name) => ({ value: name, text: name })));
}

// `paths` are those that a fault is most often meant for.
export function offerPaths(paths) {
  byId("fault-paths").replaceChildren(...["*", ...paths].map((value) => make("option", { value })));
}
