// A small television application: captions over a film, and their settings, changed by remote control. It uses only the
// language features of an engine of generation 47, as on a set, and classic scripts.
"use strict";

// What the numbers of a setting mean in this application: for each number its name, and its effect on the captions.
// Number 0 leaves the choice to the application.
const SWITCH = { names: ["Off", "On"] };
const SIZE = { names: ["Default", "Small", "Standard", "Large", "Extra large"], looks: [1, 0.75, 1, 1.4, 1.8] };
const FONT = {
  names: ["Default", "Typewriter", "Serif", "Monospaced", "Sans", "Casual"],
  looks: ["sans-serif", "Courier, monospace", "Georgia, serif", "monospace", "Arial, sans-serif", "fantasy"],
};
const COLOR = {
  names: ["Default", "White", "Black", "Red", "Green", "Blue", "Yellow", "Magenta", "Cyan"],
  looks: [null, "255,255,255", "0,0,0", "230,50,50", "60,200,90", "60,110,240", "255,220,60", "230,80,210",
    "70,220,230"],
};
const OPACITY = { names: ["Default", "Clear", "Half", "Solid"], looks: [null, 0, 0.5, 1] };
const EDGE = {
  names: ["None", "Raised", "Sunken", "Outline", "Shadow"],
  looks: [
    () => "none",
    (color) => `-.04em -.04em ${color}`,
    (color) => `.04em .04em ${color}`,
    (color) => ["-.05em 0", ".05em 0", "0 -.05em", "0 .05em"].map((side) => `${side} .02em ${color}`).join(),
    (color) => `.09em .09em .06em ${color}`,
  ],
};

const ROWS = [
  [mirado.MENU_KEY_CAPTION, "Captions", SWITCH],
  [mirado.MENU_KEY_DIGITAL_CAPTION_SIZE, "Size", SIZE],
  [mirado.MENU_KEY_DIGITAL_CAPTION_FONT_STYLE, "Font", FONT],
  [mirado.MENU_KEY_DIGITAL_CAPTION_FONT_COLOR, "Text", COLOR],
  [mirado.MENU_KEY_DIGITAL_CAPTION_FONT_OPACITY, "Text opacity", OPACITY],
  [mirado.MENU_KEY_DIGITAL_CAPTION_BACKGROUND_COLOR, "Background", COLOR],
  [mirado.MENU_KEY_DIGITAL_CAPTION_BACKGROUND_OPACITY, "Background opacity", OPACITY],
  [mirado.MENU_KEY_DIGITAL_CAPTION_EDGE_TYPE, "Edge", EDGE],
  [mirado.MENU_KEY_DIGITAL_CAPTION_EDGE_COLOR, "Edge colour", COLOR],
  [mirado.MENU_KEY_DIGITAL_CAPTION_WINDOW_COLOR, "Window", COLOR],
  [mirado.MENU_KEY_DIGITAL_CAPTION_WINDOW_OPACITY, "Window opacity", OPACITY],
];

const CUES = [
  [0, "[waves against the rock]"],
  [4, "The lamp was lit at dusk, as on every night."],
  [9, "There is one boat still out."],
  [13, "[a horn, far off]"],
  [17, "Come home. The light is on."],
];
const LENGTH = 24; // seconds
const KEY = { back: 8, ok: 13, escape: 27, space: 32, left: 37, up: 38, right: 39, down: 40, playPause: 179 };

const $ = (id) => document.getElementById(id);
const values = new Map(); // The settings as last read, by key.
let plugin; // The client of the present plug-in, or of the last one if it is gone.

let noticeTimer;
function tell(error) {
  $("notice").textContent = error.code ? `${error.message} (${error.code})` : error.message;
  $("notice").hidden = false;
  clearTimeout(noticeTimer);
  noticeTimer = setTimeout(() => { $("notice").hidden = true; }, 6000);
}

// Without the plug-in the application continues: it shows the error, and keeps the last values.
function attempt(action) {
  try {
    action();
  } catch (error) {
    tell(error);
  }
}

function follow(key, show) {
  const read = () => attempt(() => {
    values.set(key, plugin.getMenuValue(key));
    show();
  });
  attempt(() => plugin.onCaptionChanged(key, read));
  read();
}

function showCaption(text) {
  const box = $("caption");
  const hidden = values.get(mirado.MENU_KEY_CAPTION) !== 1 || !text;
  box.querySelector(".text").textContent = text;
  if (box.hidden === hidden) return;
  box.hidden = hidden;
  attempt(() => plugin.showCaption(hidden ? 0 : 1));
}

function look(key, kind) {
  const chosen = kind.looks[values.get(key)];
  return chosen === undefined ? kind.looks[0] : chosen;
}

