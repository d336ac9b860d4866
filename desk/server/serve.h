#pragma once

#include <functional>

#include <CLI/CLI.hpp>

namespace desk {

/// Adds the command `desk` to `app`. If the user gives it, it sets `run`, which serves until it is asked to exit and
/// returns the exit status.
void AddDeskCommand(CLI::App& app, std::function<int()>& run);

}  // namespace desk
