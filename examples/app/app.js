import {
  connect,
  MENU_KEY_CAPTION,
  MENU_KEY_DIGITAL_CAPTION_BACKGROUND_COLOR,
  MENU_KEY_DIGITAL_CAPTION_BACKGROUND_OPACITY,
  MENU_KEY_DIGITAL_CAPTION_EDGE_COLOR,
  MENU_KEY_DIGITAL_CAPTION_EDGE_TYPE,
  MENU_KEY_DIGITAL_CAPTION_FONT_COLOR,
  MENU_KEY_DIGITAL_CAPTION_FONT_OPACITY,
  MENU_KEY_DIGITAL_CAPTION_FONT_STYLE,
  MENU_KEY_DIGITAL_CAPTION_SIZE,
  MENU_KEY_DIGITAL_CAPTION_WINDOW_COLOR,
  MENU_KEY_DIGITAL_CAPTION_WINDOW_OPACITY,
  MENU_KEY_HIGH_CONTRAST,
} from "./mirado.js";
import { Film } from "./film.js";

// What the numbers of a setting mean to this application: the names by number, and for each number what becomes of the
// captions. Number 0 of an option leaves the choice to the application.
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
  [MENU_KEY_CAPTION, "Captions", SWITCH],
  [MENU_KEY_DIGITAL_CAPTION_SIZE, "Size", SIZE],
  [MENU_KEY_DIGITAL_CAPTION_FONT_STYLE, "Font", FONT],
  [MENU_KEY_DIGITAL_CAPTION_FONT_COLOR, "Text", COLOR],
  [MENU_KEY_DIGITAL_CAPTION_FONT_OPACITY, "Text opacity", OPACITY],
  [MENU_KEY_DIGITAL_CAPTION_BACKGROUND_COLOR, "Background", COLOR],
  [MENU_KEY_DIGITAL_CAPTION_BACKGROUND_OPACITY, "Background opacity", OPACITY],
  [MENU_KEY_DIGITAL_CAPTION_EDGE_TYPE, "Edge", EDGE],
  [MENU_KEY_DIGITAL_CAPTION_EDGE_COLOR, "Edge colour", COLOR],
  [MENU_KEY_DIGITAL_CAPTION_WINDOW_COLOR, "Window", COLOR],
  [MENU_KEY_DIGITAL_CAPTION_WINDOW_OPACITY, "Window opacity", OPACITY],
];

const CUES = [
  [0, "[waves against the rock]"],
  [4, "The lamp was lit at dusk, as on every night."],
  [9, "There is one boat still out."],
  [13, "[a horn, far off]"],
  [17, "Come home. The light is on."],
];
const LENGTH = 24; // seconds

const $ = (id) => document.getElementById(id);
const mirado = connect(document.querySelector("embed"));
const values = new Map(); // What the set says, by key.

let noticeTimer;
function tell(error) {
  $("notice").textContent = error.code ? `${error.message} (${error.code})` : error.message;
  $("notice").hidden = false;
  clearTimeout(noticeTimer);
  noticeTimer = setTimeout(() => { $("notice").hidden = true; }, 6000);
}

// The application plays on without the plug-in: what cannot be read or published is told and left as it is.
function attempt(action) {
  try {
    action();
  } catch (error) {
    tell(error);
  }
}

function follow(key, show) {
  const read = () => attempt(() => {
    values.set(key, mirado.getMenuValue(key));
    show();
  });
  attempt(() => mirado.onCaptionChanged(key, read));
  read();
}

function showCaption(text) {
  const box = $("caption");
  const hidden = values.get(MENU_KEY_CAPTION) !== 1 || !text;
  box.querySelector(".text").textContent = text;
  if (box.hidden === hidden) return;
  box.hidden = hidden;
  attempt(() => mirado.showCaption(hidden ? 0 : 1));
}

function look(key, { looks }) {
  const chosen = looks[values.get(key)];
  return chosen === undefined ? looks[0] : chosen;
}

function color(colorKey, opacityKey, usual) {
  const chosen = look(colorKey, COLOR) || usual.color;
  const opacity = opacityKey === undefined ? null : look(opacityKey, OPACITY);
  return `rgba(${chosen},${opacity === null ? usual.opacity : opacity})`;
}

function showStyle() {
  const black = (opacity) => ({ color: "0,0,0", opacity });
  const edgeColor = color(MENU_KEY_DIGITAL_CAPTION_EDGE_COLOR, undefined, black(1));
  const style = {
    "--scale": look(MENU_KEY_DIGITAL_CAPTION_SIZE, SIZE),
    "--font": look(MENU_KEY_DIGITAL_CAPTION_FONT_STYLE, FONT),
    "--text": color(MENU_KEY_DIGITAL_CAPTION_FONT_COLOR, MENU_KEY_DIGITAL_CAPTION_FONT_OPACITY,
                    { color: "255,255,255", opacity: 1 }),
    "--background": color(MENU_KEY_DIGITAL_CAPTION_BACKGROUND_COLOR, MENU_KEY_DIGITAL_CAPTION_BACKGROUND_OPACITY,
                          black(0.75)),
    "--window": color(MENU_KEY_DIGITAL_CAPTION_WINDOW_COLOR, MENU_KEY_DIGITAL_CAPTION_WINDOW_OPACITY, black(0)),
    "--edge": look(MENU_KEY_DIGITAL_CAPTION_EDGE_TYPE, EDGE)(edgeColor),
  };
  for (const name of Object.keys(style)) $("caption").style.setProperty(name, style[name]);
}

// A row shows what the set says, and asks the set for a change. What it shows follows from the set's answer alone.
function addRow(key, label, { names }) {
  const row = document.createElement("button");
  const [name, value] = [label, ""].map((text) => {
    const part = row.appendChild(document.createElement("span"));
    part.textContent = text;
    return part;
  });
  name.className = "name";
  $("rows").appendChild(row);

  const change = (step) => {
    const next = ((values.get(key) || 0) + step + names.length) % names.length;
    mirado.setMenuValue(key, next).catch(tell);
  };
  row.addEventListener("click", () => change(1));
  row.addEventListener("keydown", (event) => {
    if (event.key === "ArrowLeft") change(-1);
    if (event.key === "ArrowRight") change(1);
  });

  follow(key, () => {
    value.textContent = names[values.get(key)] || `Number ${values.get(key)}`;
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
  attempt(() => mirado.registerInAppCaptionControl(film.playing ? 1 : 0));
}

document.addEventListener("keydown", (event) => {
  const open = !$("panel").hidden;
  const actions = {
    "ArrowUp": () => open && moveFocus(-1),
    "ArrowDown": () => open && moveFocus(1),
    "Enter": () => !open && openPanel(true),
    "Escape": () => openPanel(false),
    "Backspace": () => openPanel(false),
    " ": pause,
    "MediaPlayPause": pause,
  };
  const action = actions[event.key];
  if (!action || (open && event.key === "Enter")) return; // Enter on an open panel is the click of its row.
  event.preventDefault();
  action();
});

const film = new Film($("film"), LENGTH, CUES, (time) => {
  $("progress").value = time / LENGTH;
  showCaption(film.caption);
});
for (const row of ROWS) addRow.apply(null, row);
follow(MENU_KEY_HIGH_CONTRAST, () => {
  document.body.classList.toggle("high-contrast", values.get(MENU_KEY_HIGH_CONTRAST) === 1);
});
mirado.whenGone.then(tell);
openPanel(true);
film.playing = true;
attempt(() => mirado.registerInAppCaptionControl(1));
