import assert from "node:assert/strict";
import { describe, it } from "node:test";
import * as mirado from "../../page/mirado.js";

const success = (value) => ({ code: 0, value, errorName: "", errorMessage: "" });
const storeFailed = (errorMessage) => ({ code: 9999, value: null, errorName: "UnknownError ", errorMessage });
const written = (value) =>
  ({ ...success(value), errorMessage: "Mirado setMenuValue success.", command: "setMenuValue" });

/** An element whose plug-in answers waiting calls with `answer` and posts what `deliver` is given. */
class FakeElement extends EventTarget {
  sent = [];
  posted = [];
  answer = () => success(null);

  postMessage(message) {
    this.posted.push(message);
  }
  postMessageAndAwaitResponse(message) {
    this.sent.push(message);
    return this.answer(message);
  }
  deliver(...messages) {
    for (const data of messages) this.dispatchEvent(Object.assign(new Event("message"), { data }));
  }
  changed(key, event = "MIRADO_EVENT_CAPTION_CHANGED") {
    this.deliver({ ...success(key), event });
  }
  commands() {
    return this.sent.map(({ command, propertyKey }) => `${command} ${propertyKey}`);
  }
}

function connected() {
  const element = new FakeElement();
  return { element, client: mirado.connect(element) };
}

describe("waiting commands", () => {
  it("send their request and return the value of the reply", () => {
    const { element, client } = connected();
    const cases = [
      [() => client.getVersion(), { command: "getVersion" }, "4.0", "4.0"],
      [() => client.getMenuValue(20), { command: "getMenuValue", propertyKey: 20 }, "SLOW", "SLOW"],
      [() => client.getMiradoValue(0), { command: "getMiradoValue", propertyKey: 0 }, 1, 1],
      [() => client.isTVSPicSizeResized(), { command: "isTVSPicSizeResized" }, false, false],
      [() => client.showCaption(-7), { command: "showCaption", show: -7 }, null, undefined],
      [() => client.registerInAppCaptionControl(2), { command: "registerInAppCaptionControl", status: 2 }, null,
       undefined],
    ];
    for (const [call, request, value, result] of cases) {
      element.answer = () => success(value);
      assert.equal(call(), result);
      assert.deepEqual(element.sent.pop(), request);
    }
  });

  it("throw a refusal as the plug-in worded it, blanks included", () => {
    const { element, client } = connected();
    element.answer = () => storeFailed("getMiradoValue fail ");
    assert.throws(() => client.getMiradoValue(0), (error) => {
      assert.ok(error instanceof mirado.MiradoError);
      assert.deepEqual([error.code, error.name, error.message], [9999, "UnknownError ", "getMiradoValue fail "]);
      return true;
    });
  });
});

describe("setMenuValue", () => {
  it("gives each promise its own reply, whatever else is delivered in between", async () => {
    const { element, client } = connected();
    const writes = [client.setMenuValue(2, 5), client.setMenuValue(14, 1), client.setMenuValue(3, 6)];
    assert.deepEqual(element.posted[0], { command: "setMenuValue", propertyKey: 2, value: 5 });

    const refused = { code: 9, value: null, errorName: "NotSupportedError", errorMessage: "key is not supported" };
    element.deliver(
      { ...refused, code: 26, errorName: "InvalidValuesError", command: "" }, // Somebody posted a malformed message,
      { ...refused, value: "", command: "getVersion" },                       // and a command that cannot be posted.
      { ...success(2), event: "MIRADO_EVENT_CAPTION_CHANGED" },
      "some text", null, 7,
      written(261), { ...refused, command: "setMenuValue" }, written(6), written(99));

    assert.equal(await writes[0], 261);
    await assert.rejects(writes[1], { code: 9, name: "NotSupportedError", message: "key is not supported" });
    assert.equal(await writes[2], 6);
  });

  it("rejects and waits for no reply when the message cannot be posted", async () => {
    const { element, client } = connected();
    element.postMessage = () => { throw new TypeError("not clonable"); };
    await assert.rejects(client.setMenuValue(2, 5), TypeError);
    delete element.postMessage;
    const write = client.setMenuValue(2, 6);
    element.deliver(written(6));
    assert.equal(await write, 6);
  });
});

