// The few things that every part of the page needs of the document.

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

/** Keeps what was chosen if it is still on offer. */
export function fillSelect(select, options) {
  const chosen = select.value;
  select.replaceChildren(...options.map(({ value, text }) => make("option", { value, textContent: text })));
  if (options.some(({ value }) => String(value) === chosen)) select.value = chosen;
}

/** Writes a field unless somebody is typing in it at this moment, or what they typed is still to be corrected. */
export function showText(field, text) {
  if (document.activeElement !== field && !field.hasAttribute("aria-invalid")) field.value = text;
}

/** Sets a text only where it changes, which costs the browser nothing and keeps a reader's selection. */
export function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

/** Shows at `place` what is wrong with `field`, or that nothing is any more. */
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

/** Copies, and says so on the button for a moment. */
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
  setTimeout(() => URL.revokeObjectURL(url), 60_000); // the browser may take its time to begin
}

/** The arrow keys, Home and End go through `items()`; `go(item)` takes the one that is reached. */
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
