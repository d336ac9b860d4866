#include "bell.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "guard.h"

namespace vconf {
namespace {

constexpr std::size_t kSize = 4096;
constexpr mode_t kMode = 0600;

// A bell that this process cannot touch wakes nobody; the waiter looks for itself.
constexpr std::chrono::milliseconds kLookAtWordAnyway{20};

long Futex(std::atomic<std::uint32_t>* word, int operation, std::uint32_t value, const timespec* timeout) {
  return syscall(SYS_futex, word, operation, value, timeout, nullptr, 0);
}

}  // namespace

std::unique_ptr<Bell> Bell::Open(const std::string& file) {
  bool writable = true;
  int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kMode);
  if (fd < 0) {
    writable = false;
    fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  }
  void* memory = MAP_FAILED;
  if (fd >= 0) {
    constexpr off_t kLength = kSize;
    struct stat status = {};
    // Not sparse: a full disk could not give the page when it is touched.
    if (writable ? posix_fallocate(fd, 0, kLength) == 0 : fstat(fd, &status) == 0 && status.st_size >= kLength) {
      memory = mmap(nullptr, kSize, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
    }
    close(fd);
  }
  const bool shared = memory != MAP_FAILED;
  if (!shared) {
    writable = true;
    memory = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
      return nullptr;
    }
  }
  Guard::SetExpendable(memory, kSize);
  auto* const words = static_cast<Words*>(memory);
  if (shared && writable) {
    words->shared.store(kMark, std::memory_order_release);
  }
  return std::unique_ptr<Bell>(new Bell(words, writable));
}

Bell::~Bell() {
  Guard::SetExpendable(nullptr, 0);
  munmap(words_, kSize);
}

void Bell::Ring(std::uint64_t sequence) {
  if (!writable_) {
    return;
  }
  std::uint64_t last = words_->sequence.load(std::memory_order_relaxed);
  while (last < sequence && !words_->sequence.compare_exchange_weak(last, sequence, std::memory_order_release)) {
  }
  words_->rings.fetch_add(1);
  if (words_->asleep.load() != 0 && words_->asleep.exchange(0) != 0) {
    Futex(&words_->rings, FUTEX_WAKE, INT_MAX, nullptr);
  }
}

void Bell::Wait(std::uint32_t seen, std::chrono::nanoseconds timeout) {
  if (writable_) {
    words_->asleep.store(1);
  }
  if (!writable_ || !IsMark(words_->shared)) {
    timeout = std::min<std::chrono::nanoseconds>(timeout, kLookAtWordAnyway);
  }
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout);
  const timespec span = {.tv_sec = seconds.count(), .tv_nsec = (timeout - seconds).count()};
  Futex(&words_->rings, FUTEX_WAIT, seen, &span);
}

void Bell::SetKnownFaultless(bool faultless) {
  if (writable_) {
    words_->faultless.store(faultless ? kMark : 0, std::memory_order_release);
  }
}

}  // namespace vconf
