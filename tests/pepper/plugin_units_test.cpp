// The plug-in's classes, tested directly where no page can reach them: the conversion of paths to keys,
// MenuValueManager, the checks of the change callbacks, and the calls of the embedder.

#include <future>

#include "ExtensionSystemNorvikaWRT.h"
#include "KeyTables.h"
#include "MenuValueManager.h"
#include "PluginMirado.h"
#include "ResultCode.h"
#include "message_loop_control.h"
#include "pepper/plugin_fixture.h"
#include "ppapi/cpp/message_loop.h"
#include "ppapi/cpp/var_dictionary.h"
#include "vconf.h"

namespace {

using Handler = MiradoMessageHandler;

TEST_F(PluginTest, ConvertsAPathToTheFirstRowWhosePathBeginsWithIt) {
  const std::string mode = g_MenuCaptionMap[MENU_KEY_SUBTITLE_MODE].path;
  PlatformCalls calls;
  EXPECT_EQ(Handler::ConvertCaptionKey(mode.c_str()), MENU_KEY_SUBTITLE_MODE);
  EXPECT_EQ(Handler::ConvertCaptionKey("db/menu/subtitle/sub"), MENU_KEY_SUBTITLE);
  EXPECT_EQ(Handler::ConvertCaptionKey("db/menu/"), MENU_KEY_CAPTION);
  EXPECT_EQ(Handler::ConvertCaptionKey(""), 0);
  EXPECT_EQ(calls.Take(), Lines{});
  EXPECT_EQ(Handler::ConvertCaptionKey((mode + "x").c_str()), -1);
  EXPECT_EQ(Handler::ConvertMiradoChangeKey(mode.c_str()), -1);
  EXPECT_EQ(calls.Take(), (Lines{"log 0 4 PluginMirado.cpp ConvertCaptionKey > Can't find the key[" +
                                     std::to_string(CAPTION_SETTING_MAP_SIZE) + "]",
                                 "log 0 4 PluginMirado.cpp ConvertMiradoChangeKey > Can't find the key[" +
                                     std::to_string(MIRADO_MAP_SIZE) + "]"}));
}

TEST_F(PluginTest, CallbacksLogNullPointersAndUnknownKeys) {
  pp::Instance instance(0);
  Handler handler(&instance);
  EXPECT_TRUE(pp::VarDictionary(handler.createMessage(0, pp::Var(), "", "")).Get("value").is_null());
  _keynode_t node{"db/other"};
  PlatformCalls calls;
  Handler::CaptionVconfCb(nullptr, nullptr);
  Handler::MiradoChangeCb(nullptr, nullptr);
  Handler::CaptionVconfCb(&node, &handler);
  const std::string log = "log 0 4 PluginMirado.cpp ";
  EXPECT_EQ(calls.Take(),
            (Lines{log + "CaptionVconfCb > Invalid data pointer", log + "MiradoChangeCb > Invalid data pointer",
                   log + "CaptionVconfCb > Sending MIRADO_EVENT_CAPTION_CHANGED event",
                   log + "CaptionVconfCb > Caption Menu Key Change callback recieved for key : db/other",
                   log + "ConvertCaptionKey > Can't find the key[" + std::to_string(CAPTION_SETTING_MAP_SIZE) + "]",
                   log + "CaptionVconfCb > Fail to get key code"}));
}

TEST_F(PluginTest, TheManagerChangesItsArgumentOnlyOnSuccess) {
  using Record = std::tuple<int, int, std::string>;  // the result, and the members of the value after it
  MenuValueManager manager;
  const auto got = [&](unsigned int key) {
    MenuValue value{7, "old"};
    const int result = manager.getMenuValue(key, value);
    return Record{result, value.iValue, value.sValue};
  };
  EXPECT_EQ(got(MENU_KEY_APPS_TICKER), Record(RESULT_NOT_SUPPORTED, 7, "old"));
  EXPECT_EQ(got(CAPTION_SETTING_MAP_SIZE), Record(RESULT_INVALID_VALUE, 7, "old"));
  EXPECT_EQ(got(MENU_KEY_VOICE_GUIDE_SPEED), Record(RESULT_OK, 8, "NORMAL"));
  EXPECT_EQ(got(MENU_KEY_TTS), Record(RESULT_OK, 0, "old"));
  const auto confirmed = [&](unsigned int key, int requested) {
    MenuValue current{300, "old"};
    const int result = manager.confirmMenuValue(key, {requested, "new"}, current);
    return Record{result, current.iValue, current.sValue};
  };
  EXPECT_EQ(confirmed(MENU_KEY_APPS_TICKER, 1), Record(RESULT_NOT_SUPPORTED, 300, "old"));
  EXPECT_EQ(confirmed(MENU_KEY_DIGITAL_CAPTION_FONT_STYLE, 5), Record(RESULT_OK, 261, "old"));
  EXPECT_EQ(confirmed(MENU_KEY_PRIMARY_AUDIO_LANGUAGE, 1), Record(RESULT_OK, 1, "new"));
  EXPECT_EQ(confirmed(MENU_KEY_SECONDARY_AUDIO_LANGUAGE, 99), Record(RESULT_INVALID_VALUE, 300, "old"));
  Fault("GetItemDataList", "*", -1);
  EXPECT_EQ(confirmed(MENU_KEY_PRIMARY_AUDIO_LANGUAGE, 1), Record(RESULT_FAILED, 300, "old"));
}

TEST_F(PluginTest, AHandlerRegistersItselfOnTheCurrentThreadsLoop) {
  pp::browser::SetRegisterMessageHandlerResult(-1);
  Page page(*plugin_);
  pp::browser::SetRegisterMessageHandlerResult(0);
  pp::Instance instance(page.instance().id());
  Handler handler(&instance);
  handler.Register();
  EXPECT_EQ(page.Received(), Lines{"\"Error while registering MessageHandler\""}) << "there is no loop on this thread";

  struct Work final : pp::MessageLoop::Core::Work {
    void Run() override {
      handler->Register();
      done.set_value();
    }
    void Drop() override {}
    Handler* handler = nullptr;
    std::promise<void> done;
  } work;
  work.handler = &handler;
  pp::SimpleThreadAwaitLoop worker{pp::InstanceHandle(&instance)};
  worker.Start();
  worker.message_loop().core()->Push(&work);
  work.done.get_future().wait();
  EXPECT_EQ(page.Send(Ask("getVersion")), Done("\"4.0\""));
  EXPECT_EQ(page.Received(), Lines{});
}

TEST_F(PluginTest, AsksTheEmbedderOnceForEachPrivilege) {
  pp::ExtensionSystemNorvikaWRT extension{pp::InstanceHandle(7)};
  PlatformCalls calls;
  const auto calls_of = [&](const pp::Var& privilege, bool expected) {
    EXPECT_EQ(extension.CheckPrivilege(privilege), expected) << Text(privilege);
    return calls.Take().size();
  };
  for (const pp::Var& other : {pp::Var(), pp::Var(pp::Var::Null()), pp::Var(true), pp::Var(7)}) {
    EXPECT_EQ(calls_of(other, false), 0U);
  }
  EXPECT_EQ(calls_of(pp::Var(""), true), 1U);
  EXPECT_EQ(TestEmbedder::last_instance, 7);
  EXPECT_EQ(calls_of(pp::Var("a"), true), 1U);
  TestEmbedder::status = 1;
  EXPECT_EQ(calls_of(pp::Var("a"), true), 0U) << "known";
  EXPECT_EQ(calls_of(pp::Var("b"), false), 1U);
  TestEmbedder::status = 0;
  EXPECT_EQ(calls_of(pp::Var("b"), false), 0U) << "a failure is kept too";
  TestEmbedder::reply = pp::Var(1);
  EXPECT_EQ(calls_of(pp::Var("c"), false), 1U) << "only a bool is an answer";
}

TEST_F(PluginTest, ConvertsTheEmbeddersRepliesByType) {
  pp::ExtensionSystemNorvikaWRT extension{pp::InstanceHandle(7)};
  PlatformCalls calls;
  using Result = std::function<std::int32_t()>;
  const std::tuple<std::string, std::string, Result> operations[] = {
      {"get_window_id", "undefined", [&] { return extension.GetWindowId(); }},
      {"set_ime_recommended_words_type", "true", [&] { return extension.SetIMERecommendedWordsType(true); }},
      {"set_ime_recommended_words_type", "false", [&] { return extension.SetIMERecommendedWordsType(false); }},
      {"set_ime_recommended_words", "[1]", [&] { return extension.SetIMERecommendedWords(Message("[1]")); }}};
  // The status and the reply of the embedder, and the results for a window and for a switch.
  const std::tuple<int, pp::Var, std::int32_t, std::int32_t> rows[] = {
      {0, pp::Var(41.9), 41, 0}, {0, pp::Var(41), 41, 0},   {0, pp::Var(true), -1, 1}, {0, pp::Var(false), -1, 0},
      {0, pp::Var("1"), -1, 0},  {1, pp::Var(true), -1, 0}, {-1, pp::Var(41), -1, 0}};
  for (const auto& [status, reply, window, other] : rows) {
    TestEmbedder::status = status;
    TestEmbedder::reply = reply;
    for (const auto& [operation, data, call] : operations) {
      EXPECT_EQ(call(), operation == "get_window_id" ? window : other) << operation << " " << Text(reply);
      EXPECT_EQ(calls.Take(), Lines{"GenericSyncCall " + Text(operation).append(" ").append(data)});
      EXPECT_EQ(TestEmbedder::last_instance, 7);
    }
  }
  EXPECT_EQ(extension.GetCurrentExtensionInfo().AsInt(), 7);
  TestEmbedder::name = pp::Var(3);
  EXPECT_EQ(extension.GetEmbedderName(), "");
  TestEmbedder::name = pp::Var("a name");
  EXPECT_EQ(extension.GetEmbedderName(), "a name");
}

// The next two run in child processes, because a process asks the embedder for these only once.

TEST_F(PluginTest, AcceptsOnlyTheExactNameOfTheRuntime) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  for (const std::string name : {"OstraWRT", "OstraWRT2", "OstraWR", "ostrawrt", ""}) {
    const auto run = [&] {
      TestEmbedder::name = pp::Var(name);
      const bool valid = pp::ExtensionSystemNorvikaWRT(pp::InstanceHandle(7)).IsValid();
      TestEmbedder::name = pp::Var(valid ? "other" : "OstraWRT");
      const bool again = pp::ExtensionSystemNorvikaWRT(pp::InstanceHandle(8)).IsValid();
      std::_Exit(valid == (name == "OstraWRT") && again == valid ? 0 : 1);
    };
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "") << name;
  }
}

TEST_F(PluginTest, WorksWithoutTheEmbeddersInterface) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [] {
    PlatformCalls calls;
    pp::browser::RegisterBrowserInterface(PPB_EXTENSIONSYSTEM_NORVIKA_INTERFACE_0_1, nullptr);
    pp::ExtensionSystemNorvikaWRT extension{pp::InstanceHandle(7)};
    bool ok = extension.GenericSyncCall(pp::Var("x"), pp::Var()).is_undefined();
    TestEmbedder::Offer();  // too late
    ok = ok && extension.GetCurrentExtensionInfo().is_undefined() && extension.GetEmbedderName().empty() &&
         !extension.CheckPrivilege(pp::Var("x")) && extension.GetWindowId() == -1 && calls.Take().empty();
    std::_Exit(ok ? 0 : 1);
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
