// Functions with the names of the platform's, which record each call and pass it on; see platform_calls.h.

#include "pepper/platform_calls.h"

#include <dlfcn.h>
#include <panelbase.h>
#include <prefdeck.h>
#include <pthread.h>
#include <system_info.h>
#include <vconf.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <mutex>
#include <regex>
#include <utility>

#include "base/json.h"
#include "dlog_control.h"
#include "pp_base_message_handler.h"
#include "ppapi/cpp/message_loop.h"
#include "simple_thread_await_loop.h"

namespace {

struct Recording {
  std::mutex mutex;
  Lines lines;
  const void* handler = nullptr;                // the last one that was registered
  pp::SimpleThreadAwaitLoop* worker = nullptr;  // the last one that was started
};
std::atomic<Recording*> g_recording{nullptr};

template <typename... Parts>
void Record(const Parts&... parts) {
  Recording* const recording = g_recording;
  if (recording == nullptr) return;
  std::string line;
  for (const std::string& part : {std::string(parts)...}) line += part.empty() || line.empty() ? part : " " + part;
  const std::lock_guard lock(recording->mutex);
  recording->lines.push_back(std::move(line));
}

/// The platform's function of the same name as `own`.
template <typename Function>
Function* Find(Function* own) {
  Dl_info info;
  dladdr(reinterpret_cast<void*>(own), &info);
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, info.dli_sname));
}
template <typename Result, typename Class, typename... Arguments>
auto Find(Result (Class::*own)(Arguments...)) {  // the object is the first argument
  Result (*address)(Class*, Arguments...) = nullptr;
  std::memcpy(&address, &own, sizeof address);
  return Find(address);
}
template <auto own, typename... Arguments>
auto Next(Arguments&&... arguments) {
  static auto* const next = Find(own);
  return next(std::forward<Arguments>(arguments)...);
}

std::string Shown(const pp::Var& var) { return var.is_undefined() ? "undefined" : desk::ToText(desk::ToJson(var)); }

/// The format string of the log call that ends in or after line `number` of the plug-in's file `name`; else empty.
std::string FormatOf(const std::string& name, int number) {
  std::ifstream file(MIRADO_PEPPER_FOLDER + (name.ends_with(".h") ? "/inc/" + name : "/src/" + name));
  std::string call;
  std::string line;
  for (int at = 1; std::getline(file, line); ++at) {
    if (line.find("MIRADO_LOG") != std::string::npos) call.clear();
    call += line;
    if (at < number || !line.ends_with(";")) continue;
    const auto begin = call.find('"') + 1;
    return call.find("MIRADO_LOG") == std::string::npos ? "" : call.substr(begin, call.find('"', begin) - begin);
  }
  return "";
}

/// Records "log 0 4 File.cpp operation > text", and "(not logged in line N)" if the source has no such call there.
void RecordLog(const dlog::Line& line) {
  if (line.tag == "VCONF") return;
  std::smatch parts;
  const std::string text(line.text);
  if (line.tag != "QRL_BASE" || !std::regex_match(text, parts, std::regex(R"((\w+\.\w+): (\S+)\((\d+)\) > (.*))"))) {
    return Record("log without its tag or its prefix:", text);
  }
  const std::string format = FormatOf(parts[1], std::stoi(parts[3]));
  const bool there = !format.empty() && parts[4].str().starts_with(format.substr(0, format.find('%')));
  Record("log", std::to_string(line.log_id), std::to_string(line.priority), parts[1].str(), parts[2].str(), ">",
         parts[4].str(), there ? "" : "(not logged in line " + parts[3].str() + ")");
}

}  // namespace

PlatformCalls::PlatformCalls() {
  g_recording = new Recording;
  dlog::SetSink(RecordLog);
}
PlatformCalls::~PlatformCalls() {
  dlog::SetSink([](const dlog::Line&) {});
  delete g_recording.exchange(nullptr);
}

