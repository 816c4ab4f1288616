// The share calculation manager's map and result readers, with the map
// file written by hand: freshness, reverse lookups, pruning, corrupt maps.
#include "velabtrfssnapusage/share_snap_usage_cal.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>

#include <ctime>

#include "support/btrfs_image.h"
#include "support/scratch_dir.h"
#include "support/syslog_capture.h"
#include "velabtrfssnapusage/json_file.h"
#include "velabtrfssnapusage/task_result.h"

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

std::string Entry(const std::string& task, long age) {
  return R"({"task_id":")" + task + R"(","time":)" + std::to_string(time(nullptr) - age) + R"(,"snap_list":null})";
}

TEST(ShareCalMap, EntriesAreFreshForLessThanTwoMinutes) {
  WriteMap(R"({"young":)" + Entry("t1", 119) + R"(,"old":)" + Entry("t2", 120) + "}");
  std::string task;
  EXPECT_EQ(0, ShareSnapUsageCal::FindValidTaskID("young", task));
  EXPECT_EQ("t1", task);
  EXPECT_EQ(8, ShareSnapUsageCal::FindValidTaskID("old", task));
  EXPECT_EQ("t2", task) << "the expired entry's task is still named";
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
  for (const char* corrupt : {"", "[1]", "{\"s\":5}", "{\"s\":{\"task_id\":[1],\"time\":\"x\"}}",
                              "{\"s\":{\"task_id\":\"u\",\"time\":-5}}"}) {
    WriteMap(corrupt);
    const int found = ShareSnapUsageCal::FindValidTaskID("s", task);
    EXPECT_EQ(8, found) << corrupt;
    std::string share;
    EXPECT_EQ(8, ShareSnapUsageCal::FindShareNameByTaskID("t", share)) << corrupt;
    Vector ids = {257};
    PVLIBSZLIST names = VLIBCSzListAlloc(1);
    EXPECT_NE(0, ShareSnapUsageCal::FindSnapNameBySubvolID("s", ids, &names)) << corrupt;
    VLIBCSzListFree(names);
  }
}

TEST(ShareCalMap, ReverseLookupAndListingFollowTheMapsOrder) {
  WriteMap(R"({"b":)" + Entry("same", 0) + R"(,"a":)" + Entry("same", 0) + R"(,"c":)" + Entry("other", 0) + "}");
  std::string share = "unchanged";
  EXPECT_EQ(0, ShareSnapUsageCal::FindShareNameByTaskID("same", share));
  EXPECT_EQ("a", share) << "the first in the map's order";
  share = "unchanged";
  EXPECT_EQ(8, ShareSnapUsageCal::FindShareNameByTaskID("sam", share)) << "whole IDs only";
  EXPECT_EQ("unchanged", share);
  PVLIBSZLIST list = VLIBCSzListAlloc(1);
  ASSERT_TRUE(ShareSnapUsageCal::GetShareTaskList(&list));
  ASSERT_EQ(3, list->nItem);
  EXPECT_STREQ("a", VLIBCSzListGet(list, 0));
  EXPECT_STREQ("c", VLIBCSzListGet(list, 2));
  unlink(kMap);
  VLIBCSzListRemoveAll(list);
  EXPECT_TRUE(ShareSnapUsageCal::GetShareTaskList(&list));
  EXPECT_EQ(0, list->nItem);
  VLIBCSzListFree(list);
}

TEST(ShareCalMap, SnapshotNamesAreFoundByTheirRootIdsInTheGivenOrder) {
  WriteMap(R"({"s":{"task_id":"t","time":0,"snap_list":{"GMT-a":"300","GMT-b":"257","GMT-c":"0300x"}}})");
  PVLIBSZLIST names = VLIBCSzListAlloc(1);
  Vector ids = {257, 300};
  ASSERT_EQ(0, ShareSnapUsageCal::FindSnapNameBySubvolID("s", ids, &names));
  ASSERT_EQ(2, names->nItem);
  EXPECT_STREQ("GMT-b", VLIBCSzListGet(names, 0));
  EXPECT_STREQ("GMT-a", VLIBCSzListGet(names, 1));
  VLIBCSzListRemoveAll(names);
  vela::test::ClearSyslog();
  ids = {257, 301};
  EXPECT_EQ(8, ShareSnapUsageCal::FindSnapNameBySubvolID("s", ids, &names));
  EXPECT_EQ(1, names->nItem);
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "Snapshot name with subvol ID [301] is not found").size());
  ids.clear();
  EXPECT_EQ(0, ShareSnapUsageCal::FindSnapNameBySubvolID("none", ids, &names));
  EXPECT_EQ(3, ShareSnapUsageCal::FindSnapNameBySubvolID("s", ids, nullptr));
  VLIBCSzListFree(names);
}

