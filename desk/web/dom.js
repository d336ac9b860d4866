// The few things that every part of the page needs of the document.

export const byId = (id) => document.getElementById(id);

// make("li", { className: "x", onclick: f, "aria-label": "y" }, child, "text", …)
export function make(tag, properties = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (name in element) element[name] = value;
    else element.setAttribute(name, value);
  }
  element.append(...children);
  return element;
}

export function fillSelect(select, options) {
  const chosen = select.value;
  select.replaceChildren(...options.map(({ value, text }) => make("option", { value, textContent: text })));
  if (options.some(({ value }) => String(value) === chosen)) select.value = chosen;
}

// Shows what went wrong where it went wrong, until the next attempt there.
export function showError(place, error) {
  place.hidden = !error;
  place.textContent = error ? `✕ ${error.message}` : "";
}

// Runs `action` and shows its failure at `place`; true when it went well.
export async function attempt(place, action) {
  try {
    await action();
    showError(place, null);
    return true;
  } catch (error) {
    showError(place, error);
    return false;
  }
}

export function timeOf(milliseconds) {
  const time = new Date(milliseconds);
  const two = (number) => String(number).padStart(2, "0");
  return `${two(time.getHours())}:${two(time.getMinutes())}:${two(time.getSeconds())}.` +
      String(time.getMilliseconds()).padStart(3, "0");
}

export const MAX_ROWS = 1000;

// Adds to a list that follows its end, unless the reader has scrolled away from it, and forgets its beginning.
export function appendRows(list, rows) {
  const follows = list.scrollHeight - list.scrollTop - list.clientHeight < 40;
  list.append(...rows);
  while (list.children.length > MAX_ROWS) list.firstElementChild.remove();
  if (follows) list.scrollTop = list.scrollHeight;
}
