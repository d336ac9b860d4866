#include "shared_lock.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <fstream>
#include <system_error>
#include <thread>

namespace vconf {
namespace {

std::atomic<std::uint32_t> g_process{
    static_cast<std::uint32_t>(getpid())};  // asking the kernel takes as long as a lock

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer does not see that a wait with a limit takes the lock of an owner that died, so the lock is tried
// again and again.
int Await(pthread_mutex_t* mutex, std::chrono::milliseconds limit) {
  const auto until = std::chrono::steady_clock::now() + limit;
  int result = pthread_mutex_trylock(mutex);
  while (result == EBUSY && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    result = pthread_mutex_trylock(mutex);
  }
  return result;
}
#else
int Await(pthread_mutex_t* mutex, std::chrono::milliseconds limit) {
  const int result = pthread_mutex_trylock(mutex);
  if (result != EBUSY || limit.count() == 0) {
    return result;
  }
  timespec until{};
  clock_gettime(CLOCK_MONOTONIC, &until);
  constexpr long kSecond = 1'000'000'000;
  const auto span = std::chrono::nanoseconds(limit).count() + until.tv_nsec;
  until.tv_sec += static_cast<std::time_t>(span / kSecond);
  until.tv_nsec = static_cast<long>(span % kSecond);
  return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &until);
}
#endif

std::string NameOf(std::uint32_t process) {
  if (process == 0) {
    return "another process";
  }
  std::string name;
  std::getline(std::ifstream("/proc/" + std::to_string(process) + "/comm"), name);
  return "process " + std::to_string(process) + (name.empty() ? "" : " (" + name + ")");
}

}  // namespace

void NoteProcess() { g_process = static_cast<std::uint32_t>(getpid()); }

void InitLock(layout::Lock& lock) {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  pthread_mutex_init(&lock.mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

SharedLock::SharedLock(layout::Lock& lock, const char* name, std::chrono::milliseconds limit)
    : lock_(lock), name_(name), result_(Await(&lock.mutex, limit)) {
  if (result_ == EOWNERDEAD) {
    inherited_ = true;
    result_ = pthread_mutex_consistent(&lock.mutex);
  }
  if (held()) {
    lock_.holder.store(g_process.load(std::memory_order_relaxed), std::memory_order_relaxed);
  }
}

SharedLock::~SharedLock() {
  if (held()) {
    lock_.holder.store(0, std::memory_order_relaxed);  // the next owner is named by nobody else's number
    pthread_mutex_unlock(&lock_.mutex);
  }
}

Status SharedLock::status(const std::string& file) const {
  if (held()) {
    return {};
  }
  if (result_ == ETIMEDOUT || result_ == EBUSY) {
    return {Code::kBusy, file + ": " + NameOf(lock_.holder.load(std::memory_order_relaxed)) +
                             " has held the lock for " + name_ + " too long; let it go on, or end it"};
  }
  return {Code::kDamaged,
          file + ": the lock for " + name_ + " is damaged: " + std::generic_category().message(result_)};
}

}  // namespace vconf
