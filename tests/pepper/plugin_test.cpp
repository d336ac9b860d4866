// The commands of the plug-in, from the page's side: the real library on a real store.

#include "support/plugin_fixture.h"

namespace {

constexpr char kB2b[] = "set/system_info/com.norvika/featureconf/product.b2b_option_support";
constexpr char kPictureSize[] = "set/panelbase/picture_size";
constexpr char kSpeed[] = "db/menu/system/accessibility/voiceguide/speed";
constexpr char kPrimary[] = "db/menu/broadcasting/audio_options/primary_audio_language";

const std::string kBadKey = Waited(26, "null", "InvalidValuesError", "Parameter propertyKey is invalid");

std::string Written(int value) {
  return Delivered("setMenuValue", 0, std::to_string(value), "", "Mirado setMenuValue success.");
}
std::string Refused(int code, const std::string& name, const std::string& message) {
  return Delivered("setMenuValue", code, "null", name, message);
}

TEST_F(PluginTest, StartsAndStopsInOrder) {
  {
    Page page(*plugin_);
    ASSERT_TRUE(page.exists());
    EXPECT_EQ(log_.Take(), (Lines{"0 4 MiradoMessageHandler > [PluginMirado] hasPrivilege : 1",
                                  "0 4 PluginMirado > [PluginMirado] begin additional_thread_->Start()",
                                  "0 4 PluginMirado > [PluginMirado] begin RegisterMessageHandler",
                                  "0 4 PluginMirado > [PluginMirado]  RegisterMessageHandler success"}));
    EXPECT_EQ(TestEmbedder::last_instance, page.instance().id());
    EXPECT_EQ(TestEmbedder::last_operation, R"("check_ace_privilege")");
    EXPECT_EQ(TestEmbedder::last_data, R"("http://norvika.com/privilege/mirado")");
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    EXPECT_STREQ(name, "qrl.mirado");

    page.EndRegistration();
    EXPECT_EQ(page.Heard(), Lines{R"("Unregister")"});
    EXPECT_EQ(page.Send(Ask("getVersion")), "null");
  }
  EXPECT_EQ(log_.Take(), Lines{"0 4 ~PluginMirado > [PluginMirado]  destructor invoked."});
}

TEST_F(PluginTest, LivesWithoutItsHandler) {
  pp::browser::SetRegisterMessageHandlerResult(-2);
  Page page(*plugin_);
  pp::browser::SetRegisterMessageHandlerResult(0);
  ASSERT_TRUE(page.exists());
  EXPECT_EQ(log_.Take().back(), "0 4 PluginMirado > [PluginMirado]  RegisterMessageHandler Fail");
  EXPECT_EQ(page.Send(Ask("getVersion")), "null");
  page.Post(Ask("setMenuValue"));
  EXPECT_EQ(page.Heard(), Lines{});
}

TEST_F(PluginTest, AnswersEveryWaitingMessageOnce) {
  ASSERT_EQ(vconf::Set("db/menu/caption/caption", -70000).text(), "");
  ASSERT_EQ(vconf::Set("db/setting/accessibility/tts", true).text(), "");
  ASSERT_EQ(vconf::Set(kPrimary, 2).text(), "");
  ASSERT_EQ(vconf::Set("memory/tv-viewer/bg_executable", 5).text(), "");
  const std::string no_dictionary = Waited(26, "null", "InvalidValuesError", "Incoming message is not dictionary");
  const std::string no_command = Waited(26, "null", "InvalidValuesError", "Parameter command is invalid");
  const std::string unknown = Waited(9, "null", "NotSupportedError", "Command not recognized");
  const std::string no_key = Waited(26, "null", "InvalidValuesError", "value or key is not valid");
  const std::string no_value = Waited(9999, "null", "UnknownError ", "getMiradoValue fail ");
  const std::string bad_show = Waited(26, "null", "InvalidValuesError", "Parameter show is invalid");
  const std::string bad_status = Waited(26, "null", "InvalidValuesError", "Parameter avplay status is invalid");
  const std::pair<std::string, std::string> rows[] = {
      {"\"getVersion\"", no_dictionary},
      {"7", no_dictionary},
      {"null", no_dictionary},
      {R"([{"command":"getVersion"}])", no_dictionary},
      {"{}", no_command},
      {R"({"command":null})", no_command},
      {R"({"command":7})", no_command},
      {R"({"command":["getVersion"]})", no_command},
      {Ask(""), unknown},
      {Ask("GetVersion"), unknown},
      {Ask("getVersion "), unknown},
      {Ask("getVersion\\u0000"), unknown},
      {Ask("setMenuValue"), unknown},
      {Ask("getVersion", R"("propertyKey":"x","more":{})"), Done("\"4.0\"")},
      {AskKey("getMenuValue", 0), Done("-70000")},
      {AskKey("getMenuValue", 15), Done("1")},
      {AskKey("getMenuValue", 18), Done("2")},
      {AskKey("getMenuValue", 14), Waited(9, "null", "NotSupportedError", "key is not supported")},
      {AskKey("getMenuValue", 22), no_key},
      {AskKey("getMenuValue", -1), no_key},
      {Ask("getMenuValue"), kBadKey},
      {AskKey("getMenuValue", 7.0), kBadKey},
      {AskKey("getMenuValue", 2147483648), kBadKey},
      {AskKey("getMenuValue", "7"), kBadKey},
      {AskKey("getMenuValue", true), kBadKey},
      {AskKey("getMiradoValue", 0), Done("5")},
      {AskKey("getMiradoValue", 1), no_value},
      {AskKey("getMiradoValue", -1), no_value},
      {AskKey("getMiradoValue", nullptr), kBadKey},
      {Ask("showCaption"), bad_show},
      {Ask("showCaption", R"("show":1.0)"), bad_show},
      {Ask("showCaption", R"("show":-7,"status":9)"), Done("null")},
      {Ask("registerInAppCaptionControl", R"("show":1)"), bad_status},
      {Ask("registerInAppCaptionControl", R"("status":true)"), bad_status},
      {Ask("registerInAppCaptionControl", R"("status":2147483647)"), Done("null")},
  };
  Page page(*plugin_);
  for (const auto& [message, reply] : rows) EXPECT_EQ(page.Send(message), reply) << message;
  EXPECT_EQ(page.Heard(), Lines{}) << "a waiting message is answered by its result alone";
  EXPECT_EQ(*vconf::Get("memory/webapp/caption"), vconf::Value(-7));
  EXPECT_EQ(*vconf::Get("memory/webapp/avplay"), vconf::Value(2147483647));
}

TEST_F(PluginTest, NamesTheVoiceGuidesSpeed) {
  Page page(*plugin_);
  const std::pair<int, std::string> rows[] = {{-1, "NORMAL"}, {0, "NORMAL"},     {1, "VERY_SLOW"},  {3, "VERY_SLOW"},
                                              {4, "SLOW"},    {6, "SLOW"},       {7, "NORMAL"},     {10, "FAST"},
                                              {12, "FAST"},   {13, "VERY_FAST"}, {15, "VERY_FAST"}, {16, "NORMAL"}};
  for (const auto& [stored, name] : rows) {
    ASSERT_EQ(vconf::Set(kSpeed, stored).text(), "");
    EXPECT_EQ(page.Send(AskKey("getMenuValue", 20)), Done("\"" + name + "\"")) << stored;
  }
}

TEST_F(PluginTest, JudgesThePictureSize) {
  Page page(*plugin_);
  log_.Take();
  const std::pair<int, std::string> rows[] = {{0, "true"}, {1, "false"}, {2, "false"},
                                              {3, "true"}, {4, "false"}, {-3, "false"}};
  for (const auto& [size, resized] : rows) {
    ASSERT_EQ(vconf::Set(kPictureSize, size).text(), "");
    EXPECT_EQ(page.Send(Ask("isTVSPicSizeResized", R"("x":1)")), Done(resized)) << size;
    EXPECT_EQ(log_.Take(), Lines{"0 4 isTVSPicSizeResized > PictureSize is " + std::to_string(size)});
  }
  ASSERT_EQ(vconf::Set(kPictureSize, 1).text(), "");
  Fault("GetPictureSize", "*", -1);
  EXPECT_EQ(page.Send(Ask("isTVSPicSizeResized")), Done("true"));
  EXPECT_EQ(log_.Take(), Lines{"0 4 isTVSPicSizeResized > PictureSize is 0"});
  ASSERT_EQ(vconf::Remove(kPictureSize).text(), "");
  EXPECT_EQ(page.Send(Ask("isTVSPicSizeResized")), Done("true"));
  EXPECT_EQ(log_.Take(), Lines{});
}

TEST_F(PluginTest, TellsWhatThePlatformRefused) {
  Page page(*plugin_);
  const auto refused = [&](const std::string& call, const std::string& message, const std::string& reply_message,
                           const Lines& lines) {
    if (!call.empty()) Fault(call, "*", -1);
    log_.Take();
    EXPECT_EQ(page.Send(message), Waited(9999, "null", "UnknownError ", reply_message)) << message;
    EXPECT_EQ(log_.Take(), lines) << message;
    ASSERT_EQ(vconf::ClearFaults().text(), "");
  };
  refused("vconf_get_int", AskKey("getMenuValue", 3), "getMenuValue is failed",
          {"0 4 getMenuValue > Fail to get the vconf value, key = 3, value = [0]"});
  refused("vconf_get_int", AskKey("getMenuValue", 20), "getMenuValue is failed",
          {"0 4 getMenuValue > Fail to get the vconf iValue, key = 20, iValue = [0]"});
  refused("vconf_get_bool", AskKey("getMenuValue", 15), "getMenuValue is failed",
          {"0 4 getMenuValue > Fail to get the vconf iValue, key = 15, iValue = [0]"});
  refused("vconf_get_int", AskKey("getMiradoValue", 0), "getMiradoValue fail ",
          {"0 4 getMiradoValue > Fail to get the vonf value, key = 0"});
  refused("", AskKey("getMiradoValue", -1), "getMiradoValue fail ", {"0 4 getMiradoValue > Not supported Key  = -1"});
  refused("vconf_set_int", Ask("showCaption", R"("show":4)"), "Fail to set the show caption vconf value",
          {"0 4 showCaption > Fail to set the config value, key = memory/webapp/caption, vlaue = 4"});
  refused("vconf_set_int", Ask("registerInAppCaptionControl", R"("status":4)"),
          "Fail to set the avplay status vconf value",
          {"0 4 registerInAppCaptionControl > Fail to set the config value, key = memory/webapp/avplay, vlaue = 4"});
  refused("vconf_notify_key_changed", AskKey("registerVconfKeysForCaption", 14), "registerVconfKeysForCaption failed",
          {"0 4 registerVconfKeysForCaption > Key = 14, db = "
           "db/menu/Quayhall/Auto-Start_Settings/Channel-bound_Apps_Ticker",
           "2 6 registerVconfKeysForCaption > unable to register a vconf changed cb to key: 14"});
  refused("", AskKey("registerVconfKeysForCaption", 22), "registerVconfKeysForCaption failed",
          {"2 6 registerVconfKeysForCaption > Not supported Key  = 22"});
  refused("", AskKey("unRegisterVconfKeysForCaption", -1), "unRegisterVconfKeysForCaption failed",
          {"2 6 unRegisterVconfKeysForCaption > Not supported Key  = -1"});
  refused("vconf_notify_key_changed", AskKey("registerVconfKeysForMirado", 0), "registerVconfKeysForMirado failed",
          {"0 4 registerVconfKeysForMirado > unable to register a vconf changed cb to key: 0"});
  refused("", AskKey("unRegisterVconfKeysForMirado", 1), "unRegisterVconfKeysForMirado failed",
          {"0 4 unRegisterVconfKeysForMirado > Not supported Key  = 1"});
  EXPECT_EQ(vconf::Get("memory/webapp/caption").status().code(), vconf::Code::kMissing);

  Fault("vconf_sync_key", "*", -1);
  log_.Take();
  EXPECT_EQ(page.Send(Ask("showCaption", R"("show":6)")), Done("null")) << "nobody looks at the result of a sync";
  EXPECT_EQ(log_.Take(),
            Lines{"0 4 showCaption > SUCCESS to set the config value, key = memory/webapp/caption, vlaue = 6"});
  EXPECT_EQ(page.Send(Ask("unknown")), Waited(9, "null", "NotSupportedError", "Command not recognized"));
  EXPECT_EQ(log_.Take(), Lines{"0 6 HandleBlockingMessageImpl > Can not handle the command!!"});
}

TEST_F(PluginTest, AnswersEveryPostedMessageOnce) {
  ASSERT_EQ(vconf::Set("db/menu/caption/captionmode", 300).text(), "");
  ASSERT_EQ(vconf::Set("db/menu/subtitle/subtitle", 512).text(), "");
  ASSERT_EQ(vconf::Set("db/setting/accessibility/tts", false).text(), "");
  ASSERT_EQ(vconf::Set("set/prefdeck/secondary-audio-language", std::string("05 Five\n5 Fünf\n7 Seven")).text(), "");
  ASSERT_EQ(vconf::Set("set/prefdeck/primary-audio-language", std::string()).text(), "");
  const auto unknown = [](const std::string& command) {
    return Delivered(command, 9, "\"\"", "NotSupportedError", "Command" + command + " no recognized");
  };
  const std::string invalid = Delivered("", 26, "null", "InvalidValuesError", "Incoming message is invalid");
  const std::string no_command = Delivered("", 26, "null", "InvalidValuesError", "Parameter command is invalid");
  const std::string bad_key = Refused(26, "InvalidValuesError", "Parameter propertyKey is invalid");
  const std::string bad_value = Refused(26, "InvalidValuesError", "Parameter value is invalid");
  const std::string no_key = Refused(26, "InvalidValuesError", "value or key is not valid");
  const std::pair<std::string, std::string> rows[] = {
      {"\"text\"", invalid},
      {"[]", invalid},
      {"{}", no_command},
      {R"({"command":true})", no_command},
      {Ask("getVersion"), unknown("getVersion")},
      {Ask(""), unknown("")},
      {Ask("setMenuValue"), bad_key},
      {Write("1", 1), bad_key},
      {AskKey("setMenuValue", 99), bad_value},
      {Write(15, true), bad_value},
      {Write(1, 1.5), bad_value},
      {Write(1, desk::Json::object()), bad_value},
      {Write(22, 1), no_key},
      {Write(-1, 1), no_key},
      {Write(14, 1), Refused(9, "NotSupportedError", "key is not supported")},
      {Write(1, 5), Written(261)},     // the bytes above the lowest stay
      {Write(16, 256), Written(768)},  // and gain what the request has there
      {Write(16, -1), Written(-1)},
      {Write(1, "7"), Written(256)},  // a text is no number
      {Write(15, 7), Written(7)},
      {Write(18, 1), no_key},  // an empty list
      {Write(19, 6), no_key},
      {Write(19, 5), Written(5)},
      {Write(20, 14), Written(14)},
  };
  Page page(*plugin_);
  for (const auto& [message, reply] : rows) {
    page.Post(message);
    EXPECT_EQ(page.Heard(), Lines{reply}) << message;
  }
  EXPECT_EQ(*vconf::Get("db/menu/caption/captionmode"), vconf::Value(256));
  EXPECT_EQ(*vconf::Get("db/setting/accessibility/tts"), vconf::Value(true));
  page.Post(Write(15, 0));
  EXPECT_EQ(page.Heard(), Lines{Written(0)});
  EXPECT_EQ(*vconf::Get("db/setting/accessibility/tts"), vconf::Value(false));
  EXPECT_EQ(page.Send(AskKey("getMenuValue", 20)), Done("\"VERY_FAST\""));
}

TEST_F(PluginTest, WritesOnlyThroughTheGatesInTheirOrder) {
  const std::string any = R"({"command":"setMenuValue"})";
  const auto gate = [&](const std::string& reply, const Lines& lines) {
    Page page(*plugin_);
    log_.Take();
    page.Post(any);
    EXPECT_EQ(page.Heard(), Lines{reply});
    EXPECT_EQ(log_.Take(), lines);
  };
  const std::string r1 = Refused(9, "NotSupportedError", "menu value can be setted on B2B product only");
  const std::string r2 = Refused(9, "NotSupportedError", "SUBTITLE menu can be setted on B2B product only");
  const std::string r3 = Refused(18, "SecurityError", "You do not have the privilege");
  const Lines b2b_line{"0 4 setMenuValue > [PluginMirado] SUBTITLE menu can be setted on B2B product only"};
  const Lines privilege_lines{"0 4 setMenuValue > 0",
                              "0 4 setMenuValue > [PluginMirado] setMenuValue hasPrivilege fail"};

  TestEmbedder::reply = pp::Var(false);
  ASSERT_EQ(vconf::Set(kB2b, false).text(), "");
  gate(r2, b2b_line);
  ASSERT_EQ(vconf::Remove(kB2b).text(), "");
  gate(r1, {});
  ASSERT_EQ(vconf::Set(kB2b, true).text(), "");
  gate(r3, privilege_lines);
  // Only a bool is an answer.
  for (const pp::Var& reply : {pp::Var(1), pp::Var("true"), pp::Var()}) {
    TestEmbedder::reply = reply;
    gate(r3, privilege_lines);
  }
  TestEmbedder::reply = pp::Var(true);
  TestEmbedder::status = -3;
  gate(r3, privilege_lines);
  TestEmbedder::status = 0;
  gate(Refused(26, "InvalidValuesError", "Parameter propertyKey is invalid"), {});
}

TEST_F(PluginTest, TellsWhatRefusedAWrite) {
  ASSERT_EQ(vconf::Set("db/setting/accessibility/tts", false).text(), "");
  Page page(*plugin_);
  const auto writes = [&](const std::string& call, const std::string& message, const std::string& reply,
                          const Lines& lines) {
    if (!call.empty()) Fault(call, "*", -1);
    log_.Take();
    page.Post(message);
    EXPECT_EQ(page.Heard(), Lines{reply}) << message;
    EXPECT_EQ(log_.Take(), lines) << message;
    ASSERT_EQ(vconf::ClearFaults().text(), "");
  };
  const auto before = *vconf::List("db/");
  writes("vconf_get_int", Write(20, 1), Refused(9999, "UnknownError ", "getMenuValue is failed"),
         {"0 4 getMenuValue > Fail to get the vconf iValue, key = 20, iValue = [0]"});
  writes("GetItemDataList", Write(18, 1), Refused(9999, "UnknownError ", "confirmMenuValue is failed"),
         {"0 4 setMenuWithMenuID > GetItemDataList is failed"});
  writes("", Write(18, 99), Refused(26, "InvalidValuesError", "value or key is not valid"),
         {"0 4 setMenuWithMenuID > [99] is not in the audio language list"});
  writes("", Write(22, 1), Refused(26, "InvalidValuesError", "value or key is not valid"),
         {"0 4 getMenuValue > Not supported Key = 22"});
  writes("vconf_set_int", Write(18, 1), Refused(26, "InvalidValuesError", "setMenuValue was failed"),
         {"0 4 setMenuValue > Fail to set the vconf value, key = 18, value = [1]"});
  writes("vconf_set_bool", Write(15, 256), Refused(26, "InvalidValuesError", "setMenuValue was failed"),
         {"0 4 setMenuValue > Fail to set the vconf value, key = 15, value = [256]"});
  EXPECT_EQ(*vconf::List("db/"), before);
  writes("vconf_sync_key", Write(15, 256), Written(256), {});
  page.Post(Ask("x"));
  page.Heard();
  EXPECT_EQ(log_.Take(), Lines{"0 6 HandleMessageImpl > Can not handle the command!!"});
}

}  // namespace
