// The space module through its loaded table, on a real loopback btrfs
// volume: with the real size provider its figures are the kernel's quota
// groups; with the tool's double, the calculations it cannot answer for.
#include <gtest/gtest.h>
#include <dirent.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <sstream>

#include "size_provider/dataset.h"
#include "support/command.h"
#include "support/sandbox_mounts.h"
#include "support/scratch_dir.h"
#include "support/share_fixture.h"
#include "support/syslog_capture.h"

namespace vela::test {
namespace {

constexpr char kShareResults[] = "/usr/local/velabtrfssnapusage/share_task_result/";

class SpaceModule : public ShareFixture {
 protected:
  std::string Space(const std::string& method, const std::string& params) {
    return Answer(space_.CallApi("VELA.Snap.Usage.Space", method, params));
  }
  Json::Value SpaceData(const std::string& method, const std::string& params) {
    const VELA::APIResponse response = space_.CallApi("VELA.Snap.Usage.Space", method, params);
    EXPECT_TRUE(response.IsSuccess()) << method << " " << params << ": " << Answer(response);
    return response.GetData();
  }
  Json::Value Freed(const std::string& share, const std::vector<uint64_t>& ids) {
    Json::Value params;
    params["share_name"] = share;
    for (uint64_t id : ids) params["subvol_ids"].append(static_cast<Json::UInt64>(id));
    return SpaceData("freed", Compact(params));
  }
  // Names of the files in a directory, "." and ".." aside.
  static std::vector<std::string> Entries(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
      while (const dirent* entry = readdir(d)) {
        if (entry->d_name[0] != '.' || (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)) {
          names.push_back(entry->d_name);
        }
      }
      closedir(d);
    }
    return names;
  }

