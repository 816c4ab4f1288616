#include "btrfs_tool_double.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "sandbox_mounts.h"
#include "scratch_dir.h"

namespace vela::test {

namespace {

std::string DoubleFile(const char* name) { return std::string(kBtrfsDoubleDir) + "/" + name; }

}  // namespace

BtrfsToolDouble::BtrfsToolDouble() {
  RequireSandbox("BtrfsToolDouble");
  const std::string error = BindInto(VELA_TEST_BTRFS_DOUBLE, ToolPath());
  if (!error.empty()) throw std::runtime_error(error);
  RemoveTree(kBtrfsDoubleDir);
  if (mkdir(kBtrfsDoubleDir, 0755) != 0) throw std::runtime_error(std::string("mkdir ") + kBtrfsDoubleDir);
  Script({});
}

BtrfsToolDouble::~BtrfsToolDouble() { RemoveTree(kBtrfsDoubleDir); }

void BtrfsToolDouble::Script(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text += line + "\n";
  WriteFile(DoubleFile("script"), text);
}

std::vector<std::vector<std::string>> BtrfsToolDouble::Runs() const {
  std::vector<std::vector<std::string>> runs;
  std::ifstream in(DoubleFile("args"));
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
