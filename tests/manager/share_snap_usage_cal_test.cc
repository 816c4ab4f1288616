// The share calculation manager's map and result readers, with the map
// file written by hand: freshness, reverse lookups, pruning, corrupt maps.
#include "velabtrfssnapusage/share_snap_usage_cal.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <ctime>

#include "support/scratch_dir.h"
#include "support/syslog_capture.h"
#include "velabtrfssnapusage/json_file.h"
#include "velabtrfssnapusage/task_result.h"
#include "vela/sz_list.h"

namespace VelaBtrfsUsage {
namespace {

using vela::test::FindSyslog;
using vela::test::WriteFile;
using Vector = std::vector<unsigned long long>;

constexpr char kMap[] = "/usr/local/velabtrfssnapusage/share_snap_cal_map";

void WriteMap(const std::string& text) {
  mkdir("/usr/local/velabtrfssnapusage", 0777);
  WriteFile(kMap, text);
}

Json::Value ReadMap() { return Utils::GetJsonAttrByPath(kMap); }

// Task IDs as the system makes them; anything else in a map is corrupt.
const std::string kTask1 = "0f8e0c55-8a5c-4c65-9f1e-1a2b3c4d5e61";
const std::string kTask2 = "0f8e0c55-8a5c-4c65-9f1e-1a2b3c4d5e62";
const std::string kTask3 = "0f8e0c55-8a5c-4c65-9f1e-1a2b3c4d5e63";

std::string Entry(const std::string& task, long age) {
  return R"({"task_id":")" + task + R"(","time":)" + std::to_string(time(nullptr) - age) + R"(,"snap_list":null})";
}

TEST(ShareCalMap, EntriesAreFreshForLessThanTwoMinutes) {
  WriteMap(R"({"young":)" + Entry(kTask1, 119) + R"(,"old":)" + Entry(kTask2, 120) + "}");
  std::string task;
  EXPECT_EQ(0, ShareSnapUsageCal::FindValidTaskID("young", task));
  EXPECT_EQ(kTask1, task);
  EXPECT_EQ(8, ShareSnapUsageCal::FindValidTaskID("old", task));
  EXPECT_EQ(kTask2, task) << "the expired entry's task is still named";
  bool expired = false;
  EXPECT_EQ(0, ShareSnapUsageCal::FindTaskID("old", task, expired));
  EXPECT_TRUE(expired);
  EXPECT_EQ(8, ShareSnapUsageCal::FindTaskID("none", task, expired));
  EXPECT_EQ("", task);
  EXPECT_EQ(3, ShareSnapUsageCal::FindTaskID("", task, expired));
  unlink(kMap);
  EXPECT_EQ(8, ShareSnapUsageCal::FindValidTaskID("young", task)) << "a missing map is an empty map";
}

TEST(ShareCalMap, ACorruptMapReadsAsEmptyOrAsExpiredEntries) {
  std::string task;
  for (const std::string& corrupt :
       {std::string(""), std::string("[1]"), std::string("{\"s\":5}"),
        std::string("{\"s\":{\"task_id\":[1],\"time\":\"x\"}}"),
        "{\"s\":{\"task_id\":\"" + kTask1 + "\",\"time\":-5}}", std::string("{\"s\":" + Entry("../../etc", 0) + "}"),
        std::string("{\"s\":" + Entry("T", 0) + "}")}) {
    WriteMap(corrupt);
    const int found = ShareSnapUsageCal::FindValidTaskID("s", task);
    EXPECT_EQ(8, found) << corrupt;
    std::string share;
    EXPECT_EQ(8, ShareSnapUsageCal::FindShareNameByTaskID("T", share)) << corrupt;
    Vector ids = {257};
    vela::platform::SzList names;
    EXPECT_NE(0, ShareSnapUsageCal::FindSnapNameBySubvolID("s", ids, names.Address())) << corrupt;
  }
}

TEST(ShareCalMap, ReverseLookupAndListingFollowTheMapsOrder) {
  WriteMap(R"({"b":)" + Entry(kTask1, 0) + R"(,"a":)" + Entry(kTask1, 0) + R"(,"c":)" + Entry(kTask2, 0) +
           R"(,"d/e":)" + Entry(kTask3, 0) + "}");
  std::string share = "unchanged";
  EXPECT_EQ(0, ShareSnapUsageCal::FindShareNameByTaskID(kTask1, share));
  EXPECT_EQ("a", share) << "the first in the map's order";
  share = "unchanged";
  EXPECT_EQ(8, ShareSnapUsageCal::FindShareNameByTaskID(kTask1.substr(1), share)) << "whole IDs only";
  EXPECT_EQ(8, ShareSnapUsageCal::FindShareNameByTaskID(kTask3, share)) << "a key that is no share name";
  EXPECT_EQ("unchanged", share);
  vela::platform::SzList list;
  ASSERT_TRUE(ShareSnapUsageCal::GetShareTaskList(list.Address()));
  ASSERT_EQ(3, list.Count()) << "a key that is no share name is left out";
  EXPECT_STREQ("a", list.At(0));
  EXPECT_STREQ("c", list.At(2));
  unlink(kMap);
  VLIBCSzListRemoveAll(list.Get());
  EXPECT_TRUE(ShareSnapUsageCal::GetShareTaskList(list.Address()));
  EXPECT_EQ(0, list.Count());
}

TEST(ShareCalMap, SnapshotNamesAreFoundByTheirRootIdsInTheGivenOrder) {
  WriteMap(R"({"s":{"task_id":"t","time":0,"snap_list":{"GMT-a":"300","GMT-b":"257","GMT-c":"0300x"}}})");
  vela::platform::SzList names;
  Vector ids = {257, 300};
  ASSERT_EQ(0, ShareSnapUsageCal::FindSnapNameBySubvolID("s", ids, names.Address()));
  ASSERT_EQ(2, names.Count());
  EXPECT_STREQ("GMT-b", names.At(0));
  EXPECT_STREQ("GMT-a", names.At(1));
  VLIBCSzListRemoveAll(names.Get());
  vela::test::ClearSyslog();
  ids = {257, 301};
  EXPECT_EQ(8, ShareSnapUsageCal::FindSnapNameBySubvolID("s", ids, names.Address()));
  EXPECT_EQ(1, names.Count());
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "Snapshot name with subvol ID [301] is not found").size());
  ids.clear();
  EXPECT_EQ(0, ShareSnapUsageCal::FindSnapNameBySubvolID("none", ids, names.Address()));
  EXPECT_EQ(3, ShareSnapUsageCal::FindSnapNameBySubvolID("s", ids, nullptr));
}

