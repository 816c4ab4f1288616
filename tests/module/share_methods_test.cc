// start, status, get_report, cancel and clean through the loaded module, on
// a real loopback btrfs volume, with the btrfs tool's double computing, and
// once with the real size provider.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <ctime>
#include <map>
#include <sstream>

#include "support/command.h"
#include "support/fork_child.h"
#include "support/sandbox_mounts.h"
#include "support/scratch_dir.h"
#include "support/share_fixture.h"
#include "support/syslog_capture.h"
#include "velabtrfssnapusage/json_file.h"
#include "velabtrfssnapusage/share_task_status.h"
#include "velabtrfssnapusage/task_status.h"

namespace vela::test {
namespace {

constexpr char kMap[] = "/usr/local/velabtrfssnapusage/share_snap_cal_map";

using ShareMethods = ShareFixture;

TEST_F(ShareMethods, TheWholeRoadFromStartToClean) {
  EXPECT_EQ("ok {\"share_list\":[]}", Call("status", R"({"additional":["processed_in_bytes"]})"));
  tool_.Script({"exclusive 600 bytes", "processed 300 bytes", "@sleep 600", "@subvols 100",
                "processed 600 bytes"});
  const std::vector<TakenSnapshot>& taken = snaps_["share1"];
  const long from = taken.front().time - 60, to = taken.back().time + 60;
  EXPECT_EQ("ok null", Call("start", StartParams("share1", from, to)));
  // Status shows the run while it goes on, then its end.
  std::vector<std::string> seen;
  for (int i = 0; i < 500; ++i) {
    const auto status = module_.Call("status", "{}");
    ASSERT_TRUE(status.IsSuccess());
    const std::string state = status.GetData()["share_list"][0]["status"].asString();
    // A share still "ready" is not listed yet.
    if (!state.empty() && (seen.empty() || seen.back() != state)) seen.push_back(state);
    if (state == "done") break;
    usleep(10000);
  }
  EXPECT_EQ((std::vector<std::string>{"process", "done"}), seen);
  EXPECT_EQ("done 0", WaitForEnd("share1"));

  const auto ids = RootIds();
  const std::string snaps = "@snapshots/share1/";
  std::ostringstream expected;
  expected << "ok {\"share_list\":[{\"estimated_in_bytes\":600,\"processed_in_bytes\":600,"
           << "\"range_end\":" << to << ",\"range_start\":" << from
           << ",\"share_name\":\"share1\",\"status\":\"done\"}]}";
  EXPECT_EQ(expected.str(), Call("status", R"({"additional":["processed_in_bytes","estimated_in_bytes",
                                                "range_start","range_end","pid","bogus"]})"));
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "unknow status idx: 3").size());

  const auto report = module_.Call("get_report", R"({"share_name":"share1"})");
  ASSERT_TRUE(report.IsSuccess()) << Answer(report);
  const Json::Value& data = report.GetData();
  EXPECT_EQ("done", data["status"].asString());
  EXPECT_EQ(from, data["range_start"].asInt64());
  EXPECT_LE(data["start_task"].asInt64(), data["end_task"].asInt64());
  ASSERT_EQ(3u, data["snap_list"].size());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(taken[i].name, data["snap_list"][i]["time"].asString());
    EXPECT_EQ(ids.at(snaps + "s" + std::to_string(i)), data["snap_list"][i]["subvol_id"].asUInt64());
    EXPECT_EQ(100u * (i + 1) * (i + 2) / 2, data["snap_list"][i]["accum_usage"].asUInt64())
        << "the running sum of 100, 200, 300";
  }
  // The tool saw exactly share1's snapshots, oldest first, by root ID.
  const auto runs = tool_.Runs();
  ASSERT_EQ(1u, runs.size());
  ASSERT_EQ(11u, runs[0].size());
  EXPECT_EQ(0u, runs[0][5].rfind("/run/velabtrfssnapusage/task_result/", 0)) << runs[0][5];
  EXPECT_EQ((std::vector<std::string>{BtrfsToolDouble::ToolPath(), "subvolume", "size", "-vpm", "--space-map",
                                      runs[0][5], "-r", "/volume1",
                                      std::to_string(ids.at(snaps + "s0")), std::to_string(ids.at(snaps + "s1")),
                                      std::to_string(ids.at(snaps + "s2"))}),
            runs[0]);

  EXPECT_EQ("ok null", Call("clean", R"({"share_name":"share1"})"));
  EXPECT_EQ("ok {\"share_list\":[]}", Call("status", "{}"));
  EXPECT_NE("ok", Call("get_report", R"({"share_name":"share1"})").substr(0, 2));
  struct stat st;
  EXPECT_NE(0, stat("/usr/local/velabtrfssnapusage/share_task_result/share1", &st));
  EXPECT_NE(0, stat("/usr/local/velabtrfssnapusage/share_task_status/share1", &st));
}

