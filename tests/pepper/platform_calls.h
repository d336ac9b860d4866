#pragma once

#include <string>
#include <vector>

using Lines = std::vector<std::string>;

/// Records every call that the plug-in makes of the platform, each as one line, in order, and passes it on to the
/// platform. One recorder at a time; calls may come on any thread.
///
/// The source file defines functions of the same names. The loader prefers a program's own functions to those of a
/// library, so in a program with this file each call comes here first.
class PlatformCalls {
 public:
  PlatformCalls();
  PlatformCalls(const PlatformCalls&) = delete;
  PlatformCalls& operator=(const PlatformCalls&) = delete;
  ~PlatformCalls();

  /// The calls since the last call of Take.
  Lines Take();

  /// Adds a line to the recorded calls, if there is a recorder.
  static void Add(const std::string& line);
};