describe("a plug-in that is gone", () => {
  const ends = {
    "crashes": (element) => element.dispatchEvent(new Event("crash")),
    "ends its registration": (element) => element.deliver("Unregister"),
    "never registered": (element) => element.deliver("Error while registering MessageHandler"),
    "leaves a waiting call without a reply": (element, client) => {
      element.answer = () => undefined;
      assert.throws(() => client.getVersion(), mirado.PluginGoneError);
    },
  };
  for (const [how, end] of Object.entries(ends)) {
    it(`rejects what is pending and all that follows when it ${how}`, async () => {
      const { element, client } = connected();
      const unsubscribe = client.onCaptionChanged(0, () => assert.fail("told of a change by a plug-in that is gone"));
      const write = client.setMenuValue(0, 1);
      end(element, client);
      await assert.rejects(write, mirado.PluginGoneError);
      assert.ok((await client.whenGone) instanceof mirado.PluginGoneError);
      assert.throws(() => client.getMenuValue(0), mirado.PluginGoneError);
      await assert.rejects(client.setMenuValue(0, 1), mirado.PluginGoneError);
      element.changed(0);
      unsubscribe();
    });
  }

  it("is said to have crashed only when it has", async () => {
    for (const [detail, said] of [
      [undefined, "The plug-in has crashed."],
      [{ status: null, signal: 9, reason: "killed" }, "The plug-in has crashed."],
      [{ status: null, signal: null, reason: "the desk has ended" }, "The plug-in is gone: the desk has ended."],
    ]) {
      const { element, client } = connected();
      element.dispatchEvent(Object.assign(new Event("crash"), { detail }));
      assert.equal((await client.whenGone).message, said);
    }
  });

  it("is noticed by a client that comes too late to be told", async () => {
    const { element, client } = connected();
    element.answer = () => undefined;
    await assert.rejects(client.setMenuValue(0, 1), mirado.PluginGoneError);
    assert.deepEqual(element.posted, []);
  });

  it("can be followed by another one in the same element", async () => {
    const { element, client } = connected();
    assert.equal(mirado.connect(element), client);
    element.dispatchEvent(new Event("crash"));
    const next = mirado.connect(element);
    assert.notEqual(next, client);
    const write = next.setMenuValue(0, 1);
    element.deliver(written(1));
    assert.equal(await write, 1);
  });
});

describe("subscriptions", () => {
  it("register a key once, call every listener, and unregister with the last", () => {
    const { element, client } = connected();
    const heard = [];
    const listener = (key) => heard.push(key);
    const first = client.onCaptionChanged(14, listener);
    const second = client.onCaptionChanged(14, listener);
    const other = client.onCaptionChanged(15, (key) => heard.push(`other ${key}`));
    element.changed(14);
    assert.deepEqual(heard, [14, 14]);

    first();
    first();
    element.changed(14);
    element.changed(15);
    assert.deepEqual(heard, [14, 14, 14, "other 15"]);

    second();
    element.changed(14); // Was on its way when the key was unregistered.
    other();
    assert.equal(heard.length, 4);
    assert.deepEqual(element.commands(), [
      "registerVconfKeysForCaption 14", "registerVconfKeysForCaption 15",
      "unRegisterVconfKeysForCaption 14", "unRegisterVconfKeysForCaption 15",
    ]);
  });

  it("keep the two key spaces apart", () => {
    const { element, client } = connected();
    const heard = [];
    const menu = client.onCaptionChanged(0, () => heard.push("menu"));
    client.onChanged(0, () => heard.push("mirado"));
    element.changed(0, "MIRADO_EVENT_CHANGED");
    menu();
    element.changed(0);
    assert.deepEqual(heard, ["mirado"]);
    assert.deepEqual(element.commands(), [
      "registerVconfKeysForCaption 0", "registerVconfKeysForMirado 0", "unRegisterVconfKeysForCaption 0"]);
  });

  it("stay as they should when the plug-in refuses", () => {
    const { element, client } = connected();
    let heard = 0;
    element.answer = ({ command }) => storeFailed(`${command} failed`);
    const refusal = (message) => ({ code: 9999, name: "UnknownError ", message });
    assert.throws(() => client.onCaptionChanged(3, () => heard++), refusal("registerVconfKeysForCaption failed"));
    element.changed(3);

    element.answer = () => success(null);
    const unsubscribe = client.onCaptionChanged(3, () => heard++);
    element.answer = ({ command }) => storeFailed(`${command} failed`);
    assert.throws(unsubscribe, refusal("unRegisterVconfKeysForCaption failed"));
    element.changed(3);
    unsubscribe();
    assert.equal(heard, 0);

    element.answer = () => success(null);
    client.onCaptionChanged(3, () => heard++);
    element.changed(3);
    assert.equal(heard, 1);
    assert.equal(element.commands().filter((command) => command.startsWith("register")).length, 3);
  });

  it("survive listeners that throw, subscribe or unsubscribe while they are called", (t) => {
    const { mock } = t.mock.method(globalThis, "setTimeout", () => {});
    const { element, client } = connected();
    const heard = [];
    client.onCaptionChanged(0, () => { throw new Error("a listener's own fault"); });
    client.onCaptionChanged(0, () => {
      heard.push("first");
      later();
      client.onCaptionChanged(0, () => heard.push("new"));
    });
    const later = client.onCaptionChanged(0, () => heard.push("dropped"));
    element.changed(0);
    assert.deepEqual(heard, ["first"]);
    assert.throws(mock.calls[0].arguments[0], /a listener's own fault/);
  });
});
