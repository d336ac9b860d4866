#include "base/json.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>
#include <vector>

#include "ppapi/cpp/var_array.h"
#include "ppapi/cpp/var_dictionary.h"

namespace desk {
namespace {

struct TooDeep {};

/// The library's error text without its prefix, and without the line number if the text has one line.
std::string Cause(const ParsedJson::exception& error) {
  std::string_view text = error.what();
  text.remove_prefix(std::min(text.find(' '), text.size() - 1) + 1);
  for (const std::string_view part : {"parse error at ", "line 1, "}) {
    text.remove_prefix(text.starts_with(part) ? part.size() : 0);
  }
  return std::string(text);
}

std::optional<std::int32_t> ToInt32(const ParsedJson& json) {
  if (!json.is_number_integer()) {
    return std::nullopt;
  }
  const bool fits = json.is_number_unsigned() ? std::in_range<std::int32_t>(json.get<std::uint64_t>())
                                              : std::in_range<std::int32_t>(json.get<std::int64_t>());
  return fits ? std::optional(json.get<std::int32_t>()) : std::nullopt;
}

auto ReplyRank(std::string_view name) {
  constexpr std::array<std::string_view, 4> kReplyFields = {"code", "value", "errorName", "errorMessage"};
  return std::ranges::find(kReplyFields, name) - kReplyFields.begin();
}

}  // namespace

vconf::Result<ParsedJson> ParseJson(std::string_view text, int max_depth) {
  const auto on_event = [max_depth](int depth, ParsedJson::parse_event_t event, ParsedJson&) {
    using Event = ParsedJson::parse_event_t;
    if ((event == Event::object_start || event == Event::array_start) && depth >= max_depth) {
      throw TooDeep();
    }
    return true;
  };
  try {
    return ParsedJson::parse(text, on_event);
  } catch (const TooDeep&) {
    return BadValue("nested deeper than " + std::to_string(max_depth));
  } catch (const ParsedJson::exception& error) {
    return BadValue("not JSON: " + Cause(error));
  }
}

std::string ToText(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

pp::Var ToVar(const ParsedJson& json) {
  switch (json.type()) {
    case ParsedJson::value_t::boolean:
      return json.get<bool>();
    case ParsedJson::value_t::number_integer:
    case ParsedJson::value_t::number_unsigned:
      if (const auto number = ToInt32(json)) {
        return *number;
      }
      return json.get<double>();
    case ParsedJson::value_t::number_float:
      return json.get<double>();
    case ParsedJson::value_t::string:
      return json.get_ref<const std::string&>();
    case ParsedJson::value_t::array: {
      pp::VarArray array;
      std::uint32_t index = 0;
      for (const ParsedJson& element : json) {
        array.Set(index++, ToVar(element));
      }
      return array;
    }
    case ParsedJson::value_t::object: {
      pp::VarDictionary dictionary;
      for (const auto& [name, member] : json.items()) {
        dictionary.Set(name, ToVar(member));
      }
      return dictionary;
    }
    default:
      return pp::Var::Null();
  }
}

Json ToJson(const pp::Var& var) {
  switch (var.type()) {
    case PP_VARTYPE_BOOL:
      return var.AsBool();
    case PP_VARTYPE_INT32:
      return var.AsInt();
    case PP_VARTYPE_DOUBLE:
      return var.AsDouble();
    case PP_VARTYPE_STRING:
      return var.AsString();
    case PP_VARTYPE_ARRAY: {
      const pp::VarArray array(var);
      Json json = Json::array();
      for (std::uint32_t index = 0; index < array.GetLength(); ++index) {
        json.push_back(ToJson(array.Get(index)));
      }
      return json;
    }
    case PP_VARTYPE_DICTIONARY: {
      const pp::VarDictionary dictionary(var);
      std::vector<std::string> names = dictionary.GetKeys();
      std::ranges::stable_sort(names, {}, ReplyRank);
      Json json = Json::object();
      for (const std::string& name : names) {
        json[name] = ToJson(dictionary.Get(name));
      }
      return json;
    }
    default:
      return nullptr;
  }
}

std::optional<vconf::Value> ToValue(const ParsedJson& json) {
  if (json.is_boolean()) {
    return json.get<bool>();
  }
  if (json.is_string()) {
    return json.get<std::string>();
  }
  return ToInt32(json);
}

Json ToJson(const vconf::Value& value) {
  return std::visit([](const auto& held) { return Json(held); }, value);
}

}  // namespace desk
