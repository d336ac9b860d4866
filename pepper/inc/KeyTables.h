#pragma once

#include <cstdint>

/// The settings that the plug-in offers. Each row is one: the key's enumerator and its path in the store. The row's
/// position is the key number that pages use, so add rows only at the end.
///
/// A changed path is converted to the first row whose path begins with it. So a path must come before every longer path
/// that begins with it; a static_assert in PluginMirado.cpp checks this.
#define MENU_CAPTION_ROWS(ROW)                                                                                \
  ROW(MENU_KEY_CAPTION, "db/menu/caption/caption")                                                            \
  ROW(MENU_KEY_CAPTION_MODE, "db/menu/caption/captionmode")                                                   \
  ROW(MENU_KEY_DIGITAL_CAPTION_SIZE, "db/menu/caption/digitalcaptionoptions/size")                            \
  ROW(MENU_KEY_DIGITAL_CAPTION_FONT_STYLE, "db/menu/caption/digitalcaptionoptions/fontstyle")                 \
  ROW(MENU_KEY_DIGITAL_CAPTION_FONT_COLOR, "db/menu/caption/digitalcaptionoptions/fontcolor")                 \
  ROW(MENU_KEY_DIGITAL_CAPTION_FONT_OPACITY, "db/menu/caption/digitalcaptionoptions/fontopacity")             \
  ROW(MENU_KEY_DIGITAL_CAPTION_BACKGROUND_COLOR, "db/menu/caption/digitalcaptionoptions/backgroundcolor")     \
  ROW(MENU_KEY_DIGITAL_CAPTION_BACKGROUND_OPACITY, "db/menu/caption/digitalcaptionoptions/backgroundopacity") \
  ROW(MENU_KEY_DIGITAL_CAPTION_EDGE_TYPE, "db/menu/caption/digitalcaptionoptions/edgetype")                   \
  ROW(MENU_KEY_DIGITAL_CAPTION_EDGE_COLOR, "db/menu/caption/digitalcaptionoptions/edgecolor")                 \
  ROW(MENU_KEY_DIGITAL_CAPTION_WINDOW_COLOR, "db/menu/caption/digitalcaptionoptions/windowcolor")             \
  ROW(MENU_KEY_DIGITAL_CAPTION_WINDOW_OPACITY, "db/menu/caption/digitalcaptionoptions/windowopacity")         \
  ROW(MENU_KEY_FOCUS_ZOOM, "db/menu/system/accessibility/focuszoom")                                          \
  ROW(MENU_KEY_HIGH_CONTRAST, "db/menu/system/accessibility/highcontrast")                                    \
  ROW(MENU_KEY_APPS_TICKER, "db/menu/Quayhall/Auto-Start_Settings/Channel-bound_Apps_Ticker")                 \
  ROW(MENU_KEY_TTS, "db/setting/accessibility/tts")                                                           \
  ROW(MENU_KEY_SUBTITLE, "db/menu/subtitle/subtitle")                                                         \
  ROW(MENU_KEY_SUBTITLE_MODE, "db/menu/subtitle/subtitlemode")                                                \
  ROW(MENU_KEY_PRIMARY_AUDIO_LANGUAGE, "db/menu/broadcasting/audio_options/primary_audio_language")           \
  ROW(MENU_KEY_SECONDARY_AUDIO_LANGUAGE, "db/menu/broadcasting/audio_options/secondary_audio_language")       \
  ROW(MENU_KEY_VOICE_GUIDE_SPEED, "db/menu/system/accessibility/voiceguide/speed")                            \
  ROW(MENU_KEY_DIGITAL_CAPTION_STYLE, "db/menu/caption/digitalcaptionoptions/style")

/// The keys of the TV viewer, which are numbered separately.
#define MIRADO_ROWS(ROW) ROW(MIRADO_KEY_BG_EXECUTABLE, "memory/tv-viewer/bg_executable")

#define KEY_ENUMERATOR(enumerator, path) enumerator,
#define KEY_COUNT(enumerator, path) +1

enum MenuKey : std::uint32_t { MENU_CAPTION_ROWS(KEY_ENUMERATOR) };
enum MiradoKey : std::uint32_t { MIRADO_ROWS(KEY_ENUMERATOR) };

/// The number of rows of each table. Keys are compared with it as unsigned numbers, so a negative key is out of range.
inline constexpr std::uint32_t CAPTION_SETTING_MAP_SIZE = MENU_CAPTION_ROWS(KEY_COUNT);
inline constexpr std::uint32_t MIRADO_MAP_SIZE = MIRADO_ROWS(KEY_COUNT);

#undef KEY_ENUMERATOR
#undef KEY_COUNT

struct KeyMapEntry {
  std::int32_t key;  ///< the row's index
  char path[1024];   ///< NUL-terminated, the rest zero
};

extern const KeyMapEntry g_MenuCaptionMap[CAPTION_SETTING_MAP_SIZE];
extern const KeyMapEntry g_MiradoKeyMap[MIRADO_MAP_SIZE];

/// Two keys outside the tables. The plug-in writes them and never reads them.
inline constexpr const char* MEM_AVPLAY_PATH = "memory/webapp/avplay";
inline constexpr const char* MEM_CAPTION_PATH = "memory/webapp/caption";
