// What the plug-in makes of a stored number, as the page sees it: the real library on a real store.

#include "pepper/plugin_fixture.h"

namespace {

TEST_F(PluginTest, NamesTheVoiceGuidesSpeed) {
  Page page(*plugin_);
  const std::pair<int, std::string> rows[] = {{-1, "NORMAL"}, {0, "NORMAL"}, {1, "VERY_SLOW"},  {3, "VERY_SLOW"},
                                              {4, "SLOW"},    {6, "SLOW"},   {7, "NORMAL"},     {9, "NORMAL"},
                                              {10, "FAST"},   {12, "FAST"},  {13, "VERY_FAST"}, {15, "VERY_FAST"},
                                              {16, "NORMAL"}};
  for (const auto& [stored, name] : rows) {
    Put("db/menu/system/accessibility/voiceguide/speed", stored);
    EXPECT_EQ(page.Send(AskKey("getMenuValue", 20)), Done("\"" + name + "\"")) << stored;
  }
}

TEST_F(PluginTest, JudgesThePictureSize) {
  Page page(*plugin_);
  const std::pair<int, std::string> rows[] = {{-3, "false"}, {0, "true"}, {1, "false"},
                                              {2, "false"},  {3, "true"}, {4, "false"}};
  for (const auto& [size, resized] : rows) {
    Put("set/panelbase/picture_size", size);
    EXPECT_EQ(page.Send(Ask("isTVSPicSizeResized")), Done(resized)) << size;
  }
}

}  // namespace
