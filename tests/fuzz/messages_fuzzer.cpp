// Variables of every kind into both entry points of the plug-in, while settings change and calls fail.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <cstdint>

#include "ppapi/cpp/var_array.h"
#include "ppapi/cpp/var_dictionary.h"
#include "property.h"
#include "set/catalog.h"
#include "set/embedder.h"
#include "set/faults.h"

namespace {

constexpr std::array kEntries = {"command", "propertyKey", "value", "show", "status"};

/// A variable that nests at most `depth` deep, apart from the towers.
pp::Var AnyVar(FuzzedDataProvider& data, int depth) {
  switch (data.ConsumeIntegralInRange(0, depth > 0 ? 10 : 7)) {
    case 0:
      return {};
    case 1:
      return pp::Var::Null();
    case 2:
      return data.ConsumeBool();
    case 3:
      return data.ConsumeIntegralInRange(-2, 25);
    case 4:
      return data.ConsumeIntegral<std::int32_t>();
    case 5:
      return data.ConsumeFloatingPoint<double>();
    case 6:
      return data.ConsumeRandomLengthString(64);  // mostly no UTF-8
    case 7: {
      PP_Var bare = {};  // of a kind that no page has, or of none at all
      bare.type = static_cast<PP_VarType>(data.ConsumeBool() ? PP_VARTYPE_OBJECT : 99);
      return pp::Var(pp::PASS_REF, bare);
    }
    case 8: {
      pp::Var tower = data.ConsumeBool();
      for (int floors = data.ConsumeIntegralInRange(0, 40'000); floors > 0; --floors) {
        pp::VarArray floor;
        floor.Set(0, tower);
        tower = floor;
      }
      return tower;
    }
    case 9: {
      pp::VarArray array;
      for (int count = data.ConsumeIntegralInRange(0, 5); count > 0; --count) {
        array.Set(data.ConsumeIntegralInRange(0U, 9U), AnyVar(data, depth - 1));
      }
      return array;
    }
    default: {
      pp::VarDictionary dictionary;
      for (int count = data.ConsumeIntegralInRange(0, 5); count > 0; --count) {
        dictionary.Set(data.ConsumeBool() ? data.PickValueInArray(kEntries) : data.ConsumeRandomLengthString(8),
                       AnyVar(data, depth - 1));
      }
      return dictionary;
    }
  }
}

/// Mostly what passes the first tests of the dispatch, so that the commands are reached.
pp::Var AnyMessage(FuzzedDataProvider& data) {
  if (data.ConsumeIntegralInRange(0, 3) == 0) return AnyVar(data, 4);
  pp::VarDictionary message;
  const auto commands = desk::Commands();
  message.Set("command", std::string(commands[data.ConsumeIntegralInRange<std::size_t>(0, commands.size() - 1)].name));
  for (const char* entry : {"propertyKey", "value", "show", "status"}) {
    if (data.ConsumeBool()) message.Set(entry, AnyVar(data, 1));
  }
  return message;
}

const std::string& AnyPath(FuzzedDataProvider& data) {
  static const auto* const paths = [] {
    auto* const all = new std::vector<std::string>;
    for (const auto& entry : desk::DefaultEntries()) all->push_back(entry.path);
    return all;
  }();
  return (*paths)[data.ConsumeIntegralInRange<std::size_t>(0, paths->size() - 1)];
}

/// Somebody changes the set. It may be refused: a key keeps its type.
void ChangeSet(FuzzedDataProvider& data) {
  const std::string& path = AnyPath(data);
  if (data.ConsumeBool()) static_cast<void>(vconf::Remove(path));
  vconf::Value value = data.ConsumeIntegral<std::int32_t>();
  if (data.ConsumeBool()) value = data.ConsumeBool();
  if (data.ConsumeBool()) value = data.ConsumeRandomLengthString(64);
  static_cast<void>(vconf::Set(path, value));
}

/// A call begins to fail. Not the one that ends a subscription: what the store then keeps nobody could end here.
void AddFault(FuzzedDataProvider& data) {
  const auto calls = desk::FaultCalls();
  const auto& call = calls[data.ConsumeIntegralInRange<std::size_t>(0, calls.size() - 1)];
  if (call.name == "vconf_ignore_key_changed") return;
  const std::string path = data.ConsumeBool() ? "*" : AnyPath(data);
  static_cast<void>(vconf::SetFault(
      {std::string(call.name), path, data.ConsumeIntegral<std::int32_t>(), data.ConsumeIntegralInRange(0U, 3U)}));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static fuzz::Store store;
  static auto* const plugin = [] {
    desk::OfferEmbedder();
    auto loaded = pp::browser::Plugin::Load(MIRADO_PLUGIN_PATH);
    fuzz::Require(loaded.ok(), "the plug-in loads", loaded.status().text());
    return loaded->release();  // as long as the process
  }();

  FuzzedDataProvider data(bytes, size);
  // A set without the privilege, or whose embedder fails, shows when the instance is made.
  for (int changes = data.ConsumeIntegralInRange(0, 3); changes > 0; --changes) {
    data.ConsumeBool() ? ChangeSet(data) : AddFault(data);
  }
  fuzz::PageEar ear;
  const auto page = plugin->CreateInstance([&ear](const pp::Var& said) { ear.Hear(desk::ToJson(said)); });
  fuzz::Require(page != nullptr, "an instance");
  while (data.remaining_bytes() > 0) {
    switch (data.ConsumeIntegralInRange(0, 7)) {
      case 0:
        ChangeSet(data);
        break;
      case 1:
        AddFault(data);
        break;
      case 2:
      case 3:
      case 4: {
        const pp::Var message = AnyMessage(data);
        ear.Expect(fuzz::CommandOf(message));
        page->Post(message);
        break;
      }
      default:
        fuzz::CheckReply(desk::ToJson(page->Send(AnyMessage(data))));
    }
  }
  page->Settle();
  vconf::Settle();
  page->EndRegistration();
  page->Destroy();
  ear.Finish();
  store.Settle();
  return 0;
}
