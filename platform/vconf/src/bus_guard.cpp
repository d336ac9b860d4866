#include "bus_guard.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <mutex>

namespace vconf::bus_guard {
namespace {

// The guarded ranges. The signal handler reads them at any point and must not wait, so they are atomic, without a lock.
struct Range {
  std::atomic<char*> begin{nullptr};
  std::atomic<std::size_t> size{0};
};
std::array<Range, 32> g_ranges;
struct sigaction g_previous;

bool BecomesZeros(void* begin, std::size_t size) {
  constexpr int kFlags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE;
#if defined(__SANITIZE_THREAD__)  // which takes a call of the library for a write to all of it by this thread
  return syscall(SYS_mmap, begin, size, PROT_READ | PROT_WRITE, kFlags, -1, 0) == reinterpret_cast<long>(begin);
#else
  return mmap(begin, size, PROT_READ | PROT_WRITE, kFlags, -1, 0) == begin;
#endif
}

void OnSignal(int signal, siginfo_t* info, void* context) {
  const int error = errno;
  const auto* const at = static_cast<const char*>(info->si_addr);
  for (const Range& range : g_ranges) {
    char* const begin = range.begin.load(std::memory_order_acquire);
    const std::size_t size = range.size.load(std::memory_order_acquire);
    if (info->si_code > 0 && begin != nullptr && at >= begin && at < begin + size && BecomesZeros(begin, size)) {
      errno = error;
      return;
    }
  }
  if ((g_previous.sa_flags & SA_SIGINFO) != 0) {
    g_previous.sa_sigaction(signal, info, context);
  } else if (g_previous.sa_handler != SIG_DFL && g_previous.sa_handler != SIG_IGN) {
    g_previous.sa_handler(signal);
  } else if (g_previous.sa_handler == SIG_DFL || info->si_code > 0) {
    sigaction(signal, &g_previous, nullptr);  // the access is repeated; a sent signal is sent again
    if (info->si_code <= 0) {
      raise(signal);
    }
  }
}

}  // namespace

bool Guard(void* begin, std::size_t size) {
  static std::once_flag installed;
  std::call_once(installed, [] {
    struct sigaction action = {};
    action.sa_sigaction = OnSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigaction(SIGBUS, &action, &g_previous);
  });
  for (Range& range : g_ranges) {
    char* none = nullptr;
    if (range.begin.compare_exchange_strong(none, static_cast<char*>(begin))) {
      range.size.store(size, std::memory_order_release);
      return true;
    }
  }
  return false;
}

void Release(void* begin) {
  const auto range =
      std::find_if(g_ranges.begin(), g_ranges.end(), [&](const Range& each) { return each.begin == begin; });
  if (range != g_ranges.end()) {
    range->size.store(0);
    range->begin.store(nullptr);
  }
}

}  // namespace vconf::bus_guard
