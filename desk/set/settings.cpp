#include "set/settings.h"

#include <algorithm>
#include <array>

namespace desk {

std::span<const Setting> Settings() {
  static const std::array<Setting, 23> settings{{
      {"menu", 0, "MENU_KEY_CAPTION", "db/menu/caption/caption", 0},
      {"menu", 1, "MENU_KEY_CAPTION_MODE", "db/menu/caption/captionmode", 0},
      {"menu", 2, "MENU_KEY_DIGITAL_CAPTION_SIZE", "db/menu/caption/digitalcaptionoptions/size", 2},
      {"menu", 3, "MENU_KEY_DIGITAL_CAPTION_FONT_STYLE", "db/menu/caption/digitalcaptionoptions/fontstyle", 0},
      {"menu", 4, "MENU_KEY_DIGITAL_CAPTION_FONT_COLOR", "db/menu/caption/digitalcaptionoptions/fontcolor", 1},
      {"menu", 5, "MENU_KEY_DIGITAL_CAPTION_FONT_OPACITY", "db/menu/caption/digitalcaptionoptions/fontopacity", 0},
      {"menu", 6, "MENU_KEY_DIGITAL_CAPTION_BACKGROUND_COLOR", "db/menu/caption/digitalcaptionoptions/backgroundcolor",
       2},
      {"menu", 7, "MENU_KEY_DIGITAL_CAPTION_BACKGROUND_OPACITY",
       "db/menu/caption/digitalcaptionoptions/backgroundopacity", 0},
      {"menu", 8, "MENU_KEY_DIGITAL_CAPTION_EDGE_TYPE", "db/menu/caption/digitalcaptionoptions/edgetype", 0},
      {"menu", 9, "MENU_KEY_DIGITAL_CAPTION_EDGE_COLOR", "db/menu/caption/digitalcaptionoptions/edgecolor", 0},
      {"menu", 10, "MENU_KEY_DIGITAL_CAPTION_WINDOW_COLOR", "db/menu/caption/digitalcaptionoptions/windowcolor", 0},
      {"menu", 11, "MENU_KEY_DIGITAL_CAPTION_WINDOW_OPACITY", "db/menu/caption/digitalcaptionoptions/windowopacity", 0},
      {"menu", 12, "MENU_KEY_FOCUS_ZOOM", "db/menu/system/accessibility/focuszoom", 0},
      {"menu", 13, "MENU_KEY_HIGH_CONTRAST", "db/menu/system/accessibility/highcontrast", 0},
      {"menu", 14, "MENU_KEY_APPS_TICKER", "db/menu/Quayhall/Auto-Start_Settings/Channel-bound_Apps_Ticker", 1},
      {"menu", 15, "MENU_KEY_TTS", "db/setting/accessibility/tts", false},
      {"menu", 16, "MENU_KEY_SUBTITLE", "db/menu/subtitle/subtitle", 1},
      {"menu", 17, "MENU_KEY_SUBTITLE_MODE", "db/menu/subtitle/subtitlemode", 0},
      {"menu", 18, "MENU_KEY_PRIMARY_AUDIO_LANGUAGE", "db/menu/broadcasting/audio_options/primary_audio_language", 1},
      {"menu", 19, "MENU_KEY_SECONDARY_AUDIO_LANGUAGE", "db/menu/broadcasting/audio_options/secondary_audio_language",
       2},
      {"menu", 20, "MENU_KEY_VOICE_GUIDE_SPEED", "db/menu/system/accessibility/voiceguide/speed", 8},
      {"menu", 21, "MENU_KEY_DIGITAL_CAPTION_STYLE", "db/menu/caption/digitalcaptionoptions/style", 0},
      {"mirado", 0, "MIRADO_KEY_BG_EXECUTABLE", "memory/tv-viewer/bg_executable", 1},
  }};
  return settings;
}

const Setting* FindSetting(std::string_view path) {
  const auto settings = Settings();
  const auto found = std::ranges::find(settings, path, &Setting::path);
  return found == settings.end() ? nullptr : &*found;
}

}  // namespace desk
