// The btrfs tool's test double, put at the tool's configured path for the
// length of a test, with a script of what it prints.
#ifndef VELA_TESTS_SUPPORT_BTRFS_TOOL_DOUBLE_H_
#define VELA_TESTS_SUPPORT_BTRFS_TOOL_DOUBLE_H_

#include <string>
#include <vector>


namespace vela::test {

// Where the double finds its script and writes its runs' arguments (in the
// sandbox's private /run).
inline constexpr char kBtrfsDoubleDir[] = "/run/vela-test/btrfs-double";

class BtrfsToolDouble {
 public:
  // Binds the double over the tool's path (see btrfs_double.cc for the
  // script language) and points it at an empty script.
  BtrfsToolDouble();
  ~BtrfsToolDouble();

  // Replaces the script: what the next runs print.
  void Script(const std::vector<std::string>& lines);
  // The argument vectors of every run so far.
  std::vector<std::vector<std::string>> Runs() const;
  // Where a script's "@pidfile" may write.
  std::string PidFile() const { return std::string(kBtrfsDoubleDir) + "/tool.pid"; }

  static std::string ToolPath();
};

// Makes the tool's path absent in this sandbox.
void RemoveBtrfsTool();

}  // namespace vela::test

#endif  // VELA_TESTS_SUPPORT_BTRFS_TOOL_DOUBLE_H_
