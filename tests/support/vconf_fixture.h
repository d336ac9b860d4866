#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "dlog_control.h"
#include "support/files.h"
#include "support/process.h"
#include "vconf.h"
#include "vconf_control.h"

/// A store in a temporary folder, and the lines that it logs.
class VconfTest : public testing::Test {
 protected:
  VconfTest() {
    dlog::SetSink([this](const dlog::Line& line) {
      const std::lock_guard lock(log_mutex_);
      log_.push_back(dlog::Format(line));
    });
  }
  ~VconfTest() override {
    vconf::CloseStore();
    dlog::SetSink(nullptr);
  }

  std::string folder() const { return folder_.path(); }
  std::string directory() const { return folder_ / "store"; }
  std::string file() const { return directory() + "/keys.db"; }
  std::string region() const { return directory() + "/live"; }

  void Open(const std::vector<vconf::Entry>& initial = {}) {
    ASSERT_EQ(vconf::OpenOrCreateStore(directory(), initial).text(), "");
  }
  void Reopen() {
    vconf::CloseStore();
    Open();
  }

  static int GetInt(const std::string& path, int otherwise) {
    vconf_get_int(path.c_str(), &otherwise);
    return otherwise;
  }

  static void Count(keynode_t* /*node*/, void* count) { ++*static_cast<std::atomic<int>*>(count); }
  /// Holds SQLite's write lock until this process ends. It is in the index of the log.
  bool LockLog() const {
    struct flock lock = {.l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = 120, .l_len = 1, .l_pid = 0};
    return fcntl(open((file() + "-shm").c_str(), O_RDWR | O_CLOEXEC), F_SETLK, &lock) == 0;
  }

  /// The lines logged so far; the store's own thread may add some at any time.
  std::vector<std::string> Log() {
    const std::lock_guard lock(log_mutex_);
    return log_;
  }
  void ClearLog() {
    const std::lock_guard lock(log_mutex_);
    log_.clear();
  }

 private:
  std::mutex log_mutex_;
  std::vector<std::string> log_;
  // In memory if possible, because these tests write much.
  TemporaryFolder folder_{access("/dev/shm", W_OK) == 0 ? "/dev/shm" : testing::TempDir()};
};
