// The services system_info, prefdeck and panelbase: their results and failures, from values in a temporary store.

#include <utility>

#include "panelbase.h"
#include "panelbase_control.h"
#include "prefdeck.h"
#include "prefdeck_control.h"
#include "support/vconf_fixture.h"
#include "system_info.h"
#include "system_info_control.h"

namespace {

using Items = std::vector<std::pair<std::string, std::string>>;

class ServicesTest : public VconfTest {
 protected:
  void SetUp() override { Open(); }

  static void Put(const std::string& path, const vconf::Value& value) { ASSERT_EQ(vconf::Set(path, value).text(), ""); }
  static void Fail(const std::string& call, const std::string& path, int answer) {
    ASSERT_EQ(vconf::SetFault({.call = call, .path = path, .answer = answer, .times = 1}).text(), "");
  }
};

TEST_F(ServicesTest, AFeatureHasAValueOnlyIfTheSetHasIt) {
  const std::string prefix = system_info::kFeaturePrefix;
  Put(prefix + "a/feature", true);
  Put(prefix + "a/number", 1);

  bool value = false;
  EXPECT_EQ(system_info_get_custom_bool("a/feature", &value), 0);
  EXPECT_TRUE(value);
  Fail("system_info_get_custom_bool", "a/feature", -7);
  value = false;
  EXPECT_EQ(system_info_get_custom_bool("a/feature", &value), -7);
  for (const char* key : {"a/number", "a/missing", static_cast<const char*>(nullptr)}) {
    EXPECT_LT(system_info_get_custom_bool(key, &value), 0);
  }
  EXPECT_LT(system_info_get_custom_bool("a/feature", nullptr), 0);
  EXPECT_FALSE(value) << "a failure must leave the value alone";
}

TEST_F(ServicesTest, ItemListKeepsItsOrderAndWholeLabels) {
  const std::string prefix = prefdeck::kListPrefix;
  Put(prefix + "languages", "2 English (UK)\n0\n-1 \n");
  Put(prefix + "none", "");
  Put(prefix + "number", 2);

  Items items = {{"9", "stale"}};
  EXPECT_TRUE(Prefdeck::GetItemDataList("languages", items));
  const Items whole = {{"2", "English (UK)"}, {"0", ""}, {"-1", ""}};
  EXPECT_EQ(items, whole);
  EXPECT_FALSE(Prefdeck::GetItemDataList("missing", items));
  EXPECT_FALSE(Prefdeck::GetItemDataList("number", items));
  Fail("GetItemDataList", "none", 0);  // zero: this call fails with any fault
  EXPECT_FALSE(Prefdeck::GetItemDataList("none", items));
  EXPECT_EQ(items, whole) << "a failure must leave the items alone";
  EXPECT_TRUE(Prefdeck::GetItemDataList("none", items));
  EXPECT_EQ(items, Items{});
}

TEST_F(ServicesTest, VideoControlReturnsThePictureSize) {
  IVideoControl* control = nullptr;
  EXPECT_LT(Panelbase::CreateVideoControl(PROFILE_MAIN, 0, &control), 0) << "without a picture";
  Put(panelbase::kPictureSizePath, 3);
  Fail("CreateVideoControl", "*", 4);
  EXPECT_EQ(Panelbase::CreateVideoControl(PROFILE_MAIN, 0, &control), 4);
  EXPECT_LT(Panelbase::CreateVideoControl(PROFILE_MAIN, 1, &control), 0);
  EXPECT_LT(Panelbase::CreateVideoControl(static_cast<EProfile>(2), 0, &control), 0);
  EXPECT_EQ(control, nullptr);

  IVideoControl* again = nullptr;
  EXPECT_EQ(Panelbase::CreateVideoControl(PROFILE_MAIN, 0, &control), 0);
  EXPECT_EQ(Panelbase::CreateVideoControl(PROFILE_MAIN, 0, &again), 0);
  ASSERT_NE(control, nullptr);
  EXPECT_EQ(control, again);

  int size = 0;
  for (const int stored : {3, 5}) {
    Put(panelbase::kPictureSizePath, stored);
    EXPECT_EQ(control->GetPictureSize(&size), 0);
    EXPECT_EQ(size, stored);
  }
  Fail("GetPictureSize", "*", -2);
  EXPECT_EQ(control->GetPictureSize(&size), -2);
  ASSERT_EQ(vconf::Remove(panelbase::kPictureSizePath).text(), "");
  EXPECT_LT(control->GetPictureSize(&size), 0);
  EXPECT_EQ(size, 5) << "a failure must leave the size alone";
}

}  // namespace