  ModuleLoader space_{VELA_TEST_SPACE_MODULE_PATH};
};

TEST_F(SpaceModule, AnySetFreesWhatTheKernelsQuotaGroupSaysAndRowsOutliveTheirSnapshotsUntilClean) {
  ASSERT_EQ("", BindInto(VELA_TEST_SIZE_PROVIDER_PATH, BtrfsToolDouble::ToolPath()));
  // Four snapshots: data in one snapshot only (d/solo in the third), in
  // several, in the live share, in another share (a reflink), a partly
  // overwritten extent, a preallocated one, a reflink within the share.
  volume_.CreateSubvolume("docs");
  volume_.CreateSubvolume("other");
  const std::string churn[] = {
      "cd /volume1/docs && for f in 1 2 3 4 5; do head -c 300000 /dev/urandom > a$f; done",
      "cd /volume1/docs && rm a1 && head -c 200000 /dev/urandom > b1 &&"
      " dd if=/dev/urandom of=a2 bs=4096 count=20 conv=notrunc status=none && cp --reflink=always a3 ../other/a3",
      "cd /volume1/docs && rm b1 && mkdir d && head -c 400000 /dev/urandom > d/solo && fallocate -l 1M p",
      "cd /volume1/docs && rm d/solo a3 a4 && cp --reflink=always a5 a5copy && head -c 100000 /dev/urandom >> a5"};
  for (const std::string& step : churn) {
    MustRun({"sh", "-c", step});
    Snapshot("docs");
  }
  const std::vector<TakenSnapshot>& taken = snaps_["docs"];
  EXPECT_EQ("ok null", Call("start", StartParams("docs", taken.front().time, taken.back().time + 1)));
  ASSERT_EQ("done 0", WaitForEnd("docs"));

  // One row per snapshot, named and accumulated as the report has them.
  const Json::Value report = module_.Call("get_report", R"({"share_name":"docs"})").GetData()["snap_list"];
  const Json::Value got = SpaceData("get", R"({"share_name":"docs"})");
  EXPECT_EQ("done", got["status"].asString());
  EXPECT_FALSE(got.isMember("reason"));
  const Json::Value rows = got["snap_list"];
  ASSERT_EQ(4u, rows.size()) << got;
  std::vector<uint64_t> ids;
  for (unsigned i = 0; i < 4; ++i) {
    EXPECT_EQ(report[i]["subvol_id"], rows[i]["subvol_id"]);
    EXPECT_EQ(report[i]["time"], rows[i]["time"]);
    EXPECT_EQ(report[i]["accum_usage"], rows[i]["accum_bytes"]);
    EXPECT_EQ(taken[i].path, rows[i]["path"].asString());
    EXPECT_TRUE(rows[i]["exists"].asBool());
    ids.push_back(rows[i]["subvol_id"].asUInt64());
  }

  // Sets of snapshots, random ones and not only prefixes, then each pair
  // of neighbours for what a snapshot adds to the one before it.
  std::mt19937 random(11);
  std::vector<std::vector<uint64_t>> sets = {{ids[2]}, {ids[0], ids[3]}};
  while (sets.size() < 7) {
    std::vector<uint64_t> set;
    for (uint64_t id : ids) {
      if (random() % 2 == 0) set.push_back(id);
    }
    if (!set.empty() && std::find(sets.begin(), sets.end(), set) == sets.end()) sets.push_back(set);
  }
  const size_t firstPair = sets.size();
  for (size_t i = 1; i < ids.size(); ++i) sets.push_back({ids[i - 1], ids[i]});
  std::vector<Json::Value> freed;
  for (const auto& set : sets) {
    freed.push_back(Freed("docs", set));
    EXPECT_EQ(freed.back()["freed_bytes"].asUInt64(),
              freed.back()["data_bytes"].asUInt64() + freed.back()["metadata_bytes"].asUInt64());
  }
  // What only the third snapshot keeps is its top file, named as it sees it.
  const Json::Value& onlyThird = freed[0]["files"];
  ASSERT_FALSE(onlyThird.empty()) << freed[0];
  EXPECT_EQ("d/solo", onlyThird[0]["path"].asString());
  EXPECT_EQ(ids[2], onlyThird[0]["subvol_id"].asUInt64());
  EXPECT_EQ(401408u, onlyThird[0]["bytes"].asUInt64()) << "400000 bytes in whole sectors";
  EXPECT_EQ(taken[2].name, onlyThird[0]["time"].asString());
  EXPECT_TRUE(freed[0]["files_complete"].asBool());

  // A plan's proposal frees what its set frees.
  const Json::Value plan =
      SpaceData("plan", R"({"share_name":"docs","bytes":)" + freed[0]["freed_bytes"].asString() + "}");
  const Json::Value& fewest = plan["fewest_snapshots"];
  EXPECT_TRUE(fewest["reached"].asBool()) << plan;
  std::vector<uint64_t> planned;
  for (const Json::Value& id : fewest["subvol_ids"]) planned.push_back(id.asUInt64());
  EXPECT_EQ(fewest["freed_bytes"], Freed("docs", planned)["freed_bytes"]);

  // The same from a terminal: the table in bytes, and what deleting the
  // third snapshot frees with its file where it lies.
  const CommandResult table = RunCommand({VELA_TEST_VELA_SHARE_PATH, "space", "docs", "--bytes"});
  ASSERT_EQ(0, table.status) << table.err;
  std::istringstream lines(table.out);
  std::string line;
  std::getline(lines, line);
  for (unsigned i = 0; i < 4 && std::getline(lines, line); ++i) {
    std::ostringstream expected;
    expected << rows[i]["time"].asString() << " " << rows[i]["alone_bytes"] << " " << rows[i]["added_bytes"] << " "
             << rows[i]["accum_bytes"] << " " << taken[i].path;
    std::istringstream words(line);
    std::string word, seen;
    while (words >> word) seen += (seen.empty() ? "" : " ") + word;
    EXPECT_EQ(expected.str(), seen);
  }
  const CommandResult third = RunCommand({VELA_TEST_VELA_SHARE_PATH, "space", "docs", "--if-deleted", taken[2].name});
  EXPECT_EQ(0, third.status) << third.err;
  EXPECT_NE(std::string::npos, third.out.find(taken[2].path + "/d/solo")) << third.out;

  // The kernel's figures on a byte copy of the volume: quota group 1/k
  // holds set k.
  volume_.Unmount();
  {
    ScratchDir scratch;
    MustRun({"cp", "--sparse=always", volume_.ImagePath(), scratch / "copy.img"});
    MustRun({"mount", "-t", "btrfs", "-o", "loop", scratch / "copy.img", "/volume2"});
    const auto groups = QuotaGroupsOfSets("/volume2", sets);
    MustRun({"umount", "/volume2"});
    for (size_t k = 0; k < sets.size(); ++k) {
      EXPECT_EQ(groups.at("1/" + std::to_string(k + 1)).exclusive, freed[k]["freed_bytes"].asUInt64())
          << testing::PrintToString(sets[k]);
    }
    for (size_t i = 0; i < ids.size(); ++i) {
      const auto alone = groups.at("0/" + std::to_string(ids[i]));
      EXPECT_EQ(alone.exclusive, rows[static_cast<unsigned>(i)]["alone_bytes"].asUInt64()) << i;
      const uint64_t added = i == 0 ? alone.referenced
                                    : groups.at("1/" + std::to_string(firstPair + i)).referenced -
                                          groups.at("0/" + std::to_string(ids[i - 1])).referenced;
      EXPECT_EQ(added, rows[static_cast<unsigned>(i)]["added_bytes"].asUInt64()) << i;
    }
  }
  volume_.Mount();

  // A snapshot deleted since keeps its row and figures, without a path.
  MustRun({"btrfs", "subvolume", "delete", taken[1].path});
  const Json::Value after = SpaceData("get", R"({"share_name":"docs"})")["snap_list"];
  ASSERT_EQ(4u, after.size());
  EXPECT_FALSE(after[1]["exists"].asBool());
  EXPECT_EQ("", after[1]["path"].asString());
  EXPECT_EQ(rows[1]["alone_bytes"], after[1]["alone_bytes"]);
  EXPECT_TRUE(after[2]["exists"].asBool());
  EXPECT_EQ(freed[1]["freed_bytes"], Freed("docs", sets[1])["freed_bytes"]);

  // An ID outside the calculation is a bad parameter.
  EXPECT_EQ("error 3", Space("freed", R"({"share_name":"docs","subvol_ids":[)" + std::to_string(ids[0]) + ",5]}"));

  // A map that does not parse answers 1 and says why; the report is as it was.
  const std::vector<std::string> kept = Entries(kShareResults + std::string("docs"));
  std::string mapFile;
  for (const std::string& name : kept) {
    if (name.size() > 10 && name.compare(name.size() - 10, 10, ".space_map") == 0) mapFile = name;
  }
  ASSERT_NE("", mapFile) << testing::PrintToString(kept);
  std::ofstream(kShareResults + std::string("docs/") + mapFile) << "SQLite format 3, or not";
  ClearSyslog();
  EXPECT_EQ("error 1", Space("get", R"({"share_name":"docs"})"));
  EXPECT_EQ("error 1", Space("plan", R"({"share_name":"docs","bytes":1})"));
  EXPECT_EQ(2u, FindSyslog(LOG_ERR, "The space map of share [docs] cannot be used: the space map").size())
      << DumpSyslog();
  EXPECT_EQ(report, module_.Call("get_report", R"({"share_name":"docs"})").GetData()["snap_list"]);

  // Clean takes the map with the results; nothing of the task is left.
  EXPECT_EQ("ok null", Call("clean", R"({"share_name":"docs"})"));
  struct stat st;
  EXPECT_NE(0, stat((kShareResults + std::string("docs")).c_str(), &st));
  EXPECT_EQ(std::vector<std::string>{}, Entries("/run/velabtrfssnapusage/task_result"));
  EXPECT_EQ("error 8", Space("get", R"({"share_name":"docs"})"));
}

TEST_F(SpaceModule, ProgressIsAsRecordedFailuresSayWhyAndCalculationsWithoutAMapAnswerEight) {
  for (const char* params : {R"({})", R"({"share_name":""})", R"({"share_name":"../share1"})", R"({"share_name":5})"}) {
    EXPECT_EQ("error 3", Space("get", params)) << params;
  }
  for (const char* ids : {"", R"(,"subvol_ids":[])", R"(,"subvol_ids":["257"])", R"(,"subvol_ids":[-1])",
                          R"(,"subvol_ids":[1.5])", R"(,"subvol_ids":257)"}) {
    EXPECT_EQ("error 3", Space("freed", std::string(R"({"share_name":"share1")") + ids + "}")) << ids;
  }
  for (const char* plan : {"", R"(,"bytes":-1)", R"(,"bytes":"5")", R"(,"bytes":5,"keep_newest":"x")"}) {
    EXPECT_EQ("error 3", Space("plan", std::string(R"({"share_name":"share1")") + plan + "}")) << plan;
  }
  // No calculation yet.
  EXPECT_EQ("error 8", Space("get", R"({"share_name":"share1"})"));
  EXPECT_EQ("error 8", Space("plan", R"({"share_name":"share1","bytes":1})"));

  // A running one: its progress as recorded, where status raises it.
  tool_.Script({"exclusive 600 bytes", "processed 300 bytes", "@sleep 20000", "@subvols 100"});
  const std::vector<TakenSnapshot>& taken = snaps_["share1"];
  const std::string start = StartParams("share1", taken.front().time, taken.back().time + 1);
  EXPECT_EQ("ok null", Call("start", start));
  Json::Value running;
  for (int i = 0; i < 500 && running["processed_in_bytes"].asUInt64() != 300; ++i) {
    usleep(10000);
    running = SpaceData("get", R"({"share_name":"share1"})");
  }
  EXPECT_EQ("process", running["status"].asString()) << running;
  EXPECT_EQ(300u, running["processed_in_bytes"].asUInt64());
  EXPECT_EQ(600u, running["estimated_in_bytes"].asUInt64());
  EXPECT_EQ(Json::Value(Json::arrayValue), running["snap_list"]);
  const Json::Value status =
      module_.Call("status", R"({"additional":["processed_in_bytes","estimated_in_bytes"]})").GetData();
  EXPECT_EQ(600u, status["share_list"][0]["processed_in_bytes"].asUInt64());
  EXPECT_EQ("error 8", Space("freed", R"({"share_name":"share1","subvol_ids":[257]})"));
  EXPECT_EQ("ok null", Call("cancel", R"({"share_name":"share1"})"));
  EXPECT_EQ("stop 12", WaitForEnd("share1"));
  const Json::Value stopped = SpaceData("get", R"({"share_name":"share1"})");
  EXPECT_EQ("stop", stopped["status"].asString());
  EXPECT_EQ(12, stopped["error_code"].asInt());
  EXPECT_EQ("it was stopped on request", stopped["reason"].asString());

  // A tool that gives fewer figures than snapshots: a failure, in words.
  tool_.Script({"subvol(" + std::to_string(taken[0].id) + ") 1 bytes"});
  EXPECT_EQ("ok null", Call("start", start));
  EXPECT_EQ("fail 1", WaitForEnd("share1"));
  const Json::Value failed = SpaceData("get", R"({"share_name":"share1"})");
  EXPECT_EQ("fail", failed["status"].asString());
  EXPECT_EQ(1, failed["error_code"].asInt());
  EXPECT_EQ(0u, failed["reason"].asString().find("the size tool failed")) << failed;
  EXPECT_NE(std::string::npos, failed["reason"].asString().find("no figure for " + std::to_string(taken[1].id)));

  // Done, by a tool that wrote no map: the report stands, the map's
  // questions have no answer.
  tool_.Script({"@subvols 100"});
  EXPECT_EQ("ok null", Call("start", start));
  EXPECT_EQ("done 0", WaitForEnd("share1"));
  EXPECT_EQ("error 8", Space("get", R"({"share_name":"share1"})"));
  EXPECT_EQ("error 8", Space("freed", R"({"share_name":"share1","subvol_ids":[257]})"));
  EXPECT_EQ(3u, module_.Call("get_report", R"({"share_name":"share1"})").GetData()["snap_list"].size());
  EXPECT_EQ(1, RunCommand({VELA_TEST_VELA_SHARE_PATH, "space", "share1"}).status);
  EXPECT_EQ(2, RunCommand({VELA_TEST_VELA_SHARE_PATH, "space", "share1", "--plan", "5X"}).status);
}

}  // namespace
}  // namespace vela::test
