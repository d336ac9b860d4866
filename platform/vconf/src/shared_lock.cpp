#include "shared_lock.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fstream>
#include <sstream>
#include <thread>

namespace vconf {
namespace {

std::atomic<std::uint32_t> g_process{
    static_cast<std::uint32_t>(getpid())};  // cached, because the system call takes as long as a lock

// How long this thread may wait from `t_begin` on; 0 without a `WaitLimit`.
thread_local std::chrono::milliseconds t_limit{0};

// The time of the first wait within this thread's outermost limit; 0 before.
thread_local std::chrono::steady_clock::time_point t_begin;

std::chrono::milliseconds Waited() {
  return t_begin == decltype(t_begin)()
             ? std::chrono::milliseconds(0)
             : std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t_begin);
}

#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer does not recognise that a timed wait acquires the lock of a dead owner, so this polls with try-lock.
int Await(pthread_mutex_t* mutex) {
  int result = pthread_mutex_trylock(mutex);
  while (result == EBUSY && WaitLimit::Left().count() > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    result = pthread_mutex_trylock(mutex);
  }
  return result;
}
#else
int Await(pthread_mutex_t* mutex) {
  const int result = pthread_mutex_trylock(mutex);
  const auto limit = result == EBUSY ? WaitLimit::Left() : std::chrono::milliseconds(0);
  if (limit.count() == 0) {
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

WaitLimit::WaitLimit(std::chrono::milliseconds limit) : outer_(t_limit) {
  t_limit = outer_.count() == 0 ? limit : std::min(outer_, Waited() + limit);
}

WaitLimit::~WaitLimit() {
  t_limit = outer_;
  if (outer_.count() == 0) {
    t_begin = {};
  }
}

std::chrono::milliseconds WaitLimit::Left() {
  if (t_begin == decltype(t_begin)() && t_limit.count() > 0) {
    t_begin = std::chrono::steady_clock::now();
  }
  return std::max(t_limit - Waited(), std::chrono::milliseconds(0));
}

std::string HolderOf(const std::vector<std::string>& files) {
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number, kind, how, what, place;
    long process = 0;  // -1 for a lock without an owning process
    words >> number >> kind >> how >> what >> process >> place;
    for (const std::string& file : files) {
      struct stat about = {};
      // On some file systems the device numbers here differ from those of `stat`.
      if (what == "WRITE" && process > 0 && process != static_cast<long>(g_process.load()) &&
          stat(file.c_str(), &about) == 0 && place.ends_with(':' + std::to_string(about.st_ino))) {
        return NameOf(static_cast<std::uint32_t>(process));
      }
    }
  }
  return NameOf(0);
}

void RememberProcessId() { g_process = static_cast<std::uint32_t>(getpid()); }

int InitLock(layout::Lock& lock) {
  pthread_mutexattr_t attributes;
  int error = pthread_mutexattr_init(&attributes);
  if (error != 0) {
    return error;
  }
  pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  error = pthread_mutex_init(&lock.mutex, &attributes);
  if (error == ENOTSUP) {  // an emulated kernel: the lock of a dead process stays held, and acquiring it fails
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_STALLED);
    error = pthread_mutex_init(&lock.mutex, &attributes);
  }
  pthread_mutexattr_destroy(&attributes);
  return error;
}

SharedLock::SharedLock(layout::Lock& lock, const char* name, bool waits)
    : lock_(lock), name_(name), result_(waits ? Await(&lock.mutex) : pthread_mutex_trylock(&lock.mutex)) {
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
    lock_.holder.store(0, std::memory_order_relaxed);  // so that it never names a wrong process
    pthread_mutex_unlock(&lock_.mutex);
  }
}

Status SharedLock::status(const std::string& file) const {
  if (held()) {
    return {};
  }
  if (result_ == ETIMEDOUT || result_ == EBUSY) {
    return {Code::kBusy, file + ": " + NameOf(lock_.holder.load(std::memory_order_relaxed)) +
                             " has held the lock for " + name_ + " too long; resume or end that process"};
  }
  return {Code::kDamaged,
          file + ": the lock for " + name_ + " is damaged; end the programs that use this file, then remove it"};
}

}  // namespace vconf
