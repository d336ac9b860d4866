// The simulated set: its properties, its lists, and the embedder. Faults, delays and scenarios have their own files.
import * as api from "./api.js";
import { ask } from "./ask.js";
import { attempt } from "./banner.js";
import { byId, showInvalid, showText } from "./dom.js";
import { readSet } from "./set-state.js";
import { changed, observe, state } from "./state.js";

const USUAL_PICTURE_SIZE = 0;
const LISTS = { "primary-list": "primary-audio-language", "secondary-list": "secondary-audio-language" };

const asLines = (list) => (list ?? []).map(({ value, label }) => `${value} ${label}`).join("\n");

// Throws an error that describes the first invalid line.
function fromLines(text) {
  return text.split("\n").map((line) => line.trim()).filter(Boolean).map((line) => {
    const [, value, label] = /^(\S+)\s*(.*)$/.exec(line);
    if (!/^[+-]?\d+$/.test(value)) throw new RangeError(`“${line}” does not begin with a number.`);
    return { value: Number(value), label };
  });
}

const inOrder = api.inOrder();
let underWay = 0; // the number of unanswered changes; until it is 0 the page shows the entered values

observe(["set", "catalog"], () => {
  const { set, catalog } = state;
  if (!set || underWay) return;
  byId("b2b").value = String(set.b2b);
  byId("privilege").checked = set.privileges[catalog.privilege] === true;
  byId("video-control").checked = set.pictureSize !== null;
  byId("picture-size").disabled = set.pictureSize === null;
  showText(byId("picture-size"), set.pictureSize ?? "");
  for (const [id, list] of Object.entries(LISTS)) {
    showText(byId(id), asLines(set.lists[list]));
    byId(id).placeholder = set.lists[list] ? "the list is empty" : "there is no such list";
  }
  byId("offered").checked = set.embedder.offered;
  showText(byId("embedder-name"), set.embedder.name);
});

observe(["set", "desk"], () => {
  const known = Boolean(state.set) && !state.desk?.store.error;
  if (!known && byId("set-parts").contains(document.activeElement)) byId("set-parts").closest(".scroll").focus();
  byId("set-parts").hidden = !known;
  byId("set-unknown").hidden = known || !state.desk?.store.error;
});

/** Changes a part of the set. If this is false, the failure has been reported and the page shows the unchanged set. */
export async function change(part) {
  ++underWay;
  try {
    // The answer is not used: a reading that began earlier could replace it.
    return await inOrder(() => attempt("set", () => api.patch("/api/set", part))) && await readSet();
  } finally {
    --underWay;
    changed("set");
  }
}

byId("b2b").onchange = () => change({ b2b: JSON.parse(byId("b2b").value) });
byId("privilege").onchange = () => change({ privileges: { [state.catalog.privilege]: byId("privilege").checked } });
byId("video-control").onchange = () => {
  showInvalid(byId("picture-size"), byId("picture-error"), "");
  change({ pictureSize: byId("video-control").checked ? USUAL_PICTURE_SIZE : null });
};
byId("picture-size").onchange = () => {
  const field = byId("picture-size");
  const good = /^[+-]?\d+$/.test(field.value);
  showInvalid(field, byId("picture-error"), good ? "" : "The picture size is a whole number; to have none, switch the video control off.");
  if (good) change({ pictureSize: Number(field.value) });
};
byId("offered").onchange = () => change({ embedder: { offered: byId("offered").checked } });
byId("embedder-name").onchange = () => change({ embedder: { name: byId("embedder-name").value } });
for (const [id, list] of Object.entries(LISTS)) {
  const field = byId(id);
  field.onchange = () => {
    try {
      change({ lists: { [list]: fromLines(field.value) } });
      showInvalid(field, byId(`${id}-error`), "");
    } catch (error) {
      showInvalid(field, byId(`${id}-error`), error.message);
    }
  };
}

byId("reset").onclick = async () => {
  const sure = await ask("Reset the set?", "All settings and lists get their initial values, and all faults and delays are cleared. Saved scenarios stay: " +
      "save one first to be able to come back. Pages stay open.", "Reset the set");
  if (!sure) return;
  if (await inOrder(() => attempt("set", () => api.post("/api/reset")))) await readSet();
};
