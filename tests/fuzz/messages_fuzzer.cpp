// Fuzzer: sends and posts variables of every kind to the plug-in, while settings change and calls fail, and checks what
// the page receives.
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

/// A variable that nests at most `depth` deep, except for the very deep arrays of case 8.
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
      return data.ConsumeRandomLengthString(64);  // mostly not UTF-8
    case 7: {
      PP_Var bare = {};  // of a type that a page cannot send, or of an invalid one
      bare.type = static_cast<PP_VarType>(data.ConsumeBool() ? PP_VARTYPE_OBJECT : 99);
      return pp::Var(pp::PASS_REF, bare);
    }
    case 8: {
      pp::Var deep = data.ConsumeBool();
      for (int levels = data.ConsumeIntegralInRange(0, 40'000); levels > 0; --levels) {
        pp::VarArray outer;
        outer.Set(0, deep);
        deep = outer;
      }
      return deep;
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

/// Mostly a message with a known command, so that the commands run.
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

/// Changes the set as another program would. A write may be refused: a key cannot change its type.
void ChangeSet(FuzzedDataProvider& data) {
  const std::string& path = AnyPath(data);
  if (data.ConsumeBool()) static_cast<void>(vconf::Remove(path));
  vconf::Value value = data.ConsumeIntegral<std::int32_t>();
  if (data.ConsumeBool()) value = data.ConsumeBool();
  if (data.ConsumeBool()) value = data.ConsumeRandomLengthString(64);
  static_cast<void>(vconf::Set(path, value));
}

/// Makes a call fail, but not vconf_ignore_key_changed: this program could not end the subscription that would remain.
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
    return loaded->release();  // never unloaded
  }();

  FuzzedDataProvider data(bytes, size);
  // Before the instance is created, because it then reads the privilege and calls the embedder.
  for (int changes = data.ConsumeIntegralInRange(0, 3); changes > 0; --changes) {
    data.ConsumeBool() ? ChangeSet(data) : AddFault(data);
  }
  fuzz::ReceivedMessages received;
  const auto page =
      plugin->CreateInstance([&received](const pp::Var& message) { received.Receive(desk::ToJson(message)); });
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
        received.Expect(fuzz::CommandOf(message));
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
  received.Finish();
  store.Settle();
  return 0;
}
