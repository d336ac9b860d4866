// Saves the whole set under a name, and restores it.
import * as api from "./api.js";
import { ask } from "./ask.js";
import { attempt } from "./banner.js";
import { byId, make, showInvalid } from "./dom.js";
import { readSet } from "./set-state.js";
import { changed, observe, state } from "./state.js";

const addressOf = (name) => `/api/scenarios/${encodeURIComponent(name)}`;

const act = (action) => attempt("scenario", async () => {
  await action();
  await readSet();
});

async function load(name) {
  const sure = await ask(`Load the scenario ${name}?`, "Settings, lists, faults and delays get the saved values. Their present values are " +
      "lost unless you save them first.", "Load it");
  if (sure) await act(async () => {
    await api.post(`${addressOf(name)}/load`);
    changed("again");
  });
}

async function remove(name) {
  if (await ask(`Delete the scenario ${name}?`, "The set stays as it is.", "Delete it")) await act(() => api.remove(addressOf(name)));
}

observe(["scenarios"], () => {
  byId("scenarios").replaceChildren(...state.scenarios.map(({ name, saved }) => make("li", {},
    make("span", { title: `Saved ${new Date(saved).toLocaleString()}` }, name),
    make("button", { type: "button", "aria-label": `Load ${name}`, onclick: () => load(name) }, "Load …"),
    make("button", { type: "button", "aria-label": `Delete ${name}`, title: "Delete", className: "remove", onclick: () => remove(name) }))));
});

byId("scenario-form").onsubmit = async (event) => {
  event.preventDefault();
  const name = byId("scenario-name").value.trim();
  const good = /^[A-Za-z0-9._-]+$/.test(name);
  showInvalid(byId("scenario-name"), byId("scenario-error"), good ? "" :
    !name ? "Enter a name: letters, digits, dots, underscores and hyphens." : "A name has letters, digits, dots, underscores and hyphens, and no spaces.");
  if (!good) return byId("scenario-name").focus();
  if (state.scenarios.some((each) => each.name === name) &&
      !await ask(`Replace the scenario ${name}?`, "What was saved under this name is lost.", "Replace it")) return;
  if (await act(() => api.put(addressOf(name), {}))) byId("scenario-name").value = "";
};
