// A loopback btrfs volume at /volume1 with two shares and their snapshots,
// the btrfs tool's double at the tool's path and the module loaded: the
// ground of the tests that drive calculations through the web API.
#ifndef VELA_TESTS_SUPPORT_SHARE_FIXTURE_H_
#define VELA_TESTS_SUPPORT_SHARE_FIXTURE_H_

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/types.h>

#include <map>
#include <string>

#include "support/btrfs_image.h"
#include "support/btrfs_tool_double.h"
#include "support/module_loader.h"

namespace vela::test {

constexpr long kHour = 3600;
constexpr long kT0 = 1709629449;  // 2024-03-05 09:04:09 UTC

// "ok " + the data as compact JSON, "error " + the code, or "unanswered".
std::string Answer(const VELA::APIResponse& response);
std::string Compact(const Json::Value& value);
// The snapshot name of `t` in UTC.
std::string UtcSnapName(long t);
// Parameters of a start over [start, end].
std::string StartParams(const std::string& share, long start, long end);

class ShareFixture : public testing::Test {
 protected:
  // share1: three snapshots an hour apart from kT0; share2: one at kT0 + 1 h.
  void SetUp() override;
  // Every calculation must have ended by itself: nothing may be left.
  void TearDown() override;

  void Snapshot(const std::string& share, long t);
  std::string Call(const std::string& method, const std::string& params);
  // The share's state and error code, straight from its status record.
  std::string State(const std::string& share);
  // Waits for the share's calculation to reach "process"; its child's PID.
  pid_t WaitForProcess(const std::string& share);
  // Waits for the share's calculation to leave "ready" and "process", and
  // for its child to end; the final state.
  std::string WaitForEnd(const std::string& share);
  // Root IDs of the volume's subvolumes by path.
  std::map<std::string, unsigned long long> RootIds();

  BtrfsImage volume_{"/volume1"};
  BtrfsToolDouble tool_;
  ModuleLoader module_{ModulePath()};
};

}  // namespace vela::test

#endif  // VELA_TESTS_SUPPORT_SHARE_FIXTURE_H_