function color(colorKey, opacityKey, usual) {
  const chosen = look(colorKey, COLOR) || usual.color;
  const opacity = opacityKey === undefined ? null : look(opacityKey, OPACITY);
  return `rgba(${chosen},${opacity === null ? usual.opacity : opacity})`;
}

function showStyle() {
  const black = (opacity) => ({ color: "0,0,0", opacity });
  const edgeColor = color(mirado.MENU_KEY_DIGITAL_CAPTION_EDGE_COLOR, undefined, black(1));
  const caption = $("caption").style;
  const text = $("caption").querySelector(".text").style;
  caption.fontSize = `${2 * look(mirado.MENU_KEY_DIGITAL_CAPTION_SIZE, SIZE)}rem`;
  caption.fontFamily = look(mirado.MENU_KEY_DIGITAL_CAPTION_FONT_STYLE, FONT);
  text.color = color(mirado.MENU_KEY_DIGITAL_CAPTION_FONT_COLOR, mirado.MENU_KEY_DIGITAL_CAPTION_FONT_OPACITY,
    { color: "255,255,255", opacity: 1 });
  text.background = color(mirado.MENU_KEY_DIGITAL_CAPTION_BACKGROUND_COLOR,
    mirado.MENU_KEY_DIGITAL_CAPTION_BACKGROUND_OPACITY, black(0.75));
  text.textShadow = look(mirado.MENU_KEY_DIGITAL_CAPTION_EDGE_TYPE, EDGE)(edgeColor);
  $("caption").querySelector(".window").style.background =
    color(mirado.MENU_KEY_DIGITAL_CAPTION_WINDOW_COLOR, mirado.MENU_KEY_DIGITAL_CAPTION_WINDOW_OPACITY, black(0));
}

// Adds a row that shows a setting and changes it. It shows a new value only after the set has stored it. Returns a
// function that reads the setting from the present plug-in, and watches it.
function addRow(key, label, kind) {
  const row = document.createElement("button");
  const add = (className, text) => {
    const part = row.appendChild(document.createElement("span"));
    part.className = className;
    part.textContent = text;
    return part;
  };
  add("name", label);
  const value = add("value", "");
  $("rows").appendChild(row);

  const change = (step) => {
    const next = ((values.get(key) || 0) + step + kind.names.length) % kind.names.length;
    plugin.setMenuValue(key, next).catch(tell);
  };
  row.addEventListener("click", () => change(1));
  row.addEventListener("keydown", (event) => {
    if (event.keyCode === KEY.left) change(-1);
    if (event.keyCode === KEY.right) change(1);
  });

  return () => follow(key, () => {
    value.textContent = kind.names[values.get(key)] || `Number ${values.get(key)}`;
    showStyle();
    showCaption(film.caption);
  });
}

function openPanel(open) {
  $("panel").hidden = !open;
  $("hint").hidden = open;
  if (open) $("rows").firstChild.focus();
}

function moveFocus(step) {
  const rows = Array.from($("rows").children);
  const from = rows.indexOf(document.activeElement);
  rows[(from + step + rows.length) % rows.length].focus();
}

function pause() {
  film.playing = !film.playing;
  $("state").textContent = film.playing ? "Playing" : "Paused";
  publish();
}

function publish() {
  attempt(() => plugin.registerInAppCaptionControl(film.playing ? 1 : 0));
}

document.addEventListener("keydown", (event) => {
  const open = !$("panel").hidden;
  const actions = {
    [KEY.up]: () => open && moveFocus(-1),
    [KEY.down]: () => open && moveFocus(1),
    [KEY.ok]: () => !open && openPanel(true),
    [KEY.escape]: () => openPanel(false),
    [KEY.back]: () => openPanel(false),
    [KEY.space]: pause,
    [KEY.playPause]: pause,
  };
  const action = actions[event.keyCode];
  if (!action || (open && event.keyCode === KEY.ok)) return; // OK on an open panel is the click of its row.
  event.preventDefault();
  action();
});

const film = new Film($("film"), LENGTH, CUES, (time) => {
  $("progress").value = time / LENGTH;
  showCaption(film.caption);
});
const rows = ROWS.map((row) => addRow.apply(null, row));
film.playing = true;
openPanel(true);

mirado.keepConnected(document.querySelector("embed"), (client) => {
  plugin = client;
  plugin.whenGone.then(tell);
  rows.forEach((followRow) => followRow());
  follow(mirado.MENU_KEY_HIGH_CONTRAST, () => {
    document.body.classList.toggle("high-contrast", values.get(mirado.MENU_KEY_HIGH_CONTRAST) === 1);
  });
  publish();
});