TEST_F(ShareMethods, WithTheRealSizeProviderTheReportIsWhatDeletingTheSnapshotsFrees) {
  ASSERT_EQ("", BindInto(VELA_TEST_SIZE_PROVIDER_PATH, BtrfsToolDouble::ToolPath()));
  // A share whose files change between four snapshots: some data lives in
  // one snapshot only, some in several, some also in the live share, and a
  // file of another share shares extents with it.
  volume_.CreateSubvolume("docs");
  volume_.CreateSubvolume("other");
  const std::string churn[] = {
      "for f in 1 2 3 4 5 6; do head -c 300000 /dev/urandom > /volume1/docs/a$f; done",
      "rm /volume1/docs/a1; head -c 200000 /dev/urandom > /volume1/docs/b1;"
      " dd if=/dev/urandom of=/volume1/docs/a2 bs=4096 count=20 conv=notrunc status=none",
      "rm /volume1/docs/a2 /volume1/docs/b1; fallocate -l 1M /volume1/docs/p;"
      " cp --reflink=always /volume1/docs/a3 /volume1/other/a3",
      "rm /volume1/docs/a3 /volume1/docs/a4; head -c 100000 /dev/urandom >> /volume1/docs/a5"};
  for (int i = 0; i < 4; ++i) {
    MustRun({"sh", "-c", churn[i]});
    Snapshot("docs");
  }
  const std::vector<TakenSnapshot>& taken = snaps_["docs"];
  EXPECT_EQ("ok null", Call("start", StartParams("docs", taken.front().time, taken.back().time + 1)));
  EXPECT_EQ("done 0", WaitForEnd("docs"));
  const auto report = module_.Call("get_report", R"({"share_name":"docs"})");
  ASSERT_TRUE(report.IsSuccess()) << Answer(report);
  const Json::Value& rows = report.GetData()["snap_list"];
  ASSERT_EQ(4u, rows.size());

  // The same question asked of the provider directly, by path.
  std::vector<std::string> argv = {VELA_TEST_SIZE_PROVIDER_PATH, "subvolume", "size", "-vm"};
  for (const TakenSnapshot& snapshot : taken) argv.push_back(snapshot.path);
  std::istringstream direct(MustRun(argv));
  const auto ids = RootIds();
  unsigned long long sum = 0;
  for (unsigned i = 0; i < 4; ++i) {
    unsigned long long id = 0, bytes = 0;
    std::string line;
    ASSERT_TRUE(std::getline(direct, line));
    ASSERT_EQ(2, sscanf(line.c_str(), "subvol(%llu) %llu bytes", &id, &bytes)) << line;
    sum += bytes;
    EXPECT_EQ(taken[i].name, rows[i]["time"].asString());
    EXPECT_EQ(ids.at("@snapshots/docs/s" + std::to_string(i)), rows[i]["subvol_id"].asUInt64());
    EXPECT_EQ(id, rows[i]["subvol_id"].asUInt64());
    EXPECT_EQ(sum, rows[i]["accum_usage"].asUInt64()) << taken[i].name;
  }
  // a1, a2 (both versions) and b1 exist only in the snapshots: deleting all
  // four frees at least their 1.1 MB; a3, shared with "other", frees nothing.
  EXPECT_GT(rows[3]["accum_usage"].asUInt64(), 1100000u);
  EXPECT_LT(rows[3]["accum_usage"].asUInt64(), 1900000u);
}

