#include "shared_words.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <thread>

#include "simulated.h"
#include "vconf.h"

namespace bench {

SharedWords::SharedWords(const std::string& file) {
  const int made = open(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  const int descriptor = made >= 0 ? made : open(file.c_str(), O_RDWR | O_CLOEXEC);
  if (descriptor < 0 || ftruncate(descriptor, sizeof(Words)) != 0) throw std::runtime_error(file + ": cannot be made");
  words_ = static_cast<Words*>(mmap(nullptr, sizeof(Words), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
  close(descriptor);
  if (made >= 0) {
    pthread_mutexattr_t robust;
    pthread_mutexattr_init(&robust);
    pthread_mutexattr_setpshared(&robust, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&robust, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&words_->lock, &robust);
    pthread_mutexattr_destroy(&robust);
  }
}

SharedWords::~SharedWords() { munmap(words_, sizeof(Words)); }

void SharedWords::Put(int value) {
  pthread_mutex_lock(&words_->lock);
  words_->slot = value;
  pthread_mutex_unlock(&words_->lock);
}

int SharedWords::Take() {
  pthread_mutex_lock(&words_->lock);
  const int value = words_->slot;
  pthread_mutex_unlock(&words_->lock);
  return value;
}

void SharedWords::WakeAll() {
  words_->wakeups.fetch_add(1);
  syscall(SYS_futex, &words_->wakeups, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

void SharedWords::Await(std::uint32_t seen) {
  while (Wakeups() == seen) syscall(SYS_futex, &words_->wakeups, FUTEX_WAIT, seen, nullptr, nullptr, 0);
}

namespace {

int UntilEnd() {
  std::cout << "ready" << std::endl;
  std::string line;
  while (std::getline(std::cin, line)) {
  }
  std::_Exit(EXIT_SUCCESS);  // also ends the other thread
}

}  // namespace

int RunHandOver(const std::string& file) {
  SharedWords words(file);
  std::cout << "ready" << std::endl;
  for (int value = 0; std::cin >> value;) {
    const auto start = Clock::now();
    words.Put(value);
    words.WakeAll();
    std::cout << start.time_since_epoch().count() << std::endl;
  }
  return EXIT_SUCCESS;
}

int RunSleeper(const std::string& file) {
  SharedWords words(file);
  std::thread([&] {
    while (true) words.Await(words.Wakeups());
  }).detach();
  return UntilEnd();
}

int RunListener(const std::string& store) {
  if (!vconf::OpenStore(store).ok() || vconf_notify_key_changed(
                                           kMemoryKey, [](keynode_t*, void*) {}, nullptr) < 0) {
    return EXIT_FAILURE;
  }
  return UntilEnd();
}

int RunDurableWriter(const std::string& store) {
  if (!vconf::OpenStore(store).ok()) return EXIT_FAILURE;
  std::thread([] {
    for (int value = 0; vconf_set_int(kDiskKey, value) == 0 && vconf_sync_key(kDiskKey) == 0; value = 1 - value) {
    }
  }).detach();
  return UntilEnd();
}

}  // namespace bench