TEST(ShareResults, TheShareCopyIsPreferredAndUsageIsAccumulated) {
  WriteMap(R"({"s":)" + Entry("task", 0) + "}");
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "task", Vector{5, 7, 0}));
  Vector usage;
  ASSERT_EQ(0, ShareSnapUsageCal::GetShareSnapAccumUsageVtr("s", usage));
  EXPECT_EQ(Vector({5, 12, 12}), usage);
  // Once copied, the run-time files may go.
  mkdir("/usr/local/velabtrfssnapusage/share_task_result", 0777);
  mkdir("/usr/local/velabtrfssnapusage/share_task_result/s", 0777);
  ASSERT_EQ(0, TaskResult::WriteVtr("/usr/local/velabtrfssnapusage/share_task_result/s/task.result",
                                    Vector{1, ~0ull}));
  ASSERT_TRUE(TaskResult::CleanFile("task"));
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

TEST(ShareCleanUp, RemovingAnEntryPrunesSharesThatNoLongerExist) {
  vela::test::BtrfsImage volume("/volume1");
  volume.CreateSubvolume("alive");
  volume.CreateSubvolume("gone-soon");
  WriteMap(R"({"alive":)" + Entry("t1", 0) + R"(,"vanished":)" + Entry("t2", 0) + R"(,"gone-soon":)" +
           Entry("t3", 0) + "}");
  ShareSnapUsageCal::CleanAll("not-in-map");
  EXPECT_EQ(3u, ReadMap().size()) << "a share without an entry prunes nothing";
  ShareSnapUsageCal::CleanAll("gone-soon");
  EXPECT_EQ(std::vector<std::string>{"alive"}, ReadMap().getMemberNames());
  EXPECT_EQ(8, ShareSnapUsageCal::Stop("gone-soon"));
  EXPECT_EQ(3, ShareSnapUsageCal::Stop(""));
}

TEST(ShareCleanUp, LeftOverRunningRecordsAreCleanedAndFinishedOnesKept) {
  // Real shares: a clean-up prunes the entries of shares that do not exist.
  vela::test::BtrfsImage volume("/volume1");
  volume.CreateSubvolume("running");
  volume.CreateSubvolume("finished");
  WriteMap(R"({"running":)" + Entry("t1", 0) + R"(,"finished":)" + Entry("t2", 0) + "}");
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

TEST(ShareSnapUsageCal, AnObjectKnowingOnlyATaskIsNeverValidAndLaunchesNothing) {
  ShareSnapUsageCal byTask("some-task");
  EXPECT_FALSE(byTask.Valid());
  long start = 0, end = 10;
  EXPECT_EQ(7, byTask.Launch(&start, &end));
  EXPECT_EQ(3, byTask.Launch(&start, nullptr));
  EXPECT_EQ(3, byTask.Launch(&end, &start));
  EXPECT_EQ(3, byTask.Launch(static_cast<PVLIBSZLIST*>(nullptr)));
  ShareSnapUsageCal fresh;
  EXPECT_EQ(3, fresh.CreateTask(""));
  EXPECT_EQ(3, fresh.CreateTask("a/b"));
  EXPECT_EQ(3, fresh.CreateTask(".."));
  EXPECT_FALSE(IsShareNameSafe(std::string("a\0b", 3)));
  EXPECT_TRUE(IsShareNameSafe("...")) << "only . and .. are special";
}

}  // namespace
}  // namespace VelaBtrfsUsage
