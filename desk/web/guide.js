// The first visit: how a page gets its plug-in from this desk.
import { byId, copyFrom, download } from "./dom.js";
import { isDialogueShown, showDialogue } from "./layout.js";
import { observe, openPages, state } from "./state.js";

const PORT = 8000;
let wanted = false; // whether the guide was opened although there are pages

// Without modules, which a set's engine does not support.
const exampleOf = (script, library) => `<!DOCTYPE html>
<meta charset="utf-8">
<title>My page</title>
<script src="${script}"></script>
<script src="${library}"></script>
<embed type="application/x-mirado" width="0" height="0">
<pre id="out"></pre>
<script>
  var embed = document.querySelector("embed");
  mirado.keepConnected(embed, function (plugin) {
    function show() {
      var value = plugin.getMenuValue(mirado.MENU_KEY_CAPTION);
      out.textContent += "Caption is " + value + "\\n";
    }
    plugin.onCaptionChanged(mirado.MENU_KEY_CAPTION, show);
    show();
  });
</script>
`;

observe(["desk"], () => {
  const script = state.desk?.script ?? `${location.origin}/desk.js`;
  const desk = state.desk?.addresses?.[0] ?? location.origin;
  byId("code-script").textContent = `<script src="${script}"></script>`;
  byId("code-library").textContent = `<script src="${desk}/mirado.classic.js"></script>`;
  byId("code-import").textContent = `import { connect } from "${desk}/mirado.js";`;
  byId("code-page").textContent = exampleOf(script, `${desk}/mirado.classic.js`);
  byId("code-serve").textContent = `python3 -m http.server --bind 127.0.0.1 ${PORT}`;
  byId("own-address").href = byId("own-address").textContent = `http://localhost:${PORT}/hello.html`;
});

function show() {
  const first = state.linked && !state.pages.size && !state.selected; // a chosen page that is missing is being loaded
  byId("guide").hidden = !first && !wanted;
  byId("talk").hidden = !byId("guide").hidden;
  byId("waiting").hidden = !first;
  byId("guide-close").hidden = first;
  byId("open-guide").setAttribute("aria-expanded", String(!byId("guide").hidden));
}

function want(value) {
  wanted = value;
  show();
}

/** Shows the dialogue in place of the guide. */
export const closeGuide = () => want(false);

for (const button of document.querySelectorAll("[data-copy]")) {
  button.onclick = () => copyFrom(button, byId(button.dataset.copy).textContent);
}
byId("save-page").onclick = () => download("hello.html", byId("code-page").textContent);
byId("open-guide").onclick = () => {
  want(!isDialogueShown() || byId("guide").hidden);
  showDialogue();
  if (byId("guide").hidden) return;
  byId("guide").querySelector(".steps").scrollTop = 0;
  byId("guide").focus();
};
byId("guide-close").onclick = () => {
  want(false);
  byId("open-guide").focus();
};
let before = 0;
observe(["pages", "selected", "linked"], () => {
  const { length } = openPages();
  if (length > before) wanted = false; // a page has been opened
  before = length;
  show();
});
