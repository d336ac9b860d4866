// The tests of the client library, in ECMAScript 5, so that an engine which knows no more runs them too. `mirado` and
// `other` are two copies of the library; `test` takes a name and a function, which may return a promise.
function clientSuite(mirado, other, test) {
  "use strict";

  var assert = {
    equal: function (actual, expected, text) {
      if (actual !== expected) throw new Error(text || String(actual) + " is not " + String(expected));
    },
    same: function (actual, expected) { assert.equal(JSON.stringify(actual), JSON.stringify(expected)); },
    // Returns a promise of the error with which a call or a promise fails.
    fails: function (action) {
      var promise = typeof action === "function" ? new Promise(function (resolve) { resolve(action()); }) : action;
      return promise.then(function () { throw new Error("it did not fail"); }, function (error) { return error; });
    },
  };

  function success(value) { return { code: 0, value: value, errorName: "", errorMessage: "" }; }
  function storeFailed(text) { return { code: 9999, value: null, errorName: "UnknownError ", errorMessage: text }; }
  function written(value) {
    var text = "Mirado setMenuValue success.";
    return { code: 0, value: value, errorName: "", errorMessage: text, command: "setMenuValue" };
  }

  // An element whose plug-in answers waiting calls with `answer` and posts what `deliver` is given.
  function FakeElement() {
    this.sent = [];
    this.posted = [];
    this.heard = { message: [], crash: [] };
    this.parentNode = null;
  }
  FakeElement.prototype = {
    answer: function () { return success(null); },
    postMessage: function (message) { this.posted.push(message); },
    postMessageAndAwaitResponse: function (message) {
      this.sent.push(message);
      return this.answer(message);
    },
    addEventListener: function (type, listener) { this.heard[type].push(listener); },
    dispatch: function (type, event) { this.heard[type].forEach(function (listener) { listener(event); }); },
    deliver: function () {
      for (var i = 0; i < arguments.length; ++i) this.dispatch("message", { data: arguments[i] });
    },
    crash: function (detail) { this.dispatch("crash", { detail: detail }); },
    changed: function (key, event) {
      this.deliver({ code: 0, value: key, event: event || "MIRADO_EVENT_CAPTION_CHANGED" });
    },
    commands: function () { return this.sent.map(function (one) { return one.command + " " + one.propertyKey; }); },
    cloneNode: function () { return new FakeElement(); },
  };

  var element, client;
  function connectedTest(name, check) {
    test(name, function () {
      element = new FakeElement();
      client = mirado.connect(element);
      return check();
    });
  }

  connectedTest("waiting commands send their request and return the value of the reply", function () {
    [
      [client.getVersion, [], { command: "getVersion" }, "4.0", "4.0"],
      [client.getMenuValue, [20], { command: "getMenuValue", propertyKey: 20 }, "SLOW", "SLOW"],
      [client.getMiradoValue, [0], { command: "getMiradoValue", propertyKey: 0 }, 1, 1],
      [client.isTVSPicSizeResized, [], { command: "isTVSPicSizeResized" }, false, false],
      [client.showCaption, [-7], { command: "showCaption", show: -7 }, null, undefined],
      [client.registerInAppCaptionControl, [2], { command: "registerInAppCaptionControl", status: 2 }, null, undefined],
    ].forEach(function (row) {
      element.answer = function () { return success(row[3]); };
      assert.equal(row[0].apply(null, row[1]), row[4]);
      assert.same(element.sent.pop(), row[2]);
    });
  });

  connectedTest("an error has the exact text of the plug-in, including blanks", function () {
    element.answer = function () { return storeFailed("getMiradoValue fail "); };
    return assert.fails(function () { client.getMiradoValue(0); }).then(function (error) {
      assert.equal(error instanceof mirado.MiradoError && error instanceof Error, true);
      assert.same([error.code, error.name, error.message], [9999, "UnknownError ", "getMiradoValue fail "]);
      assert.equal(/MiradoError|UnknownError /.test(String(error)), true);
    });
  });

  connectedTest("invalid arguments throw in the page and never reach the plug-in", function () {
    function take() {}
    return Promise.all([
      [function () { client.getMenuValue("0"); }, /^propertyKey must be a 32-bit integer, not "0"\.$/],
      [function () { client.getMiradoValue(0.5); }, /propertyKey.*not 0\.5/],
      [function () { client.onChanged(undefined, take); }, /propertyKey.*not undefined/],
      [function () { client.showCaption(true); }, /show.*not true/],
      [function () { client.registerInAppCaptionControl(2147483648); }, /status.*not 2147483648/],
      [function () { client.onCaptionChanged(5); }, /listener.*function/],
      [client.setMenuValue(16, "1"), /value.*not "1"/],
      [client.setMenuValue("16", 1), /propertyKey.*not "16"/],
      [client.setMenuValue(20, "FAST"), /Write VOICE_GUIDE_SPEED\.FAST\.$/],
      [client.setMenuValue(20, "toString"), /not "toString"\.$/],
      [function () { mirado.connect(null); }, /no plug-in/],
      [function () { mirado.connect({ postMessage: take }); }, /no plug-in/],
    ].map(function (row) {
      return assert.fails(row[0]).then(function (error) {
        assert.equal(error instanceof TypeError && row[1].test(error.message), true, String(error));
      });
    })).then(function () {
      assert.same([element.sent, element.posted], [[], []]);
      element.answer = function () { return success("FAST"); };
      client.setMenuValue(20, mirado.VOICE_GUIDE_SPEED[client.getMenuValue(20)]);
      assert.same(element.posted, [{ command: "setMenuValue", propertyKey: 20, value: 11 }]);
    });
  });

  connectedTest("each write gets its own reply, also with other deliveries in between", function () {
    var writes = [client.setMenuValue(2, 5), client.setMenuValue(14, 1), client.setMenuValue(3, 6)];
    assert.same(element.posted[0], { command: "setMenuValue", propertyKey: 2, value: 5 });
    element.deliver(
      { code: 26, value: null, command: "" },         // For a malformed message that the page posted,
      { code: 9, value: "", command: "getVersion" },  // and a command that cannot be posted.
      { code: 0, value: 2, event: "MIRADO_EVENT_CAPTION_CHANGED" }, "some text", null, 7, written(261),
      { code: 9, value: null, errorName: "NotSupportedError", errorMessage: "no", command: "setMenuValue" },
      written(6), written(99));
    return Promise.all([writes[0], assert.fails(writes[1]), writes[2]]).then(function (outcomes) {
      assert.same([outcomes[0], outcomes[1].code, outcomes[1].name, outcomes[2]], [261, 9, "NotSupportedError", 6]);
    });
  });

  connectedTest("a write that cannot be posted is rejected at once", function () {
    element.postMessage = function () { throw new TypeError("not clonable"); };
    return assert.fails(client.setMenuValue(2, 5)).then(function (error) {
      assert.equal(error.message, "not clonable");
      delete element.postMessage;
      var write = client.setMenuValue(2, 6);
      element.deliver(written(6));
      return write;
    }).then(function (value) { assert.equal(value, 6); });
  });

  connectedTest("two copies of the library share the client of an element, and their errors", function () {
    assert.equal(other.connect(element), client);
    var writes = [1, 2, 3, 4].map(function (value) {
      return (value % 2 ? mirado : other).connect(element).setMenuValue(0, value);
    });
    element.deliver(written(1), written(2), written(3), written(4));
    element.answer = function () { return storeFailed("x"); };
    return Promise.all(writes).then(function (values) {
      assert.same(values, [1, 2, 3, 4]);
      return assert.fails(function () { client.getVersion(); });
    }).then(function (error) {
      assert.equal(error instanceof other.MiradoError, true);
      var held = new FakeElement();
      held[Symbol.for("mirado.client")] = { version: 0, client: {} };
      return assert.fails(function () { mirado.connect(held); });
    }).then(function (error) {
      assert.equal(/[Tt]wo versions/.test(error.message), true, error.message);
    });
  });

  var ends = {
    "crashes": function () { element.crash(); },
    "ends its registration": function () { element.deliver("Unregister"); },
    "never registered": function () { element.deliver("Error while registering MessageHandler"); },
    "leaves a waiting call without a reply": function () {
      element.answer = function () { return undefined; };
      try { client.getVersion(); } catch (error) { return; }
      throw new Error("getVersion gave something");
    },
  };
  Object.keys(ends).forEach(function (how) {
    connectedTest("what is pending and all that follows fails when the plug-in " + how, function () {
      var told = 0;
      var unsubscribe = client.onCaptionChanged(0, function () { ++told; });
      var write = client.setMenuValue(0, 1);
      ends[how]();
      return Promise.all([
        assert.fails(write), client.whenGone, assert.fails(function () { client.getMenuValue(0); }),
        assert.fails(client.setMenuValue(0, 1)),
      ]).then(function (errors) {
        errors.forEach(function (error) { assert.equal(error instanceof mirado.PluginGoneError, true); });
        element.changed(0);
        unsubscribe();
        assert.equal(told, 0);
        var next = mirado.connect(element);  // The element has another plug-in.
        assert.equal(next !== client, true);
        delete element.answer;
        var again = next.setMenuValue(0, 1);
        element.deliver(written(1));
        return again;
      }).then(function (value) { assert.equal(value, 1); });
    });
  });

  test("the cause is reported, also to a connection made after the crash event", function () {
    var cases = [
      [undefined, "The plug-in has crashed."],
      [{ status: null, signal: 9, reason: "killed by SIGKILL" }, "The plug-in has crashed: killed by SIGKILL."],
      [{ status: 3, signal: null, reason: "status 3" }, "The plug-in has crashed: status 3."],
      [{ status: null, signal: null, reason: "the desk has ended." }, "The plug-in is gone: the desk has ended."],
    ];
    return Promise.all(cases.map(function (row) {
      var early = new FakeElement();
      var told = [mirado.connect(early).whenGone];
      early.crash(row[0]);
      if (row[0]) {
        var late = new FakeElement();
        late.pluginGone = row[0];
        told.push(mirado.connect(late).whenGone, assert.fails(mirado.connect(late).setMenuValue(0, 1)));
        assert.same([late.sent, late.posted], [[], []]);
        var starting = new FakeElement(); // A desk starts the plug-in with the first call, and fails.
        starting.answer = function () { starting.pluginGone = row[0]; };
        told.push(assert.fails(mirado.connect(starting).setMenuValue(0, 1)));
      }
      return Promise.all(told).then(function (errors) {
        errors.forEach(function (error) { assert.same([error.message, error.detail], [row[1], row[0] || null]); });
      });
    }));
  });

  connectedTest("no write is posted to a plug-in that ended before the first listener", function () {
    element.answer = function () { return undefined; };
    return assert.fails(client.setMenuValue(0, 1)).then(function (error) {
      assert.equal(error.name, "PluginGoneError");
      assert.same(element.posted, []);
    });
  });

  connectedTest("a key is registered once, calls every listener, and is unregistered with the last", function () {
    var heard = [];
    function listener(key) { heard.push(key); }
    var first = client.onCaptionChanged(14, listener);
    var second = client.onCaptionChanged(14, listener);
    var third = client.onCaptionChanged(15, function (key) { heard.push("third " + key); });
    element.changed(14);
    first();
    first();
    element.changed(14);
    element.changed(15);
    second();
    element.changed(14); // It was sent before the key was unregistered.
    third();
    assert.same(heard, [14, 14, 14, "third 15"]);
    assert.same(element.commands(), [
      "registerVconfKeysForCaption 14", "registerVconfKeysForCaption 15",
      "unRegisterVconfKeysForCaption 14", "unRegisterVconfKeysForCaption 15",
    ]);
  });

  connectedTest("keys of the two tables are independent", function () {
    var heard = [];
    var menu = client.onCaptionChanged(0, function () { heard.push("menu"); });
    client.onChanged(0, function () { heard.push("mirado"); });
    element.changed(0, "MIRADO_EVENT_CHANGED");
    menu();
    element.changed(0);
    element.changed(0, "__proto__");
    assert.same(heard, ["mirado"]);
    assert.same(element.commands(), [
      "registerVconfKeysForCaption 0", "registerVconfKeysForMirado 0", "unRegisterVconfKeysForCaption 0"]);
  });

  connectedTest("subscriptions stay correct if the plug-in refuses a request", function () {
    var heard = 0;
    function listener() { ++heard; }
    function refuse(request) { return storeFailed(request.command + " failed"); }
    element.answer = refuse;
    return assert.fails(function () { client.onCaptionChanged(3, listener); }).then(function (error) {
      assert.equal(error.message, "registerVconfKeysForCaption failed");
      element.changed(3);
      delete element.answer;
      var unsubscribe = client.onCaptionChanged(3, listener);
      element.answer = refuse;
      return assert.fails(unsubscribe);
    }).then(function (error) {
      assert.equal(error.message, "unRegisterVconfKeysForCaption failed");
      element.changed(3);
      assert.equal(heard, 0);
      delete element.answer;
      client.onCaptionChanged(3, listener);
      element.changed(3);
      assert.equal(heard, 1);
      assert.same(element.commands().map(function (one) { return one.slice(0, 3); }), ["reg", "reg", "unR", "reg"]);
    });
  });

  // Runs `check` with timers that it fires itself: a list of [function, milliseconds].
  function withTimers(check) {
    var timers = [];
    var real = setTimeout;
    var clock = Date.now;
    setTimeout = function (call, wait) { timers.push([call, wait]); };
    function restore() {
      setTimeout = real;
      Date.now = clock;
    }
    return Promise.resolve(check(timers)).then(restore, function (error) { restore(); throw error; });
  }

  connectedTest("listeners may throw, subscribe and unsubscribe while they are called", function () {
    return withTimers(function (timers) {
      var heard = [];
      client.onCaptionChanged(0, function () { throw new Error("a listener's own fault"); });
      client.onCaptionChanged(0, function () {
        heard.push("first");
        later();
        client.onCaptionChanged(0, function () { heard.push("new"); });
      });
      var later = client.onCaptionChanged(0, function () { heard.push("dropped"); });
      element.changed(0);
      assert.same(heard, ["first"]);
      return assert.fails(timers[0][0]).then(function (error) {
        assert.equal(error.message, "a listener's own fault");
      });
    });
  });

  test("a connection continues: a new element replaces one whose plug-in has ended", function () {
    return withTimers(function (timers) {
      var used = [];
      var now = 0;
      Date.now = function () { return now; };
      var parent = { replaceChild: function (next, old) {
        next.parentNode = parent;
        old.parentNode = null;
      } };
      var first = new FakeElement();
      first.parentNode = parent;
      var stop = mirado.keepConnected(first, function (client, element) {
        used.push({ client: client, element: element });
        if (used.length === 1) return;
        if (used.length < 7) element.answer = function () { return undefined; };
        client.getVersion();
      });
      // Resolves when the loss of the newest plug-in has been noticed and the timer that it sets has fired.
      function fire() {
        return used[used.length - 1].client.whenGone.then(function () { timers[timers.length - 1][0](); });
      }
      first.crash();
      return fire().then(fire).then(fire).then(fire).then(fire).then(fire).then(function () {
        assert.equal(used.length, 7);
        used.forEach(function (one, at) { assert.equal(one.element.parentNode === parent, at === 6); });
        now = 30001;
        used[6].element.crash();
        return fire();
      }).then(function () {
        assert.same(timers.map(function (timer) { return timer[1]; }),
          [1000, 2000, 4000, 8000, 16000, 30000, 1000]);
        used[7].element.parentNode = null; // taken out of the document
        used[7].element.crash();
        return fire();
      }).then(function () {
        assert.equal(used.length, 8);
        stop();
        used[7].element.parentNode = parent;
        timers[timers.length - 1][0]();
        assert.equal(used.length, 8);
        return assert.fails(function () {
          mirado.keepConnected(used[7].element, function (client, element) {
            used.push({ client: client, element: element });
            throw new Error("the page's own fault");
          });
        });
      }).then(function (error) {
        assert.equal(error.message, "the page's own fault");
        used[8].element.crash();
        return fire();
      }).then(function () { assert.equal(used.length, 9); }); // an error of the first call ends it
    });
  });
}
