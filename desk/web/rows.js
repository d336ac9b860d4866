// A long list of which the browser holds little: its end while that is what is looked at, and all that is kept only
// while somebody reads further up. Then nothing moves, and a button tells how much is new.
import { make } from "./dom.js";

export const MAX_ROWS = 1000;
const TAIL = 100; // rows, more than any panel is high
const NEAR = 12; // pixels from the end that still count as the end

export class Rows {
  /**
   * `scroller` is the element that scrolls, `label` the list's name. An item of the list is an object whose `element`
   * is its row, made when it is first asked for. `passes(item)` says which are to be seen; `empty` is told in place of
   * them.
   */
  constructor(scroller, { label, passes, empty }) {
    Object.assign(this, { scroller, passes, empty, items: [], following: true, fresh: 0, top: 0 });
    this.list = make("ol", { "aria-label": label });
    this.newest = make("button", { type: "button", className: "newest", hidden: true, onclick: () => {
      this.toEnd();
      scroller.focus();
    } });
    this.note = make("p", { className: "empty" });
    scroller.append(this.list);
    scroller.before(this.note);
    scroller.after(this.newest);
    scroller.addEventListener("scroll", () => this.onScroll(), { passive: true });
    // A panel that becomes lower, or a row that becomes higher, scrolls nothing, and yet the end is elsewhere.
    const size = new ResizeObserver(() => { if (this.following) this.scrollToEnd(); });
    size.observe(scroller);
    size.observe(this.list);
    this.show();
  }

  // Only who scrolls up leaves the end: it may also move away on its own, before the observer has seen that.
  onScroll() {
    const { scrollHeight, scrollTop, clientHeight } = this.scroller;
    if (scrollHeight - scrollTop - clientHeight < NEAR) this.follow(true);
    else if (scrollTop < this.top) this.follow(false);
    this.top = this.scroller.scrollTop;
  }

  scrollToEnd() {
    this.scroller.scrollTop = this.scroller.scrollHeight;
    this.top = this.scroller.scrollTop;
  }

  follow(following) {
    if (following === this.following) return;
    this.following = following;
    const fromEnd = this.scroller.scrollHeight - this.scroller.scrollTop;
    this.show();
    if (!following) this.scroller.scrollTop = this.scroller.scrollHeight - fromEnd;
  }

  toEnd() {
    this.following = true;
    this.show();
  }

  append(items) {
    this.items.push(...items.slice(-MAX_ROWS));
    this.items.splice(0, this.items.length - MAX_ROWS);
    this.fresh += items.filter(this.passes).length;
    if (this.following) this.show();
    else this.showNewest();
  }

  clear() {
    this.items = [];
    this.toEnd();
  }

  /** Shows what there is now; `passes` may have changed its mind. */
  show() {
    const wanted = [];
    const most = this.following ? TAIL : MAX_ROWS;
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
    this.note.textContent = this.items.length ? "Nothing passes the filters." : this.empty;
    this.showNewest();
    if (this.following) this.scrollToEnd();
  }

  showNewest() {
    this.newest.hidden = this.following;
    this.newest.textContent = this.fresh ? `↓ Newest (${this.fresh > MAX_ROWS ? `${MAX_ROWS}+` : this.fresh})` : "↓ Newest";
  }
}
