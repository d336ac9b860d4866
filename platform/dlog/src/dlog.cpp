#include "dlog.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

#include "dlog_control.h"

namespace dlog {
namespace {

constexpr int kInfo = 4;
constexpr int kFailed = -1;

// A line of the usual length is formatted here, without an allocation.
constexpr std::size_t kUsualLength = 512;

std::atomic<int> g_threshold{kInfo};

// Whether there is a sink, readable without a lock. On a set there is none.
std::atomic<bool> g_has_sink{false};

// Never destroyed: a thread may still log while the process ends.
struct SinkHolder {
  std::mutex mutex;
  Sink sink;
};
SinkHolder& Holder() {
  static auto* const holder = new SinkHolder;
  return *holder;
}

char PriorityLetter(int priority) {
  constexpr std::string_view kLetters = "??VDIWEF";
  return priority >= 0 && static_cast<std::size_t>(priority) < kLetters.size()
             ? kLetters[static_cast<std::size_t>(priority)]
             : '?';
}

int WriteToStderr(const Line& line) {
  const std::string text = Format(line) + '\n';
  ssize_t written = 0;
  do {
    written = write(STDERR_FILENO, text.data(), text.size());
  } while (written < 0 && errno == EINTR);
  return written == static_cast<ssize_t>(text.size()) ? 0 : kFailed;
}

int Emit(const Line& line) {
  if (g_has_sink.load(std::memory_order_acquire)) {
    auto& holder = Holder();
    const std::lock_guard lock(holder.mutex);
    if (holder.sink) {
      holder.sink(line);
      return 0;
    }
  }
  return WriteToStderr(line);
}

}  // namespace

void SetThreshold(int priority) { g_threshold.store(priority, std::memory_order_relaxed); }

void SetSink(Sink sink) {
  auto& holder = Holder();
  const std::lock_guard lock(holder.mutex);
  holder.sink = std::move(sink);
  g_has_sink.store(static_cast<bool>(holder.sink), std::memory_order_release);
}

std::string Format(const Line& line) {
  std::string text;
  text.reserve(line.tag.size() + line.text.size() + 16);
  text += PriorityLetter(line.priority);
  text += '/';
  text += line.tag;
  text += '(';
  text += std::to_string(line.log_id);
  text += "): ";
  text += line.text;
  return text;
}

}  // namespace dlog

int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...) {
  if (priority < dlog::g_threshold.load(std::memory_order_relaxed)) {
    return 0;
  }
  std::array<char, dlog::kUsualLength> usual;
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(usual.data(), usual.size(), format, arguments);
  va_end(arguments);

  int result = dlog::kFailed;
  if (length >= 0) {
    const auto size = static_cast<std::size_t>(length);
    if (size < usual.size()) {
      result = dlog::Emit({log_id, priority, tag, {usual.data(), size}});
    } else {
      std::string text(size, '\0');  // its own terminator takes the one that vsnprintf writes
      std::vsnprintf(text.data(), size + 1, format, again);
      result = dlog::Emit({log_id, priority, tag, text});
    }
  }
  va_end(again);
  return result;
}
