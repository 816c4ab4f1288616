// The storage listing module, loaded and called as the host does (through
// the command-line request runner), on a loopback btrfs volume.
#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>

#include "support/btrfs_image.h"
#include "support/command.h"

namespace vela::test {
namespace {

Json::Value Call(const std::string& api, const std::string& params = "{}") {
  const CommandResult result =
      RunCommand({VELA_TEST_RUNNER_PATH, "--module", VELA_TEST_STORAGE_MODULE_PATH, api, "1", "list", params});
  Json::Value answer;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  reader->parse(result.out.data(), result.out.data() + result.out.size(), &answer, nullptr);
  return answer;
}

TEST(StorageListing, VolumesSharesAndSnapshotsWithTheirTimesAndSubvolumeIds) {
  BtrfsImage volume("/volume2");
  MustRun({VELA_TEST_VELA_SHARE_PATH, "create", "2", "docs"});
  MustRun({VELA_TEST_VELA_SHARE_PATH, "create", "2", "empty"});
  // Taken out of order; listed oldest first.
  MustRun({VELA_TEST_VELA_SHARE_PATH, "snapshot", "docs", "GMT-2024.03.06-10.00.00"});
  MustRun({VELA_TEST_VELA_SHARE_PATH, "snapshot", "docs", "GMT+08-2024.03.05-17.04.09"});

  const Json::Value volumes = Call("VELA.Storage.Volume")["data"]["volumes"];
  ASSERT_EQ(1u, volumes.size());
  EXPECT_EQ(2, volumes[0]["volume"].asInt());
  EXPECT_EQ("btrfs", volumes[0]["fs_type"].asString());
  EXPECT_GT(volumes[0]["size_bytes"].asUInt64(), volumes[0]["free_bytes"].asUInt64());

  const Json::Value shares = Call("VELA.Storage.Share")["data"]["shares"];
  ASSERT_EQ(2u, shares.size());
  EXPECT_EQ("docs", shares[0]["name"].asString());
  EXPECT_EQ(2, shares[0]["snapshot_count"].asInt());
  EXPECT_EQ(1709629449, shares[0]["first_snapshot_time"].asInt64());
  EXPECT_EQ(1709719200, shares[0]["last_snapshot_time"].asInt64());
  EXPECT_EQ(0, shares[1]["snapshot_count"].asInt());
  EXPECT_FALSE(shares[1].isMember("first_snapshot_time"));

  const Json::Value snapshots = Call("VELA.Storage.Share.Snapshot", R"({"share_name":"docs"})")["data"]["snapshots"];
  ASSERT_EQ(2u, snapshots.size());
  EXPECT_EQ("GMT+08-2024.03.05-17.04.09", snapshots[0]["name"].asString());
  EXPECT_EQ(1709629449, snapshots[0]["time"].asInt64());
  for (const Json::Value& snapshot : snapshots) {
    const std::string shown = MustRun({"btrfs", "inspect-internal", "rootid",
                                       "/volume2/@snapshots/docs/" + snapshot["name"].asString()});
    EXPECT_EQ(std::stoull(shown), snapshot["subvol_id"].asUInt64());
  }
  // Listing a share without snapshots creates nothing.
  EXPECT_EQ(0u, Call("VELA.Storage.Share.Snapshot", R"({"share_name":"empty"})")["data"]["snapshots"].size());
  EXPECT_NE(0, RunCommand({"test", "-e", "/volume2/@snapshots/empty"}).status);

  EXPECT_EQ(8, Call("VELA.Storage.Share.Snapshot", R"({"share_name":"nope"})")["error"]["code"].asInt());
  EXPECT_EQ(3, Call("VELA.Storage.Share.Snapshot", R"({"share_name":"../docs"})")["error"]["code"].asInt());
  EXPECT_EQ(3, Call("VELA.Storage.Share.Snapshot")["error"]["code"].asInt());
}

}  // namespace
}  // namespace vela::test
