#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

/// A temporary folder that the destructor removes.
class TemporaryFolder {
 public:
  explicit TemporaryFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    std::string pattern = parent / "mirado-test-XXXXXX";
    EXPECT_NE(mkdtemp(pattern.data()), nullptr);
    path_ = pattern;
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  std::string path() const { return path_; }
  std::string operator/(const char* name) const { return path_ / name; }

 private:
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
