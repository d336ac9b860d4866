#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "browser_control.h"
#include "harness.h"
#include "vconf_control.h"

/// The set that is measured, and what runs beside it.
namespace bench {

/// The keys that are read and written: one on disk, one in memory, and a text, which the store looks up each time that
/// it is read.
inline constexpr char kDiskKey[] = "db/menu/caption/caption";
inline constexpr char kMemoryKey[] = "memory/tv-viewer/bg_executable";
inline constexpr char kTextKey[] = "db/text";
inline constexpr int kDiskKeyNumber = 0;
inline constexpr int kMemoryKeyNumber = 0;

/// Throws a failure as an exception, which ends the run.
void OrThrow(const vconf::Status& status);

/// A new folder, gone with its object.
class Scratch {
 public:
  explicit Scratch(const std::filesystem::path& parent = Place());
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch();
  const std::filesystem::path& path() const { return path_; }

  /// Where folders are made when nobody says otherwise: on the file system that is measured.
  static std::filesystem::path& Place();

 private:
  std::filesystem::path path_;
};

/// A set with the real plug-in on the real store. One at a time.
class Set {
 public:
  explicit Set(const std::vector<vconf::Entry>& entries);
  Set();  ///< as a new set is
  Set(const Set&) = delete;
  Set& operator=(const Set&) = delete;
  ~Set();

  std::shared_ptr<pp::browser::PageInstance> Page(pp::browser::Listener listener = {}) const;
  std::string store() const { return folder_.path() / "store"; }

 private:
  Scratch folder_;
  std::unique_ptr<pp::browser::Plugin> plugin_;
};

/// A request such as {"command": "getMenuValue", "propertyKey": 0}.
pp::Var Request(const std::string& command, int key);

/// Sends a message whose reply must be a success, else it throws.
void MustSucceed(pp::browser::PageInstance& page, const pp::Var& message);

/// What a listener hears, for one thread that waits: how many deliveries came, and when the last one did.
class Arrivals {
 public:
  pp::browser::Listener Listener();
  void Expect(int count) { left_.store(count, std::memory_order_relaxed); }
  /// Waits asleep until all expected ones have come and returns when the last did.
  Clock::time_point Await();

 private:
  std::atomic<int> left_{0};
  Clock::time_point last_;
};

/// Another process with pipes at its stdin and stdout. It ends with its object, and with this process.
/// A terminal's Ctrl-C does not reach it, so that it is there until its object ends it.
class Child {
 public:
  explicit Child(const std::vector<std::string>& command);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  pid_t pid() const { return pid_; }
  void Write(const std::string& text) const;
  /// The next line without its newline; throws at the end of the output.
  std::string ReadLine();
  /// Closes the child's stdin, waits for its end and returns its exit status.
  int End();

 private:
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  std::string read_;
};

/// This program, for a child that does a part of a measurement.
std::string OwnProgram();

/// The program that writes `kDiskKey` or `kMemoryKey` whenever it is told to: for a line "path value" of its stdin it
/// answers with the clock's count just before the write.
int RunWriter(const std::string& store);

/// A field of a file in /proc/PID that is given in kB, such as "VmHWM:" of "status", in KiB; throws when there is none.
double ProcessField(pid_t pid, const std::string& file, const std::string& field);

}  // namespace bench
