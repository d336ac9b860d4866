// One row of the dialogue: a request with its reply, an event, or the end of a plug-in.
import { make, timeOf } from "./dom.js";
import { describeDelivery, describeDuration, describeEnd, describeReply, describeRequest, describeValue } from "./words.js";

// The names of entries, by the kind that the desk reports. The style sheet has a sign for each.
const WORDS = { send: "Sent", post: "Posted", reply: "Reply", message: "Received", crash: "Ended" };

export class Exchange {
  /** `entry` is the dialogue's entry that starts the row; `number` is that of its page. */
  constructor(entry, number) {
    Object.assign(this, { entry, number, answer: null, failed: false, result: "" });
    const { kind, body } = entry;
    this.isRequest = kind === "send" || kind === "post";
    this.kind = kind === "reply" ? "send" : kind;
    this.said = this.isRequest ? describeRequest(body) : kind === "message" ? describeDelivery(body) :
      { setting: null, text: kind === "crash" ? "the plug-in" : "", rest: "" };
    if (entry.now !== undefined) this.result = describeValue(entry.now); // an event contains only the setting
    if (kind === "crash") Object.assign(this, { failed: true, result: describeEnd(body) });
    if (kind === "reply") this.complete(entry); // the desk no longer stores its request
  }

  /** The reply to a request, or the delivery that answers a post. */
  complete(entry) {
    this.answer = entry;
    const { failed, text } = describeReply(entry.body);
    Object.assign(this, { failed, result: text });
    if (this.row) this.showAnswer();
  }

  passes({ kind, setting, failures }) {
    if (failures && !this.failed) return false;
    if (kind && this.kind !== kind) return false;
    return !setting || this.said.setting?.path === setting;
  }

  /** The desk's entries of this row. */
  get entries() {
    return this.answer && this.answer !== this.entry ? [this.entry, this.answer] : [this.entry];
  }

  get element() {
    return this.row ?? this.makeRow();
  }

  makeRow() {
    const { kind, time } = this.entry;
    const { text, rest } = this.said;
    const what = this.isRequest || !this.said.setting ? [make("span", { className: "command" }, text), rest ? " " : "", make("b", {}, rest)] :
      [make("b", {}, rest), ` ${text}`];
    this.shownResult = make("span", { className: "result" });
    this.duration = make("span", { className: "duration" });
    this.button = make("button", { type: "button", tabIndex: -1, "aria-expanded": "false", onclick: () => this.toggle() },
      make("time", {}, timeOf(time)), make("span", { className: "chip" }, `#${this.number}`),
      make("span", { className: "sign" }, make("span", { className: "spoken" }, WORDS[kind])),
      make("span", { className: "what" }, ...what), this.shownResult, this.duration);
    this.row = make("li", { className: kind }, this.button);
    if (this.result) this.showAnswer();
    return this.row;
  }

  showAnswer() {
    this.row.classList.toggle("failed", this.failed);
    this.shownResult.replaceChildren(make("span", { className: "spoken" }, this.failed ? "failed: " : this.kind === "message" ? "now " : "gives "), this.result);
    const duration = this.answer?.duration;
    if (duration !== undefined) this.duration.textContent = describeDuration(duration);
    if (this.details) this.fillDetails();
  }

  /** Shows or hides the JSON of the messages. */
  toggle() {
    this.button.setAttribute("aria-expanded", String(!this.details));
    if (this.details) {
      this.details.remove();
      this.details = null;
      return;
    }
    this.details = make("div", { className: "details" });
    this.fillDetails();
    this.row.append(this.details);
  }

  fillDetails() {
    const part = (title, { body, time }) => make("div", {}, make("p", { className: "title" }, `${title} ${timeOf(time)}`),
      make("pre", {}, JSON.stringify(body, null, 2)));
    const parts = [part(WORDS[this.entry.kind], this.entry)];
    if (this.isRequest && this.answer) parts.push(part("Reply", this.answer));
    this.details.replaceChildren(...parts);
  }
}