TEST_F(ShareMethods, RangesSelectSnapshotsWithEqualBoundsSelectingAll) {
  // Equal bounds mean no range: every snapshot.
  EXPECT_EQ("ok null", Call("start", StartParams("share1", 5, 5)));
  EXPECT_EQ("done 0", WaitForEnd("share1"));
  EXPECT_EQ(11u, tool_.Runs().at(0).size());
  // One snapshot in range, which is by creation time; share2's snapshot of
  // the same second stays out.
  WaitForNextSecond();
  const TakenSnapshot middle = Snapshot("share1");
  Snapshot("share2");
  WaitForNextSecond();
  WaitForNextSecond();  // past the range's end, which is a second after its start
  Snapshot("share1");
  EXPECT_EQ("ok null", Call("start", StartParams("share1", middle.time, middle.time + 1)));
  EXPECT_EQ("done 0", WaitForEnd("share1"));
  EXPECT_EQ(std::to_string(RootIds().at("@snapshots/share1/s3")), tool_.Runs().at(1).back());
  EXPECT_EQ(9u, tool_.Runs().at(1).size());
  EXPECT_EQ("error 3", Call("start", R"({"share_name":"share1","range":{"range_start":"x","range_end":1}})"));
  EXPECT_EQ(2u, tool_.Runs().size());
}

TEST_F(ShareMethods, TenSimultaneousStartsOfOneShareLetExactlyOneThrough) {
  // The share was left "ready" by a request that died while creating.
  EXPECT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("done 0", WaitForEnd("share1"));
  const std::string task = VelaBtrfsUsage::Utils::GetJsonAttrByPath(kMap)["share1"]["task_id"].asString();
  Json::Value ready;
  ready["status"] = "ready";
  ASSERT_TRUE(VelaBtrfsUsage::Utils::JsonToFile(ready, "/usr/local/velabtrfssnapusage/share_task_status/share1"));
  ASSERT_TRUE(VelaBtrfsUsage::Utils::JsonToFile(ready, "/run/velabtrfssnapusage/task_status/" + task));
  // Long enough that every start meets it running, however slow the machine.
  tool_.Script({"exclusive 600 bytes", "@sleep 30000", "@subvols 100", "processed 600 bytes"});
  int go[2];
  ASSERT_EQ(0, pipe(go));
  ScratchDir dir;
  std::vector<std::unique_ptr<ChildProcess>> starters;
  for (int i = 0; i < 10; ++i) {
    starters.push_back(std::make_unique<ChildProcess>([&, i] {
      char c;
      if (read(go[0], &c, 1) != 1) _exit(2);
      WriteFile(dir / std::to_string(i), Call("start", StartParams("share1", 1, 1)));
    }));
  }
  ASSERT_EQ(10, write(go[1], "gggggggggg", 10));
  std::map<std::string, int> answers;
  for (int i = 0; i < 10; ++i) {
    starters[i]->Wait();
    ++answers[ReadFile(dir / std::to_string(i))];
  }
  EXPECT_EQ((std::map<std::string, int>{{"error 5002", 9}, {"ok null", 1}}), answers);
  // The accepted start answers before its child has run the tool.
  for (int waited = 0; tool_.Runs().size() < 2 && waited < 10000; waited += 10) usleep(10000);
  EXPECT_EQ(2u, tool_.Runs().size());
  EXPECT_EQ("ok null", Call("cancel", R"({"share_name":"share1"})"));
  EXPECT_EQ("stop 12", WaitForEnd("share1"));
}

TEST_F(ShareMethods, DifferentSharesRunSideBySideWhileReadersAlwaysGetWholeAnswers) {
  tool_.Script({"exclusive 600 bytes", "processed 100 bytes", "@sleep 400", "@subvols 100",
                "processed 600 bytes"});
  ScratchDir dir;
  // Readers poll from other processes while both runs go on.
  std::vector<std::unique_ptr<ChildProcess>> readers;
  for (int r = 0; r < 2; ++r) {
    readers.push_back(std::make_unique<ChildProcess>([&, r] {
      std::string bad;
      for (int i = 0; i < 200 && bad.empty(); ++i) {
        const auto status = module_.Call("status", R"({"additional":["processed_in_bytes","estimated_in_bytes"]})");
        if (!status.IsSuccess() || !status.GetData()["share_list"].isArray()) bad = "status: " + Answer(status);
        for (const auto& share : status.GetData()["share_list"]) {
          if (share["status"] != "process" && share["status"] != "done") bad = "state " + Compact(share);
        }
        const auto report = module_.Call("get_report", R"({"share_name":"share2"})");
        if (report.IsSuccess() && report.GetData()["snap_list"].size() != 1) bad = "report " + Answer(report);
        if (!report.IsSuccess() && report.GetErrorCode() != 1 && report.GetErrorCode() != 8) {
          bad = "report " + Answer(report);
        }
        usleep(5000);
      }
      WriteFile(dir / std::to_string(r), bad);
    }));
  }
  EXPECT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("ok null", Call("start", StartParams("share2", 1, 1)));
  EXPECT_EQ("done 0", WaitForEnd("share1"));
  EXPECT_EQ("done 0", WaitForEnd("share2"));
  for (int r = 0; r < 2; ++r) {
    EXPECT_EQ(0, readers[r]->Wait());
    EXPECT_EQ("", ReadFile(dir / std::to_string(r)));
  }
}

