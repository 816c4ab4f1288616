#include "btrfs_tool_double.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "sandbox_mounts.h"

namespace vela::test {

BtrfsToolDouble::BtrfsToolDouble() {
  const std::string error = BindInto(VELA_TEST_BTRFS_DOUBLE, ToolPath());
  if (!error.empty()) throw std::runtime_error(error);
  Script({});
  setenv("VELA_BTRFS_DOUBLE_SCRIPT", (dir_ / "script").c_str(), 1);
  setenv("VELA_BTRFS_DOUBLE_ARGS", (dir_ / "args").c_str(), 1);
}

BtrfsToolDouble::~BtrfsToolDouble() {
  unsetenv("VELA_BTRFS_DOUBLE_SCRIPT");
  unsetenv("VELA_BTRFS_DOUBLE_ARGS");
}

void BtrfsToolDouble::Script(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text += line + "\n";
  WriteFile(dir_ / "script", text);
}

std::vector<std::vector<std::string>> BtrfsToolDouble::Runs() const {
  std::vector<std::vector<std::string>> runs;
  std::ifstream in(dir_ / "args");
  std::vector<std::string> run;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty()) {
      runs.push_back(run);
      run.clear();
    } else {
      run.push_back(line);
    }
  }
  return runs;
}

std::string BtrfsToolDouble::ToolPath() { return VELA_TEST_BTRFS_TOOL; }

void RemoveBtrfsTool() {
  const std::string error = RemoveInto(BtrfsToolDouble::ToolPath());
  if (!error.empty()) throw std::runtime_error(error);
}

}  // namespace vela::test
