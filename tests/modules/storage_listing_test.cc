// The storage listing module, loaded and called as the host does (through
// the command-line request runner, or in this process where its log lines
// matter), on a loopback btrfs volume.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <syslog.h>

#include <memory>

#include "support/btrfs_image.h"
#include "support/command.h"
#include "support/machine_image.h"
#include "support/module_loader.h"
#include "support/syslog_capture.h"

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

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::string Line(const std::string& printed) { return printed.substr(0, printed.find('\n')); }

class StorageModule {
 public:
  Json::Value Call(const std::string& api, const std::string& method, const std::string& params) const {
    return module_.CallApi(api, method, params, "alice").ToJson();
  }
  Json::Value Snapshots(const std::string& share) const {
    return Call("VELA.Storage.Share.Snapshot", "list", R"({"share_name":")" + share + R"("})")["data"]["snapshots"];
  }
  Json::Value Delete(const std::string& params) const { return Call("VELA.Storage.Share.Snapshot", "delete", params); }

 private:
  ModuleLoader module_{VELA_TEST_STORAGE_MODULE_PATH};
};

TEST(StorageListing, DeleteRemovesOnlyReadOnlySnapshotsOfTheShareAndLogsWhoDidIt) {
  BtrfsImage volume("/volume2");
  MustRun({VELA_TEST_VELA_SHARE_PATH, "create", "2", "docs"});
  MustRun({VELA_TEST_VELA_SHARE_PATH, "create", "2", "other"});
  MustRun({VELA_TEST_VELA_SHARE_PATH, "snapshot", "other"});
  WaitForNextSecond();
  const std::string first = Line(MustRun({VELA_TEST_VELA_SHARE_PATH, "snapshot", "docs"}));
  const std::string second = Line(MustRun({VELA_TEST_VELA_SHARE_PATH, "snapshot", "docs"}));
  const std::string kept = Line(MustRun({VELA_TEST_VELA_SHARE_PATH, "snapshot", "docs"}));
  MustRun({"btrfs", "-q", "subvolume", "snapshot", "/volume2/docs", "/volume2/docs-writable"});
  const StorageModule storage;
  const Json::Value before = storage.Snapshots("docs");
  ASSERT_EQ(4u, before.size()) << before;
  const Json::Value writable = before[3];
  ASSERT_FALSE(writable["read_only"].asBool()) << before;
  const Json::Value others = storage.Snapshots("other");
  ASSERT_EQ(1u, others.size());
  const std::string othersName = others[0]["name"].asString();
  for (const Json::Value& snapshot : before) ASSERT_NE(othersName, snapshot["name"].asString());

  // Refused whole, nothing deleted: names that are no snapshot's, and no share.
  for (const char* params : {R"({"share_name":"docs","names":["../other"]})",
                             R"({"share_name":"docs","names":[")" "GMT-2024.01.01-00.00.00/.." R"("]})",
                             R"({"share_name":"docs","names":[".."]})", R"({"share_name":"docs","names":[""]})",
                             R"({"share_name":"docs","names":[]})", R"({"share_name":"docs","names":[7]})",
                             R"({"share_name":"docs","names":"x"})", R"({"names":["x"]})",
                             R"({"share_name":"../docs","names":["x"]})"}) {
    EXPECT_EQ(3, storage.Delete(params)["error"]["code"].asInt()) << params;
  }
  EXPECT_EQ(8, storage.Delete(R"({"share_name":"nosuch","names":["x"]})")["error"]["code"].asInt());
  ASSERT_EQ(before, storage.Snapshots("docs"));

  // The default subvolume is one the file system will not let go.
  const std::string keptId = storage.Snapshots("docs")[2]["subvol_id"].asString();
  MustRun({"btrfs", "subvolume", "set-default", keptId, "/volume2"});

  // A listing's name with another ID than the caller's is not deleted.
  EXPECT_EQ("not_found", storage.Delete(R"({"share_name":"docs","names":[")" + first + R"("],"subvol_ids":[)" +
                                        keptId + "]}")["data"]["results"][0]["reason"].asString());
  EXPECT_EQ(3, storage.Delete(R"({"share_name":"docs","names":[")" + first + R"("],"subvol_ids":[]})")["error"]["code"]
                   .asInt());
  ASSERT_EQ(before, storage.Snapshots("docs"));

  ClearSyslog();
  // The second of this second loses its "_ID" once the first is gone: its
  // listed name still finds it.
  const Json::Value answer = storage.Delete(R"({"share_name":"docs","names":[")" + first + R"(",")" +
                                            writable["name"].asString() + R"(","docs",")" + othersName + R"(",")" +
                                            kept + R"(",")" + second + R"("]})");
  ASSERT_TRUE(answer["success"].asBool()) << answer;
  const Json::Value& results = answer["data"]["results"];
  ASSERT_EQ(6u, results.size()) << answer;
  const char* expected[] = {"", "not_read_only", "not_found", "not_found", "in_use", ""};
  for (Json::ArrayIndex i = 0; i < results.size(); ++i) {
    EXPECT_EQ(expected[i][0] == '\0', results[i]["deleted"].asBool()) << results[i];
    EXPECT_EQ(expected[i], results[i]["reason"].asString()) << results[i];
  }
  EXPECT_EQ(before[0]["path"], results[0]["path"]);
  EXPECT_EQ(before[0]["subvol_id"], results[0]["subvol_id"]);
  EXPECT_FALSE(Exists(before[0]["path"].asString()));
  EXPECT_FALSE(Exists(before[1]["path"].asString()));
  EXPECT_TRUE(Exists("/volume2/docs-writable"));
  EXPECT_TRUE(Exists("/volume2/docs"));
  EXPECT_EQ(others, storage.Snapshots("other"));
  const Json::Value after = storage.Snapshots("docs");
  ASSERT_EQ(2u, after.size()) << after;
  EXPECT_EQ(before[2]["subvol_id"], after[0]["subvol_id"]);
  EXPECT_EQ(writable["subvol_id"], after[1]["subvol_id"]);

  EXPECT_EQ(1u, FindSyslog(LOG_NOTICE, "storage: alice deleted snapshot " + first + " of share docs (subvolume " +
                                           before[0]["subvol_id"].asString() + " at " + before[0]["path"].asString() +
                                           ", taken by vela-share)")
                    .size())
      << DumpSyslog();
  EXPECT_EQ(1u, FindSyslog(LOG_WARNING, "storage: alice asked to delete snapshot docs of share docs: refused, the "
                                        "share has no such snapshot now")
                    .size())
      << DumpSyslog();
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "storage: alice could not delete snapshot " + kept + " of share docs").size())
      << DumpSyslog();
}

}  // namespace
}  // namespace vela::test