TEST_F(ShareMethods, CancelStopsARunningCalculationAndANewStartIsAccepted) {
  std::vector<std::string> slow = {"exclusive 100000 bytes"};
  for (int i = 1; i <= 50; ++i) {
    slow.push_back("processed " + std::to_string(i * 1000) + " bytes");
    slow.push_back("@sleep 200");
  }
  tool_.Script(slow);
  EXPECT_EQ("error 8", Call("cancel", R"({"share_name":"share1"})"));
  EXPECT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  for (int i = 0; i < 500 && State("share1").rfind("process", 0) != 0; ++i) usleep(10000);
  EXPECT_EQ("ok null", RunForked([&] { return Call("cancel", R"({"share_name":"share1"})"); }));
  EXPECT_EQ("stop 12", WaitForEnd("share1"));
  EXPECT_EQ("ok {\"share_list\":[]}", Call("status", "{}")) << "a stopped share is not listed";

  tool_.Script({"@subvols 1"});
  EXPECT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("done 0", WaitForEnd("share1"));
}

TEST_F(ShareMethods, AServerWorkersRequestSwitchesToRootOnceWhateverItReads) {
  for (const char* share : {"share1", "share2"}) {
    ASSERT_EQ("ok null", Call("start", StartParams(share, 1, 1)));
    ASSERT_EQ("done 0", WaitForEnd(share));
  }
  ASSERT_EQ("ok null", Call("set_conf", R"({"reminder":false})"));
  // As a web server's worker: effective ids not root, saved ids root. Every
  // switch to root is logged: one section per request, three lines.
  const std::string lines = RunForked([&] {
    if (syscall(SYS_setresgid, -1, 1000, -1) != 0 || syscall(SYS_setresuid, -1, 1000, -1) != 0) return std::string("ids");
    std::string out;
    for (const auto& [method, params] : std::vector<std::pair<std::string, std::string>>{
             {"status", R"({"additional":["processed_in_bytes","estimated_in_bytes","range_start","range_end"]})"},
             {"get_report", R"({"share_name":"share1"})"},
             {"get_conf", R"({"additional":["reminder","reminder"]})"}}) {
      ClearSyslog();
      const auto answer = module_.Call(method, params);
      out += method + (answer.IsSuccess() ? " ok " : " failed ") + std::to_string(CapturedSyslog().size()) + "\n";
    }
    return out;
  });
  EXPECT_EQ("status ok 3\nget_report ok 0\nget_conf ok 3\n", lines) << DumpSyslog();
}

TEST_F(ShareMethods, CleanOfAShareWithoutAnEntryLeavesItAloneAndSucceeds) {
  MustRun({"mkdir", "-p", "/usr/local/velabtrfssnapusage/share_task_result/share2"});
  WriteFile("/usr/local/velabtrfssnapusage/share_task_result/share2/keep", "x");
  EXPECT_EQ("ok null", Call("clean", R"({"share_name":"share2"})"));
  EXPECT_EQ("x", ReadFile("/usr/local/velabtrfssnapusage/share_task_result/share2/keep"));
  EXPECT_EQ("ok null", Call("clean", R"({"share_name":"no-such-share"})"));
}

TEST_F(ShareMethods, PathLikeShareNamesAreRefusedEverywhereAndCreateNothing) {
  for (const char* method : {"start", "get_report", "cancel", "clean"}) {
    for (const char* name : {R"("../share1")", R"("a/b")", R"(".")", R"("..")", R"("share1\u0000x")", R"("")",
                             "7", "null"}) {
      const std::string params = std::string(R"({"range":{"range_start":1,"range_end":1},"share_name":)") +
                                 name + "}";
      EXPECT_EQ("error 3", Call(method, params)) << method << " " << name;
    }
  }
  struct stat st;
  for (const char* dir : {"/run/velabtrfssnapusage", "/run/lock/velabtrfssnapusage",
                          "/usr/local/velabtrfssnapusage"}) {
    EXPECT_NE(0, stat(dir, &st)) << dir;
  }
  EXPECT_TRUE(tool_.Runs().empty());
}

}  // namespace
}  // namespace vela::test
