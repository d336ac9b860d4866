// The field in which a value is edited: a number with steps, a switch, or a text.
import { make } from "./dom.js";

const INT = /^[+-]?\d+$/;
const isInt32 = (number) => number === (number | 0);

/**
 * A field for values of `type` "int", "bool" or "text", with a label for screen readers. `write(value)` is called with
 * each value that the user enters, `refuse(text)` with what is wrong with an entry, or "" when it is corrected. Other
 * types have no field.
 */
export function makeField(type, label, { write, refuse }) {
  const Field = { int: IntField, bool: BoolField, text: TextField }[type];
  return Field ? new Field(label, write, refuse) : null;
}

// A value that is being typed stays until it is written or cancelled.
class TypedField {
  constructor(input, write, refuse) {
    Object.assign(this, { input, write, refuse, value: null, editing: false, element: input });
    input.addEventListener("input", () => { this.editing = true; });
    input.addEventListener("change", () => this.enter());
    input.addEventListener("blur", () => this.restore());
    input.addEventListener("keydown", (event) => this.key(event));
  }

  show(value) {
    this.value = value;
    if (!this.editing) this.input.value = String(value);
  }

  restore() {
    this.editing = false;
    this.show(this.value);
    this.input.scrollTop = 0; // a long text begins at its beginning
    this.refuse("");
  }

  enter() {
    if (!this.editing) return;
    const value = this.read();
    if (value === undefined) return;
    this.editing = false;
    this.refuse("");
    if (value !== this.value) this.write(value);
    else this.input.value = String(value);
  }

  key(event) {
    if (event.key === "Escape" && this.editing) {
      event.stopPropagation();
      this.restore();
    }
  }
}

class IntField extends TypedField {
  constructor(label, write, refuse) {
    super(make("input", { "aria-label": label, role: "spinbutton", inputMode: "numeric", spellcheck: false, autocomplete: "off" }),
      write, refuse);
    const step = (by, className) => make("button", { type: "button", className, tabIndex: -1, "aria-hidden": "true", onclick: () => this.step(by) });
    this.less = step(-1, "less");
    this.more = step(1, "more");
    this.element = make("span", { className: "stepper" }, this.less, this.input, this.more);
    this.known = [];
    this.input.addEventListener("input", () => this.fit());
  }

  /** The numbers that the arrow keys step through, in order; if there are none, they step through all numbers. */
  offer(known) {
    this.known = known;
    // Not disabled: a button that is loses the focus.
    this.less.ariaDisabled = String(this.next(this.value, -1) === undefined);
    this.more.ariaDisabled = String(this.next(this.value, 1) === undefined);
  }

  show(value) {
    super.show(value);
    this.fit();
  }

  fit() {
    this.input.style.width = `${Math.max(this.input.value.length, 3) + 1}ch`;
  }

  /** The meaning of the value, for screen readers. */
  describe(meaning) {
    this.input.setAttribute("aria-valuenow", this.value);
    this.input.setAttribute("aria-valuetext", meaning ? `${this.value}, ${meaning}` : String(this.value));
  }

  read() {
    const text = this.input.value.trim();
    const isWhole = INT.test(text);
    if (isWhole && isInt32(Number(text))) return Number(text);
    this.refuse(isWhole ? "The number must be from -2147483648 to 2147483647." : `A whole number is needed, such as ${this.known.at(-1) ?? 1}.`);
    return undefined;
  }

  // The next value above or below `from`; undefined if there is none.
  next(from, by) {
    if (!this.known.length) return isInt32(from + by) ? from + by : undefined;
    const beyond = this.known.filter((value) => by > 0 ? value > from : value < from);
    return beyond.length ? by > 0 ? Math.min(...beyond) : Math.max(...beyond) : undefined;
  }

  step(by) {
    const from = this.editing ? this.read() : this.value;
    const to = from === undefined ? undefined : this.next(from, by);
    if (to === undefined) return;
    this.editing = false;
    this.show(to); // the next step starts here, also before this one is confirmed
    this.write(to);
  }

  key(event) {
    const by = { ArrowUp: 1, ArrowDown: -1 }[event.key];
    if (by) {
      event.preventDefault();
      this.step(by);
    } else if (event.key === "Enter") {
      event.preventDefault();
      this.enter();
    } else {
      super.key(event);
    }
  }
}

// A text may contain line breaks and blanks. Enter writes it, Shift+Enter starts a new line.
class TextField extends TypedField {
  constructor(label, write, refuse) {
    super(make("textarea", { "aria-label": label, rows: 1, spellcheck: false, autocomplete: "off", placeholder: "empty text",
      title: "Enter writes, Shift+Enter begins a line" }), write, refuse);
  }

  show(value) {
    super.show(value);
    this.input.rows = Math.min(this.input.value.split("\n").length, 8);
  }

  read() {
    return this.input.value;
  }

  key(event) {
    if (event.key === "Enter" && !event.shiftKey) {
      event.preventDefault();
      this.enter();
    } else {
      super.key(event);
    }
  }
}

class BoolField {
  constructor(label, write) {
    this.input = make("input", { type: "checkbox", role: "switch", "aria-label": label, onchange: () => write(this.input.checked) });
    this.element = this.input;
  }

  show(value) {
    this.input.checked = value;
  }
}