TEST(ShareResults, TheShareCopyIsPreferredAndUsageIsAccumulated) {
  WriteMap(R"({"s":)" + Entry(kTask1, 0) + "}");
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, kTask1, Vector{5, 7, 0}));
  Vector usage;
  ASSERT_EQ(0, ShareSnapUsageCal::GetShareSnapAccumUsageVtr("s", usage));
  EXPECT_EQ(Vector({5, 12, 12}), usage);
  // Once copied, the run-time files may go.
  mkdir("/usr/local/velabtrfssnapusage/share_task_result", 0777);
  mkdir("/usr/local/velabtrfssnapusage/share_task_result/s", 0777);
  ASSERT_EQ(0, TaskResult::WriteVtr("/usr/local/velabtrfssnapusage/share_task_result/s/" + kTask1 + ".result",
                                    Vector{1, ~0ull}));
  ASSERT_TRUE(TaskResult::CleanFile(kTask1));
  ASSERT_EQ(0, ShareSnapUsageCal::GetShareSnapAccumUsageVtr("s", usage));
  EXPECT_EQ(Vector({1, 0}), usage) << "sums wrap as unsigned numbers";
  Vector kept = {42};
  EXPECT_EQ(1, ShareSnapUsageCal::GetShareSnapAccumUsageVtr("none", kept));
  EXPECT_EQ(Vector{42}, kept);

  EXPECT_TRUE(ShareSnapUsageCal::CleanTaskResultFile("s", true));
  struct stat st;
  EXPECT_NE(0, stat("/usr/local/velabtrfssnapusage/share_task_result/s", &st));
  vela::test::ClearSyslog();
  EXPECT_FALSE(ShareSnapUsageCal::CleanTaskResultFile("s", false));
  EXPECT_TRUE(vela::test::CapturedSyslog().empty()) << vela::test::DumpSyslog();
}

TEST(ShareCleanUp, RemovingAnEntryTouchesNoOtherEntry) {
  // "vanished" may be on a volume that is not mounted now: it stays.
  WriteMap(R"({"alive":)" + Entry(kTask1, 0) + R"(,"vanished":)" + Entry(kTask2, 0) + R"(,"gone-soon":)" +
           Entry(kTask3, 0) + "}");
  ShareSnapUsageCal::CleanAll("not-in-map");
  EXPECT_EQ(3u, ReadMap().size());
  ShareSnapUsageCal::CleanAll("gone-soon");
  EXPECT_EQ((std::vector<std::string>{"alive", "vanished"}), ReadMap().getMemberNames());
  EXPECT_EQ(8, ShareSnapUsageCal::Stop("gone-soon"));
  EXPECT_EQ(3, ShareSnapUsageCal::Stop(""));
}

TEST(ShareCleanUp, LeftOverRunningRecordsAreCleanedAndFinishedOnesKept) {
  WriteMap(R"({"running":)" + Entry(kTask1, 0) + R"(,"finished":)" + Entry(kTask2, 0) + "}");
  ShareTaskStatus running, finished;
  ASSERT_TRUE(running.Init("running", true));
  ASSERT_EQ(0, running.SetCalculatorStatus(CAL_TASK_STATUS_PROCESS));
  ASSERT_TRUE(finished.Init("finished", true));
  ASSERT_EQ(0, finished.SetCalculatorStatus(CAL_TASK_STATUS_DONE));
  EXPECT_EQ(0, ShareSnapUsageCal::CleanNotDoneTask());
  EXPECT_FALSE(ShareTaskStatus::CheckShareStatusFile("running"));
  EXPECT_TRUE(ShareTaskStatus::CheckShareStatusFile("finished"));
  EXPECT_FALSE(ReadMap().isMember("running"));
  EXPECT_EQ(0, ShareSnapUsageCal::CleanAllSResult());
  EXPECT_FALSE(ShareTaskStatus::CheckShareStatusFile("finished"));
}

TEST(ShareSnapUsageCal, ShareNamesAreSingleFileNames) {
  ShareSnapUsageCal fresh;
  EXPECT_EQ(3, fresh.CreateTask(""));
  EXPECT_EQ(3, fresh.CreateTask("a/b"));
  EXPECT_EQ(3, fresh.CreateTask(".."));
  EXPECT_FALSE(IsShareNameSafe(std::string("a\0b", 3)));
  EXPECT_FALSE(IsShareNameSafe(std::string(256, 'n')));
  EXPECT_TRUE(IsShareNameSafe(std::string(255, 'n')));
  EXPECT_TRUE(IsShareNameSafe("...")) << "only . and .. are special";
}

}  // namespace
}  // namespace VelaBtrfsUsage
