#include "pepper/platform_calls.h"

#include <dlfcn.h>
#include <dlog.h>
#include <panelbase.h>
#include <prefdeck.h>
#include <sys/prctl.h>
#include <system_info.h>
#include <vconf.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <utility>

#include "base/json.h"
#include "pp_base_message_handler.h"
#include "ppapi/cpp/message_loop.h"
#include "simple_thread_await_loop.h"

namespace {

struct Recording {
  std::mutex mutex;
  Lines lines;
  std::map<const void*, PP_Instance> handlers;  // the instance that registered each handler
  pp::SimpleThreadAwaitLoop* worker = nullptr;  // the newest
  const void* reply = nullptr;                  // the content of the newest
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

void RecordReply(const void* handler, const char* call, const pp::Instance& instance, const std::string& subject,
                 int code, const pp::Var& value, const std::string& name, const std::string& message) {
  const Recording* const recording = g_recording;
  if (recording == nullptr) return;
  const auto own = recording->handlers.find(handler);
  const bool other = own != recording->handlers.end() && own->second != instance.pp_instance();
  Record(call, Shown(subject), std::to_string(code), Shown(value), Shown(name), Shown(message),
         other ? "of another instance" : "");
}

/// Whether line `number` of the plug-in's source file `name` belongs to a log call with `format`.
bool LogsThere(const std::string& name, int number, const std::string& format) {
  const char* const folder = name.ends_with(".h") ? "/inc/" : "/src/";
  std::ifstream file(MIRADO_PEPPER_FOLDER + (folder + name));
  std::string call;
  int first = 0;
  std::string line;
  for (int at = 1; std::getline(file, line); ++at) {
    if (line.find("MIRADO_LOG") != std::string::npos) {
      first = at;
      call.clear();
    }
    call += line;
    if (at >= number && line.ends_with(";")) {
      return first <= number && call.find("\"" + format + "\"") != std::string::npos;
    }
  }
  return false;
}

}  // namespace

PlatformCalls::PlatformCalls() { g_recording = new Recording; }
PlatformCalls::~PlatformCalls() { delete g_recording.exchange(nullptr); }

Lines PlatformCalls::Take() {
  Recording& recording = *g_recording;
  const std::lock_guard lock(recording.mutex);
  return std::exchange(recording.lines, {});
}

void PlatformCalls::Add(const std::string& line) { Record(line); }

void PlatformCalls::AddReply(const pp::Var& reply) {
  if (reply.is_undefined()) {
    Record("no reply");
  } else if (g_recording.load()->reply != reply.pp_var().value.as_node) {
    Record("a reply that is not the one of createMessage:", Shown(reply));
  }
}

// ---- the logger: what a line says, and whether the place that it names is one that logs it

int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...) {
  constexpr std::string_view kPrefix = "%s: %s(%d) > ";
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  char text[8192];
  std::vsnprintf(text, sizeof text, format, again);
  va_end(again);
  if (g_recording != nullptr && std::strcmp(tag, "VCONF") != 0) {
    if (std::strcmp(tag, "QRL_BASE") == 0 && std::string_view(format).starts_with(kPrefix)) {
      const std::string file = va_arg(arguments, const char*);
      const std::string operation = va_arg(arguments, const char*);
      const int line = va_arg(arguments, int);
      Record("log", std::to_string(log_id), std::to_string(priority), file, operation, std::strstr(text, ") > ") + 2,
             LogsThere(file, line, format + kPrefix.size()) ? "" : "(not logged in line " + std::to_string(line) + ")");
    } else {
      Record("log without its tag and its prefix:", text);
    }
  }
  va_end(arguments);
  return Next<&__dlog_print>(log_id, priority, tag, "%s", text);
}

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
         g_recording != nullptr && !g_recording.load()->handlers.contains(data) ? "for something else" : "")
RECORDED(int, vconf_ignore_key_changed, (const char* path, vconf_callback_fn callback), (path, callback), __func__,
         path)
RECORDED(int, system_info_get_custom_bool, (const char* key, bool* value), (key, value), __func__, key)
RECORDED(bool, Prefdeck::GetItemDataList, (std::string list, Items& items), (list, items), __func__, list,
         items.empty() ? "" : "into items that are not empty")
RECORDED(int, Panelbase::CreateVideoControl, (EProfile profile, int display, IVideoControl** control),
         (profile, display, control), __func__, std::to_string(profile), std::to_string(display),
         *control == nullptr ? "" : "into a control that is not null")

int prctl(int option, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, option);
  unsigned long values[4];
  for (unsigned long& value : values) value = va_arg(arguments, unsigned long);
  va_end(arguments);
  if (option == PR_SET_NAME) Record("prctl PR_SET_NAME", reinterpret_cast<const char*>(values[0]));
  return Next<&prctl>(option, values[0], values[1], values[2], values[3]);
}

// ---- the worker and the message handler's base

using Worker = pp::SimpleThreadAwaitLoop;
extern "C" {
void MakeWorker(Worker*, const pp::InstanceHandle&) __asm__("_ZN2pp21SimpleThreadAwaitLoopC1ERKNS_14InstanceHandleE");
void DeleteWorker(Worker*) __asm__("_ZN2pp21SimpleThreadAwaitLoopD1Ev");

void MakeWorker(Worker* worker, const pp::InstanceHandle& instance) {
  Record("SimpleThreadAwaitLoop");
  if (Recording* const recording = g_recording) recording->worker = worker;
  Next<&MakeWorker>(worker, instance);
}
RECORDED(void, DeleteWorker, (Worker * worker), (worker), "~SimpleThreadAwaitLoop")
}
RECORDED(bool, Worker::Start, (), (this), __func__)

std::int32_t pp::Instance::RegisterMessageHandler(MessageHandler* handler, const MessageLoop& loop) {
  if (Recording* const recording = g_recording) {
    recording->handlers[handler] = pp_instance();
    const bool own = recording->worker != nullptr && recording->worker->message_loop().core() == loop.core();
    Record(__func__, own ? "on the worker's loop" : "on another loop");
  }
  return Next<&Instance::RegisterMessageHandler>(this, handler, loop);
}

using Base = PPBaseMessageHandler;
using std::string;
pp::Var Base::createMessage(int code, pp::Var value, string name, string message) {
  Record(__func__, std::to_string(code), Shown(value), Shown(name), Shown(message));
  pp::Var reply = Next<&Base::createMessage>(this, code, value, name, message);
  if (Recording* const recording = g_recording) recording->reply = reply.pp_var().value.as_node;
  return reply;
}
void Base::responseData(pp::Instance page, string command, int code, pp::Var value, string name, string message) {
  RecordReply(this, __func__, page, command, code, value, name, message);
  Next<&Base::responseData>(this, page, command, code, value, name, message);
}
void Base::sendData(pp::Instance page, string event, int code, pp::Var value, string name, string message) {
  RecordReply(this, __func__, page, event, code, value, name, message);
  Next<&Base::sendData>(this, page, event, code, value, name, message);
}
