#include "MenuValueManager.h"

#include <prefdeck.h>
#include <vconf.h>

#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "KeyTables.h"
#include "Log.h"
#include "ResultCode.h"

namespace {

/// The name of a voice guide speed: 1 to 15, three numbers for each name. Any other number is "NORMAL".
const char* SpeedName(int speed) {
  static constexpr const char* kNames[] = {"VERY_SLOW", "SLOW", "NORMAL", "FAST", "VERY_FAST"};
  return speed >= 1 && speed <= 15 ? kNames[(speed - 1) / 3] : "NORMAL";
}

}  // namespace

int MenuValueManager::getMenuValue(unsigned int key, MenuValue& value) {
  if (key >= CAPTION_SETTING_MAP_SIZE) {
    MIRADO_LOG("Not supported Key = %d", key);
    return RESULT_INVALID_VALUE;
  }
  const char* path = g_MenuCaptionMap[key].path;
  switch (key) {
    case MENU_KEY_TTS:
      if (vconf_get_bool(path, &value.iValue) != 0) {
        MIRADO_LOG("Fail to get the vconf iValue, key = %d, iValue = [%d]", key, value.iValue);
        return RESULT_FAILED;
      }
      return RESULT_OK;
    case MENU_KEY_VOICE_GUIDE_SPEED:
      if (vconf_get_int(path, &value.iValue) != 0) {
        MIRADO_LOG("Fail to get the vconf iValue, key = %d, iValue = [%d]", key, value.iValue);
        return RESULT_FAILED;
      }
      value.sValue = SpeedName(value.iValue);
      return RESULT_OK;
    case MENU_KEY_APPS_TICKER:
      return RESULT_NOT_SUPPORTED;
    default:
      if (vconf_get_int(path, &value.iValue) != 0) {
        MIRADO_LOG("Fail to get the vconf value, key = %d, value = [%d]", key, value.iValue);
        return RESULT_FAILED;
      }
      return RESULT_OK;
  }
}

int MenuValueManager::confirmMenuValue(unsigned int key, MenuValue value, MenuValue& confirmed) {
  switch (key) {
    case MENU_KEY_PRIMARY_AUDIO_LANGUAGE:
      return setMenuWithMenuID("primary-audio-language", value, confirmed);
    case MENU_KEY_SECONDARY_AUDIO_LANGUAGE:
      return setMenuWithMenuID("secondary-audio-language", value, confirmed);
    case MENU_KEY_APPS_TICKER:
      return RESULT_NOT_SUPPORTED;
    default:
      // A menu value is in the low byte; the set may keep something else in the other three.
      confirmed.iValue = (confirmed.iValue & ~0xFF) | value.iValue;
      return RESULT_OK;
  }
}

int MenuValueManager::setMenuWithMenuID(std::string menuId, MenuValue value, MenuValue& confirmed) {
  std::vector<std::pair<std::string, std::string>> items;
  if (!Prefdeck::GetItemDataList(menuId, items)) {
    MIRADO_LOG("GetItemDataList is failed");
    return RESULT_FAILED;
  }
  char requested[16];
  std::snprintf(requested, sizeof requested, "%d", value.iValue);
  for (const auto& [number, label] : items) {
    if (std::strcmp(requested, number.c_str()) == 0) {
      confirmed.sValue = value.sValue;
      confirmed.iValue = value.iValue;
      return RESULT_OK;
    }
  }
  MIRADO_LOG("[%d] is not in the audio language list", value.iValue);
  return RESULT_INVALID_VALUE;
}

int MenuValueManager::setMenuValue(unsigned int key, MenuValue value) {
  const char* path = g_MenuCaptionMap[key].path;
  const int result =
      key == MENU_KEY_TTS ? vconf_set_bool(path, value.iValue != 0 ? 1 : 0) : vconf_set_int(path, value.iValue);
  if (result != 0) {
    MIRADO_LOG("Fail to set the vconf value, key = %d, value = [%d]", key, value.iValue);
    return RESULT_FAILED;
  }
  vconf_sync_key(path);
  return RESULT_OK;
}
