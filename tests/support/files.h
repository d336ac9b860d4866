#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <system_error>

/// A temporary folder that the destructor removes.
class TemporaryFolder {
 public:
  explicit TemporaryFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    RemoveAbandoned(parent);
    std::string pattern = parent / ("mirado-test-" + std::to_string(getpid()) + "-XXXXXX");
    EXPECT_NE(mkdtemp(pattern.data()), nullptr);
    path_ = pattern;
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  std::string path() const { return path_; }
  std::string operator/(const char* name) const { return path_ / name; }

 private:
  /// Removes the folders of tests that were killed.
  static void RemoveAbandoned(const std::filesystem::path& parent) {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(parent, ignored)) {
      int pid = 0;
      int end = 0;
      sscanf(entry.path().filename().c_str(), "mirado-test-%d-%n", &pid, &end);
      if (end > 0 && kill(pid, 0) != 0 && errno == ESRCH) {
        std::filesystem::remove_all(entry.path(), ignored);
      }
    }
  }

  std::filesystem::path path_;
};

inline std::string Contents(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

inline void Overwrite(const std::string& file, std::uintmax_t begin, const std::string& bytes) {
  std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
  stream.seekp(static_cast<std::streamoff>(begin));
  stream << bytes;
}

/// Random bytes, the same ones for the same seed.
inline std::string Noise(std::uintmax_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string noise(static_cast<std::size_t>(size), '\0');
  std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(random()); });
  return noise;
}
