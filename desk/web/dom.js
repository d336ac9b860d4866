// Functions for the document, used by all parts of the page.

export const byId = (id) => document.getElementById(id);

/** make("li", { className: "x", onclick: f, "aria-label": "y" }, child, "text", …) */
export function make(tag, properties = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (name in element) element[name] = value;
    else element.setAttribute(name, value);
  }
  element.append(...children);
  return element;
}

/** Replaces the options of a list; the chosen one stays chosen if it still exists. */
export function fillSelect(select, options) {
  const chosen = select.value;
  select.replaceChildren(...options.map(({ value, text }) => make("option", { value, textContent: text })));
  if (options.some(({ value }) => String(value) === chosen)) select.value = chosen;
}

/** Sets a field unless the user is typing in it, or its content is invalid and not yet corrected. */
export function showText(field, text) {
  if (document.activeElement !== field && !field.hasAttribute("aria-invalid")) field.value = text;
}

/** Sets a text only if it changes, which saves work and keeps the user's selection. */
export function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

/** Shows at `place` what is wrong with `field`, or nothing if it is valid. */
export function showInvalid(field, place, text) {
  place.textContent = text;
  place.hidden = !text;
  if (text) field.setAttribute("aria-invalid", "true");
  else field.removeAttribute("aria-invalid");
}

export function timeOf(milliseconds) {
  const time = new Date(milliseconds);
  const two = (number) => String(number).padStart(2, "0");
  return `${two(time.getHours())}:${two(time.getMinutes())}:${two(time.getSeconds())}.` +
      String(time.getMilliseconds()).padStart(3, "0");
}

/** Copies, and shows so on the button for a moment. */
export async function copyFrom(button, text) {
  const label = button.dataset.label ??= button.textContent;
  try {
    await navigator.clipboard.writeText(text);
    button.textContent = "Copied";
  } catch {
    button.textContent = "Not allowed";
  }
  setTimeout(() => { button.textContent = label; }, 1500);
}

export function download(name, text) {
  const url = URL.createObjectURL(new Blob([text]));
  make("a", { href: url, download: name }).click();
  setTimeout(() => URL.revokeObjectURL(url), 60_000); // the browser may start the download late
}

/** The arrow keys, Home and End move through `items()`; `go(item)` is called with the new one. */
export function moveWithArrows(container, items, go, [back, on] = ["ArrowLeft", "ArrowRight"]) {
  container.addEventListener("keydown", (event) => {
    const all = items();
    const at = all.indexOf(document.activeElement);
    const last = all.length - 1;
    const to = { [back]: Math.max(at - 1, 0), [on]: Math.min(at + 1, last), Home: 0, End: last }[event.key];
    if (to === undefined || !all.length || (at < 0 && event.target !== container)) return;
    event.preventDefault();
    all[to].focus();
    go(all[to]);
  });
}
