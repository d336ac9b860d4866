// What no page can see: the way from a path to its key, the callbacks' guards, and the embedder's wrapper.

#include "ExtensionSystemNorvikaWRT.h"
#include "KeyTables.h"
#include "PluginMirado.h"
#include "ppapi/cpp/var_dictionary.h"
#include "support/plugin_fixture.h"
#include "vconf.h"

namespace {

using Handler = MiradoMessageHandler;

TEST_F(PluginTest, PathsLeadBackToTheFirstRowThatBeginsWithThem) {
  const std::string mode = g_MenuCaptionMap[MENU_KEY_SUBTITLE_MODE].path;
  for (std::uint32_t key = 0; key < CAPTION_SETTING_MAP_SIZE; ++key) {
    EXPECT_EQ(Handler::ConvertCaptionKey(g_MenuCaptionMap[key].path), static_cast<int>(key));
  }
  EXPECT_EQ(Handler::ConvertCaptionKey(mode.substr(0, 20).c_str()), 16);
  EXPECT_EQ(Handler::ConvertCaptionKey(mode.substr(0, 8).c_str()), 0);
  EXPECT_EQ(Handler::ConvertCaptionKey(""), 0);
  EXPECT_EQ(log_.Take(), Lines{});
  EXPECT_EQ(Handler::ConvertCaptionKey((mode + "x").c_str()), -1);
  EXPECT_EQ(Handler::ConvertCaptionKey(g_MiradoKeyMap[0].path), -1);
  EXPECT_EQ(Handler::ConvertMiradoChangeKey(mode.c_str()), -1);
  EXPECT_EQ(log_.Take(),
            (Lines{"0 4 ConvertCaptionKey > Can't find the key[22]", "0 4 ConvertCaptionKey > Can't find the key[22]",
                   "0 4 ConvertMiradoChangeKey > Can't find the key[1]"}));
}

TEST_F(PluginTest, CallbacksGuardAgainstWhatTheyCannotServe) {
  pp::Instance instance(0);
  Handler handler(&instance);
  const pp::VarDictionary reply(handler.createMessage(0, pp::Var(), "", ""));
  EXPECT_TRUE(reply.Get("value").is_null()) << "undefined goes out as null";
  log_.Take();
  Handler::CaptionVconfCb(nullptr, nullptr);
  Handler::MiradoChangeCb(nullptr, nullptr);
  EXPECT_EQ(log_.Take(),
            (Lines{"0 4 CaptionVconfCb > Invalid data pointer", "0 4 MiradoChangeCb > Invalid data pointer"}));
  _keynode_t node{"db/other"};
  Handler::MiradoChangeCb(&node, &handler);
  EXPECT_EQ(log_.Take(),
            (Lines{"0 4 MiradoChangeCb > Sending MIRADO_EVENT_CHANGED event",
                   "0 4 MiradoChangeCb > MIRADO Change Key Change callback recieved for key : db/other",
                   "0 4 ConvertMiradoChangeKey > Can't find the key[1]", "0 4 MiradoChangeCb > Fail to get key code"}));
}

TEST_F(PluginTest, AsksTheEmbedderOnceForEachText) {
  pp::ExtensionSystemNorvikaWRT extension{pp::InstanceHandle(7)};
  const auto calls_of = [&](const pp::Var& privilege, bool expected) {
    const int before = TestEmbedder::calls;
    EXPECT_EQ(extension.CheckPrivilege(privilege), expected) << Text(privilege);
    return TestEmbedder::calls - before;
  };
  EXPECT_EQ(calls_of(pp::Var(), false), 0);
  EXPECT_EQ(calls_of(pp::Var(true), false), 0);
  EXPECT_EQ(calls_of(pp::Var(""), true), 1);
  EXPECT_EQ(TestEmbedder::last_instance, 7);
  EXPECT_EQ(calls_of(pp::Var("a"), true), 1);
  TestEmbedder::status = 1;
  EXPECT_EQ(calls_of(pp::Var("a"), true), 0) << "known";
  EXPECT_EQ(calls_of(pp::Var("b"), false), 1);
  TestEmbedder::status = 0;
  EXPECT_EQ(calls_of(pp::Var("b"), false), 0) << "a failure is kept too";
}

TEST_F(PluginTest, ConvertsTheEmbeddersRepliesByType) {
  pp::ExtensionSystemNorvikaWRT extension{pp::InstanceHandle(7)};
  TestEmbedder::reply = pp::Var(41.9);
  EXPECT_EQ(extension.GetWindowId(), 41);
  EXPECT_EQ(TestEmbedder::last_data, "null");
  EXPECT_FALSE(extension.SetIMERecommendedWordsType(true));
  EXPECT_EQ(TestEmbedder::last_operation + TestEmbedder::last_data, "\"set_ime_recommended_words_type\"true");
  TestEmbedder::reply = pp::Var(true);
  EXPECT_EQ(extension.GetWindowId(), -1);
  EXPECT_TRUE(extension.SetIMERecommendedWords(pp::Var("words")));
  EXPECT_EQ(TestEmbedder::last_operation + TestEmbedder::last_data, "\"set_ime_recommended_words\"\"words\"");
  EXPECT_EQ(extension.GetCurrentExtensionInfo().AsInt(), 7);
  TestEmbedder::name = pp::Var("OstraWRT");
  EXPECT_TRUE(extension.IsValid());
  TestEmbedder::name = pp::Var(3);
  EXPECT_EQ(extension.GetEmbedderName(), "");
  EXPECT_TRUE(extension.IsValid()) << "asked once in the process";
}

// In a process of its own, since the browser is asked for the interface once in each.
TEST_F(PluginTest, LivesWithoutTheEmbeddersInterface) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto run = [&] {
    pp::browser::RegisterBrowserInterface(PPB_EXTENSIONSYSTEM_NORVIKA_INTERFACE_0_1, nullptr);
    pp::ExtensionSystemNorvikaWRT extension{pp::InstanceHandle(7)};
    bool ok = extension.GenericSyncCall(pp::Var("x"), pp::Var()).is_undefined();
    TestEmbedder::Offer();
    ok = ok && extension.GetCurrentExtensionInfo().is_undefined() && extension.GetEmbedderName().empty() &&
         !extension.CheckPrivilege(pp::Var("x")) && TestEmbedder::calls == 0;
    std::_Exit(ok ? 0 : 1);
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
