// A long list. While it is scrolled to its end, only the last rows are in the document. While it is scrolled up, all
// rows up to that moment are, nothing moves, and a button shows the number of newer ones. The style sheet lays the list
// out from its end (column-reverse): `scrollTop` is 0 at the end and negative above, so the browser keeps the end
// visible.
import { make } from "./dom.js";

export const MAX_ROWS = 1000;
const LOWEST = 19; // minimum height of a row in pixels
const SPARE = 10; // rows beyond the visible ones, so that the list can be scrolled
const NEAR = 12; // pixels from the end that still count as the end

export class Rows {
  /**
   * `scroller` is the element that scrolls, `label` the list's name. An item of the list is an object whose `element`
   * is its row, made when it is first asked for. `passes(item)` is whether it is shown; the text of `empty()` is shown
   * if there is no item.
   */
  constructor(scroller, { label, passes, empty }) {
    Object.assign(this, { scroller, passes, empty, items: [], following: true, fresh: 0, tail: SPARE });
    this.list = make("ol", { "aria-label": label });
    this.newest = make("button", { type: "button", className: "newest", hidden: true, onclick: () => {
      this.toEnd();
      scroller.focus();
    } });
    this.note = make("p", { className: "empty" });
    scroller.append(this.list);
    scroller.before(this.note);
    scroller.after(this.newest);
    scroller.addEventListener("scroll", () => this.follow(scroller.scrollTop > -NEAR), { passive: true });
    this.keepPlace();
    // In the next frame, because new rows may bring a scroll bar, which changes the size again.
    new ResizeObserver(([{ contentRect }]) => requestAnimationFrame(() => {
      this.tail = Math.ceil(contentRect.height / LOWEST) + SPARE;
      if (this.following) this.show();
    })).observe(scroller);
    this.show();
  }

  // A row that is opened grows downwards, and its new content becomes visible.
  keepPlace() {
    let top;
    this.list.addEventListener("click", ({ target }) => { top = target.getBoundingClientRect().top; }, { capture: true });
    this.list.addEventListener("click", ({ target }) => {
      this.scroller.scrollTop += target.getBoundingClientRect().top - top;
      target.closest("li")?.scrollIntoView({ block: "nearest" });
    });
  }

  follow(following) {
    if (following === this.following) return;
    this.following = following;
    this.show();
  }

  toEnd() {
    this.following = true;
    this.show();
    this.scroller.scrollTop = 0;
  }

  append(items) {
    this.items.push(...items.slice(-MAX_ROWS));
    this.items.splice(0, this.items.length - MAX_ROWS);
    if (this.following) {
      this.show();
    } else {
      this.fresh += items.filter(this.passes).length;
      this.showNewest();
    }
  }

  clear() {
    this.items = [];
    this.toEnd();
  }

  /** Shows the current items; call it also when `passes` gives other results. */
  show() {
    const wanted = [];
    const most = this.following ? this.tail : MAX_ROWS;
    for (let at = this.items.length - 1; at >= 0 && wanted.length < most; --at) {
      if (this.passes(this.items[at])) wanted.unshift(this.items[at].element);
    }
    const kept = new Set(wanted);
    for (const row of [...this.list.children]) if (!kept.has(row)) row.remove();
    let next = this.list.firstElementChild;
    for (const row of wanted) {
      if (row === next) next = next.nextElementSibling;
      else this.list.insertBefore(row, next);
    }
    this.fresh = 0;
    this.note.hidden = wanted.length > 0;
    this.note.textContent = this.items.length ? "No entry matches the filters." : this.empty();
    this.showNewest();
  }

  showNewest() {
    this.newest.hidden = this.following;
    this.newest.textContent = this.fresh ? `↓ Newest (${this.fresh > MAX_ROWS ? `${MAX_ROWS}+` : this.fresh})` : "↓ Newest";
  }
}
