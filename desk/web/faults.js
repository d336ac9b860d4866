// The faults and delays of the set.
import * as api from "./api.js";
import { attempt } from "./banner.js";
import { byId, fillSelect, make, showInvalid } from "./dom.js";
import { describeCall, describeFault, isThere, sentence } from "./failures.js";
import { change } from "./set.js";
import { readSet } from "./set-state.js";
import { observe, settingAt, shortName, state } from "./state.js";

const ANY = "any";
let shown = "[]";

// A list entry with a button that removes it. The focus then moves to the next entry, or to the form below.
function entry(text, title, remove) {
  const row = make("li", {}, make("span", { title }, text),
    make("button", { type: "button", "aria-label": `Clear: ${text}`, title: "Clear", className: "remove", onclick: remove }));
  return row;
}

function fill(list, entries, form) {
  const focused = [...list.children].findIndex((row) => row.contains(document.activeElement));
  list.replaceChildren(...entries);
  if (focused >= 0) (list.children[Math.min(focused, entries.length - 1)] ?? form).querySelector("button, select").focus();
}

function clear({ call, path }) {
  return attempt("fault", async () => {
    await api.remove(`/api/faults?${new URLSearchParams({ call, path })}`);
    await readSet();
  });
}

function showPlace() {
  const call = state.faults.calls.find(({ name }) => name === byId("fault-call").value);
  byId("fault-place").hidden = !call?.path;
  if (!call?.path) return;
  const offered = /^vconf/.test(call.name) ?
    [...new Set([...state.catalog.settings.map(({ path }) => path), ...state.values?.keys() ?? []])]
      .map((value) => ({ value, text: shortName(settingAt(value) ?? { name: "" }) })) :
    call.name === "GetItemDataList" ? Object.keys(state.set?.lists ?? {}).map((value) => ({ value, text: "" })) : [];
  byId("fault-paths").replaceChildren(...[{ value: ANY, text: "" }, ...offered].map(({ value, text }) => make("option", { value, textContent: text })));
  byId("fault-answer").title = `What ${call.name} answers: ${call.failures}`;
}

observe(["faults", "catalog"], () => {
  fillSelect(byId("fault-call"), state.faults.calls.map(({ name }) => ({ value: name, text: sentence(describeCall(name)) })));
  showPlace();
});
observe(["faults", "catalog", "set", "values"], () => {
  const { faults } = state.faults;
  const texts = JSON.stringify(faults.map((fault) => [fault, isThere(fault)]));
  if (texts === shown) return; // values change often
  shown = texts;
  fill(byId("faults"), faults.map((fault) =>
    entry(describeFault(fault) + (isThere(fault) ? "" : ". The set has nothing of that name."), `${fault.call}(${fault.path}) answers ${fault.answer}`, () => clear(fault))), byId("fault-form"));
});

observe(["set"], () => {
  const latencies = Object.entries(state.set?.latency ?? {});
  fill(byId("latencies"), latencies.map(([command, milliseconds]) =>
    entry(`${command} takes ${milliseconds} ms longer`, "", () => change({ latency: { [command]: null } }))), byId("latency-form"));
});

observe(["catalog"], () => fillSelect(byId("latency-command"), state.catalog.commands.map(({ name }) => ({ value: name, text: name }))));

byId("fault-call").onchange = byId("fault-path").onfocus = showPlace;
byId("fault-form").onsubmit = async (event) => {
  event.preventDefault();
  const place = byId("fault-path").value.trim();
  const known = state.catalog.settings.find((setting) => shortName(setting) === place.toUpperCase());
  const given = byId("fault-place").hidden || !place || place === ANY ? "*" : known?.path ?? place;
  try {
    await api.post("/api/faults", { call: byId("fault-call").value, path: given, answer: Number(byId("fault-answer").value),
      times: Number(byId("fault-times").value) });
    showInvalid(byId("fault-answer"), byId("fault-error"), "");
  } catch (error) {
    showInvalid(byId("fault-answer"), byId("fault-error"), error.message);
  }
  await readSet();
};

byId("latency-form").onsubmit = (event) => {
  event.preventDefault();
  change({ latency: { [byId("latency-command").value]: Number(byId("latency-ms").value) } });
};

/** Whether some faults end after a number of calls; the desk sends no event when they do. */
export const countsDown = () => state.faults.faults.some(({ times }) => times > 0);
