// Task and share status records, as several processes use them at once.
#include "velabtrfssnapusage/task_status.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include "support/fork_child.h"
#include "support/scratch_dir.h"
#include "support/syslog_capture.h"
#include "vela/vlib_error.h"
#include "velabtrfssnapusage/json_file.h"
#include "velabtrfssnapusage/share_task_status.h"

namespace VelaBtrfsUsage {
namespace {

using vela::test::ChildProcess;
using vela::test::FindSyslog;
using vela::test::ReadFile;
using vela::test::WriteFile;

constexpr char kTask[] = "0f8e0c55-8a5c-4c65-9f1e-1a2b3c4d5e6f";
const std::string kStatusFile = std::string("/run/velabtrfssnapusage/task_status/") + kTask;

Json::Value FileDoc(const std::string& path) {
  Json::Value doc;
  Json::Reader().parse(ReadFile(path), doc, false);
  return doc;
}

std::string Attr(TaskStatus& status, TASKSTATUS_ATTR attr) {
  std::string value = "<unset>";
  status.GetStatusAttr(attr, value);
  return value;
}

TEST(TaskStatus, CreatesAReadyRecordWhoseValuesAreAllStringsAndKeepsAnExistingOne) {
  TaskStatus status;
  EXPECT_FALSE(status.Init("", true));
  EXPECT_FALSE(status.Valid());
  EXPECT_TRUE(status.Init(kTask, false));
  EXPECT_FALSE(TaskStatus::CheckFile(kTask)) << "opening without create makes no file";
  ASSERT_TRUE(status.Init("other", true));
  ASSERT_TRUE(status.Init(kTask, true));
  EXPECT_EQ("ready", Attr(status, TASKSTATUS_ATTR_STATUS));

  ASSERT_EQ(0, status.SetStatusIntAttr(TASKSTATUS_ATTR_PID, 1234));
  ASSERT_EQ(0, status.SetStatusIntAttr(TASKSTATUS_ATTR_ERROR_CODE, -1));
  ASSERT_EQ(0, status.SetStatusNowTimeAttr(TASKSTATUS_ATTR_START_TIME));
  ASSERT_EQ(0, status.SetCalculatorStatus(CAL_TASK_STATUS_DONE));
  const Json::Value doc = FileDoc(kStatusFile);
  for (const auto& key : doc.getMemberNames()) EXPECT_TRUE(doc[key].isString()) << key;
  EXPECT_EQ("1234", doc["pid"].asString());
  EXPECT_EQ("-1", doc["error_code"].asString());
  long start = 0;
  EXPECT_EQ(0, status.GetStatusTimeAttr(TASKSTATUS_ATTR_START_TIME, start));
  EXPECT_LE(labs(start - time(nullptr)), 2);

  TaskStatus again;
  ASSERT_TRUE(again.Init(kTask, true));
  EXPECT_EQ("done", Attr(again, TASKSTATUS_ATTR_STATUS)) << "an existing record is kept";
  const std::string lock = "/run/lock/velabtrfssnapusage/task_status/" + std::string(kTask) + ".lock";
  EXPECT_EQ(0, access(lock.c_str(), F_OK));
  EXPECT_TRUE(TaskStatus::CleanFile(kTask));
  EXPECT_FALSE(TaskStatus::CheckFile(kTask));
  EXPECT_NE(0, access(lock.c_str(), F_OK));
  EXPECT_FALSE(again.Init("../escape", true)) << "an ID is one file name";
}

TEST(TaskStatus, EveryGetterRereadsTheFile) {
  TaskStatus creator;
  ASSERT_TRUE(creator.Init(kTask, true));
  TaskStatus status(kTask);
  WriteFile(kStatusFile, R"({"status":"process","processed_in_bytes":"10"})");
  EXPECT_EQ("10", Attr(status, TASKSTATUS_ATTR_PROCESSED_IN_BYTES));
  WriteFile(kStatusFile, R"({"status":"fail","error_code":"12abc"})");
  CAL_TASK_STATUS state;
  int code = 0;
  ASSERT_EQ(0, status.GetCalculatorStatus(state, code));
  EXPECT_EQ(CAL_TASK_STATUS_FAIL, state);
  EXPECT_EQ(12, code);
  WriteFile(kStatusFile, R"({"status":"process"})");
  ASSERT_EQ(0, status.GetCalculatorStatus(state, code));
  EXPECT_EQ(-1, code) << "no code is read while running";
  std::string value = "kept";
  EXPECT_EQ(1, status.GetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, value));
  EXPECT_EQ("kept", value);
}

TEST(TaskStatus, TwoProcessesUpdatingDifferentAttributesLoseNoUpdate) {
  TaskStatus status;
  ASSERT_TRUE(status.Init(kTask, true));
  constexpr int kRounds = 2000;
  int go[2];
  ASSERT_EQ(0, pipe(go));
  // Both writers start at the same moment, so their read-modify-writes
  // interleave for the whole run.
  auto writer = [&](TASKSTATUS_ATTR attr) {
    return [attr, &go] {
      char c;
      if (read(go[0], &c, 1) != 1) _exit(2);
      TaskStatus mine(kTask);
      for (int i = 1; i <= kRounds; ++i) {
        if (mine.SetStatusIntAttr(attr, i) != 0) _exit(1);
      }
    };
  };
  ChildProcess a(writer(TASKSTATUS_ATTR_PROCESSED_IN_BYTES));
  ChildProcess b(writer(TASKSTATUS_ATTR_ESTIMATED_IN_BYTES));
  ASSERT_EQ(2, write(go[1], "gg", 2));
  // Meanwhile a reader must always find a whole record.
  for (int i = 0; i < 200; ++i) {
    CAL_TASK_STATUS state;
    ASSERT_EQ(0, status.GetCalculatorStatus(state));
  }
  EXPECT_EQ(0, a.Wait());
  EXPECT_EQ(0, b.Wait());
  close(go[0]);
  close(go[1]);
  EXPECT_EQ(std::to_string(kRounds), Attr(status, TASKSTATUS_ATTR_PROCESSED_IN_BYTES));
  EXPECT_EQ(std::to_string(kRounds), Attr(status, TASKSTATUS_ATTR_ESTIMATED_IN_BYTES));
}

TEST(TaskStatus, WithoutItsLockNothingIsWrittenWhileReadsGoOn) {
  TaskStatus status;
  ASSERT_TRUE(status.Init(kTask, true));
  // The lock directory turns into a file: no lock file can be opened.
  vela::test::RemoveTree("/run/lock/velabtrfssnapusage/task_status");
  WriteFile("/run/lock/velabtrfssnapusage/task_status", "");
  vela::test::ClearSyslog();
  EXPECT_EQ(1, status.SetStatusAttr(TASKSTATUS_ATTR_ERROR_MSG, "not written"));
  EXPECT_EQ("ready", Attr(status, TASKSTATUS_ATTR_STATUS)) << "a read goes on unlocked";
  EXPECT_EQ("<unset>", Attr(status, TASKSTATUS_ATTR_ERROR_MSG));
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "(SetStatusAttr)[" + std::to_string(getpid()) + "][" + kTask +
                                        "]: lock failed").size())
      << vela::test::DumpSyslog();
  EXPECT_FALSE(FindSyslog(LOG_ERR, "Refused to use the state directory "
                                   "/run/lock/velabtrfssnapusage/task_status: it is not a directory").empty());
  EXPECT_EQ(2u, FindSyslog(LOG_ERR, "(GetStatusAttr)[").size()) << "one for each read";
  TaskStatus other;
  ASSERT_TRUE(other.Init("source", false));
  EXPECT_FALSE(status.Import(other));
}

