// What the desk knows of the plug-in, in desk/set/catalog.json, against what the plug-in does. What pages and documents
// repeat of it is made from that file.

#include <fstream>
#include <iterator>
#include <regex>
#include <set>

#include "KeyTables.h"
#include "base/exit_status.h"
#include "base/http_status.h"
#include "pepper/plugin_fixture.h"
#include "set/catalog.h"

namespace {

using desk::Json;

const Json kCatalog = Json::parse(desk::CatalogText());

#define NAME(enumerator, path) #enumerator,
const std::map<std::string, Lines> kNames = {{"menu", {MENU_CAPTION_ROWS(NAME)}}, {"mirado", {MIRADO_ROWS(NAME)}}};

Json Parsed(const std::string& reply) { return Json::parse(reply); }

class ContractTest : public PluginTest {
 protected:
  /// The answer to a command, whichever way it has to be sent.
  Json Answer(Page& page, const std::string& command, bool posted, const std::string& entries = "") {
    if (!posted) return Parsed(page.Send(Ask(command, entries)));
    page.Post(Ask(command, entries));
    return Parsed(page.Heard().at(0));
  }
};

TEST_F(ContractTest, Settings) {
  Page page(*plugin_);
  std::map<std::string, std::size_t> rows;
  for (const Json& setting : kCatalog["settings"]) {
    const Json& table = kCatalog["tables"][setting["table"]];
    const int key = setting["key"];
    SCOPED_TRACE(setting["name"]);
    ASSERT_EQ(key, rows[setting["table"]]++) << "the keys of a table have to stand in their order";
    EXPECT_EQ(setting["name"], kNames.at(setting["table"]).at(static_cast<std::size_t>(key)));

    const Json value = setting["type"] == "bool" ? Json(true) : Json(8);
    EXPECT_EQ(page.Send(AskKey(table["watch"], key)), Done("null"));
    Put(setting["path"], *desk::ToValue(desk::ParsedJson(value)));
    EXPECT_EQ(page.Heard(), Lines{Changed(table["event"], key)});
    EXPECT_EQ(page.Send(AskKey(table["unwatch"], key)), Done("null"));

    const Json reply = Parsed(page.Send(AskKey(table["read"], key)));
    if (setting.value("watchOnly", false)) {
      EXPECT_EQ(reply["code"], 9);
    } else if (!setting["values"].is_null() && setting["values"].contains("speeds")) {
      EXPECT_EQ(reply["value"], "NORMAL");
    } else {
      EXPECT_EQ(reply["value"], value == true ? Json(1) : value);
    }
    if (!setting["values"].is_null() && setting["values"].contains("list")) {
      PlatformCalls calls;
      Answer(page, table["write"], true, R"("propertyKey":)" + std::to_string(key) + R"(,"value":1)");
      const Lines made = calls.Take();
      EXPECT_EQ(std::count(made.begin(), made.end(), "GetItemDataList " + setting["values"]["list"].get<std::string>()),
                1);
    }
  }
  PlatformCalls calls;
  for (const auto& [table, names] : kNames) {
    EXPECT_EQ(rows[table], names.size()) << table;
    for (const char* command : {"read", "watch", "unwatch"}) {
      const Json reply = Parsed(page.Send(AskKey(kCatalog["tables"][table][command], static_cast<int>(names.size()))));
      EXPECT_NE(reply["code"], 0) << table << command;
    }
  }
  for (const std::string& call : calls.Take()) EXPECT_FALSE(call.starts_with("vconf_")) << call;
}

TEST_F(ContractTest, Commands) {
  Page page(*plugin_);
  std::set<std::string> waited;
  for (const Json& command : kCatalog["commands"]) {
    const Json reply = Answer(page, command["name"], command["posted"]);
    EXPECT_EQ(reply["code"], command["fields"].empty() ? 0 : 26) << command << reply;
    if (!command["fields"].empty()) {
      EXPECT_NE(reply["errorMessage"].get<std::string>().find(command["fields"][0]), std::string::npos) << reply;
    }
    if (!command["posted"]) waited.insert(command["name"]);
  }
  const std::string source = Contents(MIRADO_PEPPER_FOLDER "/src/PluginMirado.cpp");
  const std::regex row(R"re(\{"(\w+)", &MiradoMessageHandler::\w+\})re");
  std::set<std::string> served;
  for (std::sregex_iterator found(source.begin(), source.end(), row), end; found != end; ++found)
    served.insert((*found)[1]);
  EXPECT_EQ(waited, served) << "the commands of m_messageMap";
}

TEST_F(ContractTest, SpeedsErrorsAndPrivilege) {
  PlatformCalls calls;
  TestEmbedder::reply = pp::Var(false);
  Page page(*plugin_);
  EXPECT_EQ(calls.Take().front(), "GenericSyncCall \"check_ace_privilege\" " + kCatalog["privilege"].dump());

  for (int number = -1; number <= 17; ++number) {
    Json name = kCatalog["otherSpeed"];
    int ranges = 0;
    for (const auto& [speed, range] : kCatalog["speeds"].items()) {
      if (range["from"] <= number && number <= range["to"]) {
        name = speed;
        ++ranges;
      }
    }
    EXPECT_LE(ranges, 1) << number;
    Put("db/menu/system/accessibility/voiceguide/speed", number);
    EXPECT_EQ(page.Send(AskKey("getMenuValue", 20)), Done(name.dump())) << number;
  }

  const Json refusals[] = {Answer(page, "x", false), Answer(page, "setMenuValue", true),
                           Answer(page, "getMenuValue", false),
                           Answer(page, "getMiradoValue", false, R"("propertyKey":99)")};
  ASSERT_EQ(kCatalog["errors"].size(), std::size(refusals));
  for (const Json& reply : refusals) {
    EXPECT_EQ(reply["errorName"], kCatalog["errors"][to_string(reply["code"])]["name"]) << reply;
  }
}

TEST_F(ContractTest, CodesInTheDocumentsAreThoseOfThePrograms) {
  std::ifstream file(MIRADO_DOCS "/desk-api.md");
  const std::string text((std::istreambuf_iterator<char>(file)), {});
  for (int number = 1; number <= static_cast<int>(vconf::Code::kFailed); ++number) {
    const auto code = static_cast<vconf::Code>(number);
    const auto [status, name] = desk::HttpCodeOf(code);
    // The number that follows the name, perhaps behind other names.
    std::smatch found;
    ASSERT_TRUE(std::regex_search(text, found, std::regex("`" + std::string(name) + "`[^()]*\\((\\d+)\\)"))) << name;
    EXPECT_EQ(found[1], std::to_string(status)) << name;
    const bool is_answer = status == 400 || status == 404 || status == 409;
    EXPECT_EQ(desk::ExitStatusOf(code), is_answer ? desk::kRefused : desk::kCannotWork) << name;
  }
}

}  // namespace
