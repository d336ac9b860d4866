// The field in which a value is edited: a number with steps, a switch, or a text.
import { make } from "./dom.js";

const INT = /^[+-]?\d+$/;

/**
 * A field for values of `type` "int", "bool" or "text", with what it is called for those who hear it. `write(value)` is
 * called with each value that somebody enters, `refuse(text)` with what is wrong with an entry, "" when nothing is any
 * more. For any other type there is none.
 */
export function makeField(type, label, { write, refuse }) {
  const Field = { int: IntField, bool: BoolField, text: TextField }[type];
  return Field ? new Field(label, write, refuse) : null;
}

// A value that somebody is just typing stays until it is written or given up.
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
    this.input.value = String(this.value);
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
    this.element = make("span", { className: "stepper" }, step(-1, "less"), this.input, step(1, "more"));
    this.known = [];
    this.input.addEventListener("blur", () => this.refuse(""));
  }

  /** The values that the arrows go through, each a number, in their order; any number when there are none. */
  offer(known) {
    this.known = known;
  }

  /** What the value means, for those who hear the page. */
  describe(meaning) {
    this.input.setAttribute("aria-valuenow", this.value);
    this.input.setAttribute("aria-valuetext", meaning ? `${this.value}, ${meaning}` : String(this.value));
  }

  read() {
    const text = this.input.value.trim();
    if (INT.test(text) && Math.abs(Number(text)) <= 2 ** 31) return Number(text);
    this.refuse("A whole number of 32 bits is needed.");
    return undefined;
  }

  step(by) {
    const from = this.editing ? this.read() : this.value;
    if (from === undefined) return;
    const beyond = this.known.filter((value) => by > 0 ? value > from : value < from);
    const to = !this.known.length ? from + by : by > 0 ? Math.min(...beyond) : Math.max(...beyond);
    if (!Number.isFinite(to)) return;
    this.editing = false;
    this.show(to); // the next step begins here, whenever this one is confirmed
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

// Line breaks and blanks belong to a text. Enter writes it, Shift+Enter begins a line.
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
