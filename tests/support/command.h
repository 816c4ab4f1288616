// Running programs from tests: argument vector, no shell, output captured.
#ifndef VELA_TESTS_SUPPORT_COMMAND_H_
#define VELA_TESTS_SUPPORT_COMMAND_H_

#include <string>
#include <vector>

namespace vela::test {

struct CommandResult {
  int status = -1;  // exit status, or 128 + signal number when killed
  std::string out;  // standard output
  std::string err;  // standard error
};

// Runs argv[0] (searched in PATH) with the given arguments and standard
// input text, waits for it and returns what it printed.
CommandResult RunCommand(const std::vector<std::string>& argv, const std::string& input = "");
// As RunCommand, but throws std::runtime_error (with the output) unless the
// program exits with 0. Returns its standard output.
std::string MustRun(const std::vector<std::string>& argv);

}  // namespace vela::test

#endif  // VELA_TESTS_SUPPORT_COMMAND_H_
