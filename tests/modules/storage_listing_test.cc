// The storage listing module, loaded and called as the host does (through
// the command-line request runner), on a loopback btrfs volume.
#include <gtest/gtest.h>
#include <json/json.h>

#include <memory>

#include "support/btrfs_image.h"
#include "support/command.h"
#include "support/machine_image.h"

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

TEST(StorageListing, VolumesSharesAndSnapshotsOfAVolumeMountedAtItsPath) {
  BtrfsImage volume("/volume2");
  MustRun({VELA_TEST_VELA_SHARE_PATH, "create", "2", "docs"});
  MustRun({VELA_TEST_VELA_SHARE_PATH, "create", "2", "empty"});
  const std::string first = MustRun({VELA_TEST_VELA_SHARE_PATH, "snapshot", "docs"});
  WaitForNextSecond();
  const std::string last = MustRun({VELA_TEST_VELA_SHARE_PATH, "snapshot", "docs"});

  const Json::Value volumes = Call("VELA.Storage.Volume")["data"]["volumes"];
  ASSERT_EQ(1u, volumes.size());
  EXPECT_EQ(2, volumes[0]["volume"].asInt());
  EXPECT_EQ("btrfs", volumes[0]["fs_type"].asString());
  EXPECT_FALSE(volumes[0]["adopted"].asBool());
  EXPECT_GT(volumes[0]["size_bytes"].asUInt64(), volumes[0]["free_bytes"].asUInt64());

  const Json::Value snapshots = Call("VELA.Storage.Share.Snapshot", R"({"share_name":"docs"})")["data"]["snapshots"];
  ASSERT_EQ(2u, snapshots.size());
  EXPECT_EQ(first, snapshots[0]["name"].asString() + "\n");
  EXPECT_EQ(last, snapshots[1]["name"].asString() + "\n");
  for (const Json::Value& snapshot : snapshots) {
    const std::string path = snapshot["path"].asString();
    EXPECT_EQ(0u, path.find("/volume2/@snapshots/docs/GMT")) << path;
    EXPECT_EQ(CreationTime(path), snapshot["time"].asInt64());
    EXPECT_EQ("vela-share", snapshot["tool"].asString());
    EXPECT_TRUE(snapshot["read_only"].asBool());
    EXPECT_EQ(std::stoull(MustRun({"btrfs", "inspect-internal", "rootid", path})), snapshot["subvol_id"].asUInt64());
  }

  const Json::Value shares = Call("VELA.Storage.Share")["data"]["shares"];
  ASSERT_EQ(2u, shares.size());
  EXPECT_EQ("docs", shares[0]["name"].asString());
  EXPECT_EQ("/volume2/docs", shares[0]["path"].asString());
  EXPECT_EQ(2, shares[0]["snapshot_count"].asInt());
  EXPECT_EQ(snapshots[0]["time"], shares[0]["first_snapshot_time"]);
  EXPECT_EQ(snapshots[1]["time"], shares[0]["last_snapshot_time"]);
  EXPECT_LT(shares[0]["first_snapshot_time"].asInt64(), shares[0]["last_snapshot_time"].asInt64());
  EXPECT_EQ(0, shares[1]["snapshot_count"].asInt());
  EXPECT_FALSE(shares[1].isMember("first_snapshot_time"));

  EXPECT_EQ(0u, Call("VELA.Storage.Share.Snapshot", R"({"share_name":"empty"})")["data"]["snapshots"].size());
  EXPECT_EQ(8, Call("VELA.Storage.Share.Snapshot", R"({"share_name":"nope"})")["error"]["code"].asInt());
  EXPECT_EQ(3, Call("VELA.Storage.Share.Snapshot", R"({"share_name":"../docs"})")["error"]["code"].asInt());
  EXPECT_EQ(3, Call("VELA.Storage.Share.Snapshot")["error"]["code"].asInt());
}

}  // namespace
}  // namespace vela::test
