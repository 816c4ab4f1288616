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
#include <vector>

#include "support/btrfs_image.h"
#include "support/btrfs_tool_double.h"
#include "support/machine_image.h"
#include "support/module_loader.h"

namespace vela::test {

constexpr long kT0 = 1709629449;  // 2024-03-05 09:04:09 UTC: before every snapshot

// "ok " + the data as compact JSON, "error " + the code, or "unanswered".
std::string Answer(const VELA::APIResponse& response);
std::string Compact(const Json::Value& value);
// Parameters of a start over [start, end].
std::string StartParams(const std::string& share, long start, long end);

// A snapshot taken by a test, as listings show it.
struct TakenSnapshot {
  std::string name;  // its name in listings: its creation time
  long time = 0;     // its creation time
  std::string path;  // where it lies
  unsigned long long id = 0;
};

class ShareFixture : public testing::Test {
 protected:
  // share1: three snapshots (snaps_["share1"], oldest first); share2: one.
  void SetUp() override;
  // Every calculation must have ended by itself: nothing may be left.
  void TearDown() override;

  // Takes a read-only snapshot of the share and keeps it in snaps_.
  TakenSnapshot Snapshot(const std::string& share);
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
  std::map<std::string, std::vector<TakenSnapshot>> snaps_;
  BtrfsToolDouble tool_;
  ModuleLoader module_{ModulePath()};
};

}  // namespace vela::test

#endif  // VELA_TESTS_SUPPORT_SHARE_FIXTURE_H_
