// Connects the parts of the desk's page and keeps their content up to date.
import * as api from "./api.js";
import { attempt } from "./banner.js";
import "./composer.js";
import { reopenConsoles } from "./console.js";
import * as dialogue from "./dialogue.js";
import { byId } from "./dom.js";
import { follow } from "./events.js";
import { countsDown } from "./faults.js";
import "./guide.js";
import "./layout.js";
import * as log from "./log.js";
import * as pages from "./pages.js";
import { readDesk, reportBroken, reportLinked } from "./problems.js";
import "./scenarios.js";
import "./set.js";
import { readSet } from "./set-state.js";
import * as settings from "./settings.js";
import { changed, observe, state } from "./state.js";

async function readAll() {
  byId("main").ariaBusy = "true";
  await readDesk();
  await attempt("catalog", async () => {
    state.catalog = await api.get("/api/catalog");
    changed("catalog");
  });
  await pages.load();
  await Promise.all([readSet(), settings.load(), dialogue.load(), log.load()]);
  await reopenConsoles();
  byId("main").ariaBusy = "false";
}

// One reading at a time. Events during it are shown at once.
let reading = Promise.resolve();
const readAgain = () => { reading = reading.then(readAll); };

document.querySelector('[href="/example/"]').href = api.addressOf("/example/");
observe(["again"], readAgain);
observe(["doubt"], readDesk);

follow({
  linked() {
    state.linked = true;
    changed("linked");
    reportLinked();
    readAgain();
  },
  broken(error) {
    state.linked = false;
    changed("linked");
    if (error?.status === 0) pages.loseAll();
    reportBroken(error);
  },
  desk(desk) {
    state.desk = desk;
    changed("desk");
  },
  setting: settings.changeSetting,
  set: readSet,
  end: pages.loseAll,
  page: pages.putPage,
  gone: pages.endPage,
  dialogue(entry) {
    dialogue.addEntry(entry);
    if (countsDown()) readSet();
  },
  log: log.addLine,
});
