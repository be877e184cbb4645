// ToolError, the tool's own error for input it cannot use, and the tool's exit codes.
#ifndef MVDA_APPS_MVDA_TOOL_ERROR_H_
#define MVDA_APPS_MVDA_TOOL_ERROR_H_

#include <stdexcept>
#include <string>

namespace mvda::cli {

// Exit codes: what a script calling the tool branches on.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;    // a fault of the tool or of the machine (out of memory)
inline constexpr int kExitBadInput = 2;   // the user's files or options; the message says which
inline constexpr int kExitStopped = 130;  // Ctrl-C, as a shell reports a command ended by SIGINT

// A file that cannot be read, a cell that is not a number, a column that does not exist: the
// message names the place (file:line:column, or the option) and the fault, on one line.
class ToolError : public std::runtime_error {
 public:
  explicit ToolError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace mvda::cli

#endif  // MVDA_APPS_MVDA_TOOL_ERROR_H_
