#include "region.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <fstream>

#include "bus_guard.h"
#include "shared_lock.h"

namespace vconf {
namespace {

constexpr std::uint32_t kGrowth = 64U << 10U;  // the file grows by at least so many bytes

// A process that maps the region read-only cannot announce that it sleeps, so it polls.
constexpr std::chrono::milliseconds kReadOnlyPollInterval{20};

// The boot id, which is the same for all processes, including containers. Empty if it cannot be read.
std::string ThisBoot() {
  std::string id;
  std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), id);
  return id.size() < sizeof(layout::Header::boot) ? id : "";
}

struct Identity {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t born = 0;  // 0 if the file system has no birth time; an inode number may be reused
};

Identity IdentityOf(int file) {
  struct statx about = {};
  if (statx(file, "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &about) != 0) {
    return {};
  }
  const std::uint64_t device = (std::uint64_t{about.stx_dev_major} << 32U) + about.stx_dev_minor;
  const bool has_birth = (about.stx_mask & STATX_BTIME) != 0;
  const auto seconds = static_cast<std::uint64_t>(about.stx_btime.tv_sec);
  return {device, about.stx_ino, has_birth ? seconds * 1'000'000'000U + about.stx_btime.tv_nsec : 0};
}

long Futex(layout::Word& word, int operation, std::uint32_t value, const timespec* limit, std::uint32_t whom) {
#ifdef SYS_futex_time64
  constexpr long kCall = sizeof(std::time_t) > sizeof(long) ? SYS_futex_time64 : SYS_futex;
#else
  constexpr long kCall = SYS_futex;
#endif
  return syscall(kCall, &word, operation, value, limit, nullptr, whom);
}

// Allocates the disk space now, because a later access could not report that the disk is full. A signal may interrupt
// it.
int Allocate(int file, std::size_t from, std::size_t size) {
  int error = EINTR;
  while (error == EINTR) {
    error = posix_fallocate(file, static_cast<off_t>(from), static_cast<off_t>(size));
  }
  return error;
}

constexpr std::size_t kRing = offsetof(layout::Header, ring);

// The header fields that are the same in every new region. Returns 0, or the error of initialising the locks.
int InitHeader(layout::Header& header) {
  header.blocks_end = layout::kFirstBlock;
  header.records = layout::kFirstRecords;
  for (layout::Word& bucket : header.buckets) {
    bucket.store(layout::kEndOfList, std::memory_order_relaxed);
  }
  header.no_faults = 1;
  header.state = layout::kWhole;
  const int error = InitLock(header.lock);
  return error == 0 ? InitLock(header.disk_lock) : error;
}

}  // namespace

Result<std::unique_ptr<Region>> Region::Map(std::string file, UniqueFd descriptor, bool writable) {
  const int sharing = descriptor.is_open() ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
  void* const base =
      mmap(nullptr, layout::kMaxSize, writable ? PROT_READ | PROT_WRITE : PROT_READ, sharing, descriptor.get(), 0);
  if (base == MAP_FAILED) {
    return SystemFailure(file, errno);
  }
  if (!bus_guard::Guard(base, layout::kMaxSize)) {
    munmap(base, layout::kMaxSize);
    return Status(Code::kFailed, file + ": was replaced too often while this process ran; restart this program");
  }
  return std::unique_ptr<Region>(new Region(std::move(file), std::move(descriptor), base, writable));
}

Region::~Region() {
  bus_guard::Release(base_);
  munmap(base_, layout::kMaxSize);
}

Result<std::unique_ptr<Region>> Region::OpenAny(const Folder& folder) {
  struct stat about = {};
  bool writable = folder.may_write();
  auto opened = folder.OpenFile(Folder::kRegion, writable ? O_RDWR : O_RDONLY, &about);
  if (!opened.ok() && writable && opened.status().code() != Code::kMissing) {
    writable = false;
    opened = folder.OpenFile(Folder::kRegion, O_RDONLY, &about);
  }
  if (!opened.ok()) {
    return opened.status();
  }
  std::string file = folder.File(Folder::kRegion);
  return about.st_size < static_cast<off_t>(layout::kFirstBlock) ? Status(Code::kMissing, file + ": is too short")
                                                                 : Map(std::move(file), std::move(*opened), writable);
}

Result<std::unique_ptr<Region>> Region::Open(const Folder& folder, ino_t database) {
  auto region = OpenAny(folder);
  if (!region.ok()) {
    return region;
  }
  const layout::Header& header = (*region)->header();
  std::array<char, sizeof header.boot> boot = header.boot;
  boot.back() = '\0';
  const std::string this_boot = ThisBoot();
  if (this_boot.empty()) {
    return Status(Code::kFailed, "/proc/sys/kernel/random/boot_id: cannot be read; mount /proc");
  }
  const Identity identity = IdentityOf((*region)->descriptor_.get());
  if (!(*region)->IsWhole() || header.format != layout::kFormat || this_boot != boot.data() ||
      header.device != identity.device || header.inode != identity.inode || header.born != identity.born ||
      header.database != database) {
    return Status(Code::kMissing, (*region)->file() + ": is of another boot, file or database");
  }
  if (header.lock_size != sizeof(pthread_mutex_t)) {
    return Status(Code::kFailed, (*region)->file() +
                                     ": is in use by programs of another word size (32 or 64 bits); end them, or run "
                                     "this program in the same word size");
  }
  if ((*region)->writable()) {
    (*region)->ChooseFutexBit();
  }
  return region;
}

Result<std::unique_ptr<Region>> Region::Make(const Folder& folder, const std::string& name, ino_t database) {
  auto made = folder.MakeFile(name);
  if (!made.ok()) {
    return made.status();
  }
  const int file = made->get();
  int error = Allocate(file, 0, kRing + layout::kFirstRecords * sizeof(layout::ChangeRecord));
  error = error == 0 ? Allocate(file, layout::kFirstBlock, kGrowth) : error;
  if (error != 0) {
    folder.Remove(name);
    return SystemFailure(folder.File(Folder::kRegion), error);
  }
  auto region = Map(folder.File(Folder::kRegion), std::move(*made), true);
  if (!region.ok()) {
    return region;
  }
  layout::Header& header = (*region)->header();
  const Identity identity = IdentityOf(file);
  const std::string boot = ThisBoot();
  std::copy(boot.begin(), boot.end(), header.boot.begin());
  header.device = identity.device;
  header.inode = identity.inode;
  header.born = identity.born;
  header.database = database;
  header.format = layout::kFormat;
  header.lock_size = sizeof(pthread_mutex_t);
  header.file_end = layout::kFirstBlock + kGrowth;
  error = InitHeader(header);
  (*region)->ChooseFutexBit();
  return error == 0 ? std::move(region) : SystemFailure((*region)->file(), error);
}

Result<std::unique_ptr<Region>> Region::MakePrivate(const Folder& folder) {
  auto region = Map(folder.File(Folder::kRegion), UniqueFd(), true);
  if (!region.ok()) {
    return region;
  }
  (*region)->header().file_end = layout::kMaxSize;
  const int error = InitHeader((*region)->header());
  return error == 0 ? std::move(region) : SystemFailure((*region)->file(), error);
}

bool Region::IsRemoved() const {
  struct stat about = {};
  return is_shared() && (fstat(descriptor_.get(), &about) != 0 || about.st_nlink == 0);
}

bool Region::Grow(std::uint32_t end) {
  const std::uint32_t from = header().file_end.load(std::memory_order_relaxed);
  if (end <= from) {
    return true;
  }
  if (end > layout::kMaxSize || !is_shared()) {
    return false;
  }
  const std::uint32_t to = std::min(layout::kMaxSize, std::max(end, from + kGrowth));
  if (Allocate(descriptor_.get(), from, to - from) != 0) {
    return false;
  }
  header().file_end.store(to, std::memory_order_release);
  return true;
}

bool Region::GrowRing(std::uint32_t records) {
  const std::size_t begin = kRing + records / 2 * sizeof(layout::ChangeRecord);
  return records <= layout::kMaxRecords && is_shared() &&
         Allocate(descriptor_.get(), begin, records / 2 * sizeof(layout::ChangeRecord)) == 0;
}

void Region::MarkReplaced() {
  header().no_faults = 0;
  header().state = layout::kReplaced;
  WakeAll();
}

void Region::WakeAll() {
  header().wakeups.fetch_add(1);
  if (header().asleep.load() != 0 && header().asleep.exchange(0) != 0) {
    Futex(header().wakeups, FUTEX_WAKE, INT_MAX, nullptr, 0);
  }
}

void Region::WakeOwn() {
  if (writable_) {
    header().wakeups.fetch_add(1);  // a thread that is about to sleep then does not
    Futex(header().wakeups, FUTEX_WAKE_BITSET, INT_MAX, nullptr, futex_bit_);
  }
}

void Region::AwaitWakeup(std::uint32_t seen, std::chrono::nanoseconds limit) {
  if (writable_) {
    header().asleep = 1;
  } else {
    limit = std::min<std::chrono::nanoseconds>(limit, kReadOnlyPollInterval);
  }
  timespec until = {};
  clock_gettime(CLOCK_MONOTONIC, &until);
  constexpr long kSecond = 1'000'000'000;
  const auto span = limit.count() + until.tv_nsec;
  until.tv_sec += static_cast<std::time_t>(span / kSecond);
  until.tv_nsec = static_cast<long>(span % kSecond);
  Futex(header().wakeups, FUTEX_WAIT_BITSET, seen, &until, futex_bit_);
}

}  // namespace vconf
