// The whole road on a machine whose snapshots snapper, Timeshift and btrbk
// took, its file system mounted through its root subvolume "@" alone:
// adopted with vela-share, listed by the storage module, and weighed
// through velawebapi-call with the real size provider. The figures are
// those of the kernel's quota groups.
#include <gtest/gtest.h>
#include <json/json.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "size_provider/dataset.h"
#include "support/btrfs_tool_double.h"
#include "support/command.h"
#include "support/machine_image.h"
#include "support/sandbox_mounts.h"
#include "support/scratch_dir.h"

namespace vela::test {
namespace {

Json::Value Parse(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
  return value;
}

Json::Value Call(const char* module, const std::string& api, const std::string& method,
                 const std::string& params = "{}") {
  return Parse(RunCommand({VELA_TEST_RUNNER_PATH, "--module", module, api, "1", method, params}).out);
}

Json::Value Storage(const std::string& api, const std::string& params = "{}") {
  return Call(VELA_TEST_STORAGE_MODULE_PATH, api, "list", params)["data"];
}

Json::Value Usage(const std::string& method, const std::string& params) {
  return Call(VELA_TEST_MODULE_PATH, "VELA.Snap.Usage.Share", method, params);
}

TEST(Machine, AdoptedThroughItsRootListedAndWeighedToTheKernelsFigures) {
  MachineImage machine;
  ASSERT_EQ("", BindInto(VELA_TEST_SIZE_PROVIDER_PATH, BtrfsToolDouble::ToolPath()));
  ASSERT_EQ("/volume1\n", MustRun({VELA_TEST_VELA_SHARE_PATH, "volume", "add", machine.RootPath()}));

  const Json::Value volumes = Storage("VELA.Storage.Volume")["volumes"];
  ASSERT_EQ(1u, volumes.size());
  EXPECT_TRUE(volumes[0]["adopted"].asBool());
  EXPECT_EQ("/volume1", volumes[0]["path"].asString());
  EXPECT_GT(volumes[0]["size_bytes"].asUInt64(), volumes[0]["free_bytes"].asUInt64());
  EXPECT_GT(volumes[0]["free_bytes"].asUInt64(), 0u);

  const Json::Value shares = Storage("VELA.Storage.Share")["shares"];
  ASSERT_EQ(3u, shares.size()) << shares;
  const char* paths[] = {"/volume1/@", "/volume1/@home", "/volume1/@/srv/data"};
  const unsigned counts[] = {2, 5, 0};
  for (unsigned i = 0; i < 3; ++i) {
    EXPECT_EQ(paths[i], shares[i]["path"].asString()) << shares[i];
    EXPECT_EQ(counts[i], shares[i]["snapshot_count"].asUInt()) << shares[i];
  }

  const Json::Value snapshots =
      Storage("VELA.Storage.Share.Snapshot", R"({"share_name":"@home"})")["snapshots"];
  ASSERT_EQ(MachineImage::HomeSnapshots().size(), snapshots.size()) << snapshots;
  const char* tools[] = {"snapper", "timeshift", "btrbk", "snapper", "btrbk"};
  std::vector<uint64_t> ids;
  for (unsigned i = 0; i < snapshots.size(); ++i) {
    const std::string path = "/volume1/" + MachineImage::HomeSnapshots()[i];
    EXPECT_EQ(path, snapshots[i]["path"].asString());
    EXPECT_EQ(tools[i], snapshots[i]["tool"].asString());
    EXPECT_EQ(RootId(path), snapshots[i]["subvol_id"].asUInt64());
    ids.push_back(snapshots[i]["subvol_id"].asUInt64());
  }
  EXPECT_EQ(shares[1]["first_snapshot_time"], snapshots[0]["time"]);

  // Every snapshot of @home, first to last (equal bounds, when all were
  // taken in one second, select every one too).
  const std::string range = R"({"range_start":)" + snapshots[0]["time"].asString() + R"(,"range_end":)" +
                            snapshots[4]["time"].asString() + "}";
  ASSERT_EQ(Parse(R"({"success":true,"data":null})"),
            Usage("start", R"({"share_name":"@home","range":)" + range + "}"));
  std::string state;
  for (int i = 0; i < 600 && state != "done" && state != "fail"; ++i) {
    usleep(50000);
    const Json::Value status = Usage("status", "{}");
    state = status["data"]["share_list"].size() == 1 ? status["data"]["share_list"][0]["status"].asString() : "";
  }
  ASSERT_EQ("done", state);
  const Json::Value report = Usage("get_report", R"({"share_name":"@home"})")["data"]["snap_list"];
  ASSERT_EQ(snapshots.size(), report.size()) << report;
  std::vector<uint64_t> accumulated;
  for (unsigned i = 0; i < report.size(); ++i) {
    EXPECT_EQ(snapshots[i]["name"], report[i]["time"]);
    EXPECT_EQ(ids[i], report[i]["subvol_id"].asUInt64());
    accumulated.push_back(report[i]["accum_usage"].asUInt64());
  }

  // The kernel's figures on a copy, the file system unmounted everywhere:
  // quota group 1/k holds the k oldest snapshots, and its exclusive bytes
  // are what deleting them frees.
  ASSERT_EQ("", MustRun({VELA_TEST_VELA_SHARE_PATH, "volume", "remove", "1"}));
  machine.UnmountRoot();
  ScratchDir scratch;
  MustRun({"cp", "--sparse=always", machine.ImagePath(), scratch / "copy.img"});
  MustRun({"mount", "-t", "btrfs", "-o", "loop", scratch / "copy.img", "/volume2"});
  const auto groups = QuotaGroupsOfPrefixes("/volume2", {ids});
  MustRun({"umount", "/volume2"});
  for (size_t k = 1; k <= ids.size(); ++k) {
    EXPECT_EQ(groups.at("1/" + std::to_string(k)).exclusive, accumulated[k - 1]) << "the " << k << " oldest";
  }
  // Not by accident: the homes' files of 150 to 300 kB lived in the
  // snapshots alone.
  EXPECT_GT(accumulated.back(), 600000u);
}

}  // namespace
}  // namespace vela::test
