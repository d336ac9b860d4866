#pragma once

#include <string>
#include <vector>

using Lines = std::vector<std::string>;

/// Keeps every call that the plug-in makes of the platform, each as one line, in order. The calls still reach the
/// platform. One recorder at a time; calls may come on any thread.
///
/// The source file defines the platform's functions once more. The loader prefers a program's own functions to those of
/// a library, so in a program with this file each call comes here first.
class PlatformCalls {
 public:
  PlatformCalls();
  PlatformCalls(const PlatformCalls&) = delete;
  PlatformCalls& operator=(const PlatformCalls&) = delete;
  ~PlatformCalls();

  /// The calls since the last time.
  Lines Take();

  /// Adds a line of the test's own to the calls, when there is a recorder.
  static void Add(const std::string& line);
};