Lines PlatformCalls::Take() {
  Recording& recording = *g_recording;
  const std::lock_guard lock(recording.mutex);
  return std::exchange(recording.lines, {});
}

void PlatformCalls::Add(const std::string& line) { Record(line); }

// ---- the store and the small services: RECORDED(RESULT, FUNCTION, PARAMETERS, (ARGUMENTS), WHAT IS RECORDED...)

#define UNPACKED(...) __VA_ARGS__
#define RECORDED(result, function, parameters, arguments, ...) \
  result function parameters {                                 \
    Record(__VA_ARGS__);                                       \
    return Next<&function>(UNPACKED arguments);                \
  }

using Items = std::vector<std::pair<std::string, std::string>>;

RECORDED(int, vconf_get_int, (const char* path, int* value), (path, value), __func__, path)
RECORDED(int, vconf_get_bool, (const char* path, int* value), (path, value), __func__, path)
RECORDED(int, vconf_set_int, (const char* path, int value), (path, value), __func__, path, std::to_string(value))
RECORDED(int, vconf_set_bool, (const char* path, int value), (path, value), __func__, path, std::to_string(value))
RECORDED(int, vconf_sync_key, (const char* path), (path), __func__, path)
RECORDED(int, vconf_notify_key_changed, (const char* path, vconf_callback_fn callback, void* data),
         (path, callback, data), __func__, path,
         g_recording != nullptr && g_recording.load()->handler != data ? "for something else" : "")
RECORDED(int, vconf_ignore_key_changed, (const char* path, vconf_callback_fn callback), (path, callback), __func__,
         path)
RECORDED(int, system_info_get_custom_bool, (const char* key, bool* value), (key, value), __func__, key)
RECORDED(bool, Prefdeck::GetItemDataList, (std::string list, Items& items), (list, items), __func__, list,
         items.empty() ? "" : "into items that are not empty")
RECORDED(int, Panelbase::CreateVideoControl, (EProfile profile, int display, IVideoControl** control),
         (profile, display, control), __func__, std::to_string(profile), std::to_string(display),
         *control == nullptr ? "" : "into a control that is not null")

// ---- the worker and the message handler's base

using Worker = pp::SimpleThreadAwaitLoop;
extern "C" {
void DeleteWorker(Worker*) __asm__("_ZN2pp21SimpleThreadAwaitLoopD1Ev");
RECORDED(void, DeleteWorker, (Worker * worker), (worker), "~SimpleThreadAwaitLoop")
}

bool Worker::Start() {
  char name[16] = {};
  pthread_getname_np(pthread_self(), name, sizeof name);
  Record("Start, the thread is called", name);
  if (Recording* const recording = g_recording) recording->worker = this;
  return Next<&Worker::Start>(this);
}

std::int32_t pp::Instance::RegisterMessageHandler(MessageHandler* handler, const MessageLoop& loop) {
  if (Recording* const recording = g_recording) {
    recording->handler = handler;
    const bool own = recording->worker != nullptr && recording->worker->message_loop().core() == loop.core();
    Record(__func__, own ? "on the worker's loop" : "on another loop");
  }
  return Next<&Instance::RegisterMessageHandler>(this, handler, loop);
}

using Base = PPBaseMessageHandler;
using std::string;
pp::Var Base::createMessage(int code, pp::Var value, string name, string message) {
  Record(__func__, std::to_string(code), Shown(value), Shown(name), Shown(message));
  return Next<&Base::createMessage>(this, code, value, name, message);
}
void Base::responseData(pp::Instance page, string command, int code, pp::Var value, string name, string message) {
  Record(__func__, Shown(command), std::to_string(code), Shown(value), Shown(name), Shown(message));
  Next<&Base::responseData>(this, page, command, code, value, name, message);
}
void Base::sendData(pp::Instance page, string event, int code, pp::Var value, string name, string message) {
  Record(__func__, Shown(event), std::to_string(code), Shown(value), Shown(name), Shown(message));
  Next<&Base::sendData>(this, page, event, code, value, name, message);
}