TEST(TaskStatus, ACorruptRecordGivesFailuresNeverACrashAndIsReplacedOnWrite) {
  TaskStatus status;
  ASSERT_TRUE(status.Init(kTask, true));
  CAL_TASK_STATUS state;
  for (const char* corrupt : {"", "{{{", "[1,2]", "\"text\"", R"({"status":{"nested":1}})",
                              R"({"status":["process"]})", R"({"status":"Done"})"}) {
    WriteFile(kStatusFile, corrupt);
    EXPECT_EQ(1, status.GetCalculatorStatus(state)) << corrupt;
    Json::Value doc;
    EXPECT_EQ(0, status.GetJsonVal(doc)) << corrupt;
    TaskStatus share;
    ASSERT_TRUE(share.Init("copy", true));
    status.Import(share);  // must not throw whatever the source holds
    EXPECT_TRUE(share.Import(status)) << corrupt;
  }
  WriteFile(kStatusFile, "[1,2]");
  EXPECT_EQ(0, status.SetCalculatorStatus(CAL_TASK_STATUS_STOP));
  ASSERT_EQ(0, status.GetCalculatorStatus(state));
  EXPECT_EQ(CAL_TASK_STATUS_STOP, state);

  int n = 0;
  WriteFile(kStatusFile, R"({"pid":"abc"})");
  EXPECT_EQ(1, status.GetStatusIntAttr(TASKSTATUS_ATTR_PID, n));
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "Failed to convert [abc] into integer value").size());
}

