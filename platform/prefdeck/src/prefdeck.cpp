#include "prefdeck.h"

#include <sstream>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "prefdeck_control.h"
#include "vconf_control.h"

bool Prefdeck::GetItemDataList(std::string menu_id, std::vector<std::pair<std::string, std::string>>& items) {
  if (vconf::TakeFault("GetItemDataList", menu_id)) return false;

  const vconf::Result<vconf::Value> list = vconf::Get(prefdeck::kListPrefix + menu_id);
  const std::string* text = list.ok() ? std::get_if<std::string>(&*list) : nullptr;
  if (text == nullptr) return false;

  items.clear();
  std::istringstream lines(*text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t blank = line.find(' ');
    items.emplace_back(line.substr(0, blank), blank == std::string::npos ? "" : line.substr(blank + 1));
  }
  return true;
}
