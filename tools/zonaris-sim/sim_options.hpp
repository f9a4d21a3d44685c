#pragma once

// zonaris-sim's command line, mapped onto the simulation's options.

#include <optional>
#include <string>
#include <variant>

#include "zonaris/simulation/options.hpp"

namespace zonaris::sim_tool {

/// What zonaris-sim runs with: the run's options and what only the command line asks for.
struct ToolOptions {
  Options run;
  std::optional<std::string> scoreFile;  ///< --score FILE
};

/// What the command line asks for: a run, or an early exit with a status and a text (the help
/// text with status 0, or one error line with status 2).
struct EarlyExit {
  int status = 2;
  std::string text;
};

/// Reads a command line; never throws. Fit for fuzzing: it reads no file and starts nothing.
std::variant<ToolOptions, EarlyExit> parseOptions(int argc, const char* const* argv);

}  // namespace zonaris::sim_tool