TEST(ShareTaskStatus, LivesUnderThePersistentDirectoryWithALockWithoutSuffix) {
  ShareTaskStatus share;
  vela::test::ClearSyslog();
  EXPECT_FALSE(share.Init("", true));
  EXPECT_EQ(0x0D00, VLIBCErrGet());
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "Invaild Argument (!shareName.empty())=[0]\n").size());
  EXPECT_FALSE(share.Valid());

  ASSERT_TRUE(share.Init("share1", false));
  EXPECT_FALSE(ShareTaskStatus::CheckShareStatusFile("share1"));
  ASSERT_TRUE(share.Init("share1", true));
  EXPECT_TRUE(ShareTaskStatus::CheckShareStatusFile("share1"));
  EXPECT_EQ("ready", FileDoc("/usr/local/velabtrfssnapusage/share_task_status/share1")["status"].asString());
  struct stat st;
  EXPECT_EQ(0, stat("/run/lock/velabtrfssnapusage/share_task_status/share1", &st));
  ASSERT_EQ(0, share.SetCalculatorStatus(CAL_TASK_STATUS_DONE));
  ShareTaskStatus again;
  ASSERT_TRUE(again.Init("share1", true));
  EXPECT_EQ("done", Attr(again, TASKSTATUS_ATTR_STATUS));
  EXPECT_EQ("", again.GetTaskID());

  vela::test::ClearSyslog();
  EXPECT_TRUE(ShareTaskStatus::CleanShareStatus("share1"));
  EXPECT_FALSE(ShareTaskStatus::CheckShareStatusFile("share1"));
  EXPECT_NE(0, stat("/run/lock/velabtrfssnapusage/share_task_status/share1", &st));
  EXPECT_TRUE(ShareTaskStatus::CleanShareStatus("share1"));
  EXPECT_TRUE(vela::test::CapturedSyslog().empty()) << vela::test::DumpSyslog();
}

TEST(ShareTaskStatus, ImportCopiesOnlyTheAttributesPresentInTheTask) {
  TaskStatus task;
  ASSERT_TRUE(task.Init(kTask, true));
  ASSERT_EQ(0, task.SetCalculatorStatus(CAL_TASK_STATUS_PROCESS));
  ASSERT_EQ(0, task.SetStatusAttr(TASKSTATUS_ATTR_PROCESSED_IN_BYTES, "4096"));
  ShareTaskStatus share;
  ASSERT_TRUE(share.Init("share1", true));
  ASSERT_EQ(0, share.SetStatusAttr(TASKSTATUS_ATTR_RANGE_START, "2024.03.05-17.04.09"));
  ASSERT_TRUE(share.Import(task));
  EXPECT_EQ("process", Attr(share, TASKSTATUS_ATTR_STATUS));
  EXPECT_EQ("4096", Attr(share, TASKSTATUS_ATTR_PROCESSED_IN_BYTES));
  EXPECT_EQ("2024.03.05-17.04.09", Attr(share, TASKSTATUS_ATTR_RANGE_START));
}

}  // namespace
}  // namespace VelaBtrfsUsage
