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

/// What the measurements start: a simulated set (television) with the plug-in, pages in it, and child processes.
namespace bench {

/// The keys that are measured: one on disk, one in memory, and a text.
inline constexpr char kDiskKey[] = "db/menu/caption/caption";
inline constexpr char kMemoryKey[] = "memory/tv-viewer/bg_executable";
inline constexpr char kTextKey[] = "db/text";
inline constexpr int kDiskKeyNumber = 0;    ///< its `propertyKey` in `getMenuValue` and `setMenuValue`
inline constexpr int kMemoryKeyNumber = 0;  ///< its `propertyKey` in `getMiradoValue`

/// Throws the text of a failure, which ends the run.
void OrThrow(const vconf::Status& status);

/// A new folder, which the destructor removes.
class Scratch {
 public:
  explicit Scratch(const std::filesystem::path& parent = Place());
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch();
  const std::filesystem::path& path() const { return path_; }

  /// The folder for scratch folders, on the file system that is measured; `--scratch` sets it.
  static std::filesystem::path& Place();

 private:
  std::filesystem::path path_;
};

/// A simulated set with the built plug-in on a new store. Only one may exist at a time.
class Set {
 public:
  explicit Set(const std::vector<vconf::Entry>& entries);
  Set();  ///< with the initial values of a new set
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

/// Sends a message, and throws unless its reply is a success.
void MustSucceed(pp::browser::PageInstance& page, const pp::Var& message);

/// Lets one thread wait for a number of messages to listeners, and tells when the last one came.
class Arrivals {
 public:
  pp::browser::Listener Listener();
  void Expect(int count) { left_.store(count, std::memory_order_relaxed); }
  /// Sleeps until all expected messages have come. Returns the time of the last one.
  Clock::time_point Await();

 private:
  std::atomic<int> left_{0};
  Clock::time_point last_;
};

/// A child process with pipes to its stdin and stdout. It is ended by the destructor, or when this process ends; Ctrl-C
/// at the terminal does not reach it.
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

/// The path of this program, to start it as a child with another option.
std::string OwnProgram();

/// For each line "PATH VALUE" on stdin: writes the value, and prints the clock's count just before the write.
int RunWriter(const std::string& store);

/// The number of KiB in a field of /proc/PID/`file`, such as "VmHWM:" of "status". Throws if the field is missing.
double ProcessField(pid_t pid, const std::string& file, const std::string& field);

}  // namespace bench
