// One calculator task from fork to its end, driven by the btrfs tool's test
// double: progress, results, stop from another process, failures, and no
// process left behind.
#include "velabtrfssnapusage/snap_usage_cal.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>

#include "support/btrfs_tool_double.h"
#include "support/fork_child.h"
#include "support/scratch_dir.h"
#include "support/syslog_capture.h"
#include "velabtrfssnapusage/btrfs_tool.h"
#include "velabtrfssnapusage/task_result.h"
#include "vela/sz_list.h"

namespace VelaBtrfsUsage {
namespace {

using vela::test::BtrfsToolDouble;
using vela::test::FindSyslog;
using vela::test::HasChildren;
using vela::test::ReadFile;
using vela::test::WaitForExit;
using Vector = std::vector<unsigned long long>;

// Where the call-backs, which run in the child, leave what they saw.
std::string gProgressLog;
std::string gResultCopies;

std::string Get(TaskStatus& status, TASKSTATUS_ATTR attr) {
  std::string value = "-";
  status.GetStatusAttr(attr, value);
  return value;
}

// One line per call: state, estimate, progress, code, and whether the
// child named in the record is this process.
_tag_progress_update_function_ret RecordProgress(TaskStatus& status, void* context) {
  std::ofstream(gProgressLog, std::ios::app)
      << Get(status, TASKSTATUS_ATTR_STATUS) << " " << Get(status, TASKSTATUS_ATTR_ESTIMATED_IN_BYTES)
      << " " << Get(status, TASKSTATUS_ATTR_PROCESSED_IN_BYTES) << " "
      << Get(status, TASKSTATUS_ATTR_ERROR_CODE) << " "
      << (Get(status, TASKSTATUS_ATTR_PID) == std::to_string(getpid()) ? "self" : "other")
      << (context == nullptr ? "" : " context!") << "\n";
  return PROGRESS_UPDATE_SUCCESS;
}

int CopyResults(TaskStatus& status, void*) {
  for (const char* suffix : {".result", ".subvol_id"}) {
    const std::string from = TaskResult::GetFileBasePath(status.GetTaskID()) + suffix;
    vela::test::WriteFile(gResultCopies + suffix, ReadFile(from));
  }
  return 0;
}

int FailPostAction(TaskStatus&, void*) { return 1; }

std::vector<std::string> Lines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class CalculatorTest : public testing::Test {
 protected:
  void SetUp() override {
    vela::test::BecomeSubreaper();
    vela::test::ClearSyslog();
    gProgressLog = dir_ / "progress";
    gResultCopies = dir_ / "copy";
    ASSERT_TRUE(SnapUsageCalculator::CreateTask(calculator_));
    VLIBCSzListPush(ids_.Address(), "257");
    VLIBCSzListPush(ids_.Address(), "258");
  }
  void TearDown() override {
    EXPECT_FALSE(HasChildren()) << "a process was left behind";
  }

  // Starts the task and waits for its worker: the worker's exit status.
  int RunToEnd(int option, VELA_POST_CAL_ACTION_FN post) {
    _tag_VELA_BTRFS_USAGE_CAL_TASK task = {option, RecordProgress, post, 1};
    EXPECT_EQ(0, calculator_.Start(&task, ids_.Address()));
    return WaitForExit(-1, 20000);
  }

  // The outcome the child last reported: state and code (the task's own
  // files are gone by then).
  std::string State() {
    const auto lines = Lines(gProgressLog);
    std::istringstream last(lines.empty() ? "" : lines.back());
    std::string state, estimate, processed, code;
    last >> state >> estimate >> processed >> code;
    unlink(gProgressLog.c_str());
    return state + " " + code;
  }

  vela::test::ScratchDir dir_;
  BtrfsToolDouble tool_;
  SnapUsageCalculator calculator_;
  vela::platform::SzList ids_;
};

TEST_F(CalculatorTest, ARunReportsProgressStoresResultsAndCleansUpAfterItsPostAction) {
  tool_.Script({"exclusive 1000 bytes", "processed 0 bytes", "subvol(257) 100 bytes",
                "unrelated line", "processed 500 bytes", "subvol(258) 200 bytes", "processed 1000 bytes"});
  EXPECT_EQ(0, RunToEnd(2, CopyResults));

  const std::string tool = BtrfsToolDouble::ToolPath();
  ASSERT_EQ(1u, tool_.Runs().size());
  // The space map is asked for beside the task's result vectors.
  const std::string map = "/run/velabtrfssnapusage/task_result/" + calculator_.GetTaskID() + ".space_map";
  EXPECT_EQ((std::vector<std::string>{tool, "subvolume", "size", "-vpm", "--space-map", map, "-r", "/volume1", "257",
                                      "258"}),
            tool_.Runs()[0]);
  EXPECT_EQ(1u,
            FindSyslog(LOG_DEBUG, "BTRFS CMD: " + tool + " subvolume size -vpm --space-map " + map + " -r /volume1 257 258 ")
                .size());

  const auto progress = Lines(gProgressLog);
  ASSERT_EQ(6u, progress.size()) << ReadFile(gProgressLog);
  EXPECT_EQ("process - - -1 self", progress[0]);
  EXPECT_EQ("process 1000 - -1 self", progress[1]);
  EXPECT_EQ("process 1000 0 -1 self", progress[2]);
  EXPECT_EQ("process 1000 500 -1 self", progress[3]);
  EXPECT_EQ("process 1000 1000 -1 self", progress[4]);
  EXPECT_EQ("done 1000 1000 0 self", progress[5]);

  EXPECT_EQ(Vector({257, 258}).size() * 8 + 8, ReadFile(gResultCopies + ".subvol_id").size());
  Vector ids, bytes;
  ASSERT_EQ(0, TaskResult::ReadVtr(gResultCopies + ".subvol_id", ids));
  ASSERT_EQ(0, TaskResult::ReadVtr(gResultCopies + ".result", bytes));
  EXPECT_EQ(Vector({257, 258}), ids);
  EXPECT_EQ(Vector({100, 200}), bytes);
  EXPECT_FALSE(TaskStatus::CheckFile(calculator_.GetTaskID())) << "the task's files go after the post action";
  EXPECT_EQ(1, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, calculator_.GetTaskID(), bytes));
}

TEST_F(CalculatorTest, AStopFromAnotherProcessEndsTheRunPromptlyWithoutResults) {
  std::vector<std::string> script = {"exclusive 100000 bytes", "@pidfile " + tool_.PidFile()};
  for (int i = 1; i <= 100; ++i) {
    script.push_back("processed " + std::to_string(i * 1000) + " bytes");
    script.push_back("@sleep 200");
  }
  tool_.Script(script);
  _tag_VELA_BTRFS_USAGE_CAL_TASK task = {2, RecordProgress, CopyResults, 1};
  ASSERT_EQ(0, calculator_.Start(&task, ids_.Address()));
  TaskStatus status;
  ASSERT_TRUE(status.Init(calculator_.GetTaskID(), false));
  for (int i = 0; i < 500 && Get(status, TASKSTATUS_ATTR_PROCESSED_IN_BYTES) == "-"; ++i) usleep(10000);
  ASSERT_NE("-", Get(status, TASKSTATUS_ATTR_PROCESSED_IN_BYTES));

  const auto stopAt = std::chrono::steady_clock::now();
  const std::string taskID = calculator_.GetTaskID();
  EXPECT_EQ("0", vela::test::RunForked([&] { return std::to_string(SnapUsageCalculator::Stop(taskID)); }));
  EXPECT_EQ(12, WaitForExit(-1, 5000));
  const auto took = std::chrono::steady_clock::now() - stopAt;
  EXPECT_LT(took, std::chrono::milliseconds(1500)) << "one output line is 200 ms away";

  EXPECT_FALSE(vela::test::ReadFile(gProgressLog).find("done") != std::string::npos);
  EXPECT_EQ("stop 12", State());
  EXPECT_FALSE(TaskStatus::CheckFile(taskID)) << "an ended task leaves no task file";
  Vector bytes;
  EXPECT_EQ(1, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, taskID, bytes));
  const pid_t toolPid = std::stoi(ReadFile(tool_.PidFile()));
  EXPECT_NE(0, kill(toolPid, 0)) << "the tool must not outlive the run";
  EXPECT_EQ(1u, FindSyslog(LOG_DEBUG, "SnapUsageCalculator got signal 15").size()) << vela::test::DumpSyslog();
}

TEST_F(CalculatorTest, FailuresEndAsFailWithTheirCodesAndOnlyAFailedPostActionKeepsTheFiles) {
  EXPECT_EQ(5, RunToEnd(7, CopyResults));
  EXPECT_EQ("fail 5", State());
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "Failed to recognize option [7] of calculator").size());

  tool_.Script({"exclusive 10 bytes", "subvolume 257 is odd"});
  EXPECT_EQ(1, RunToEnd(2, CopyResults));
  EXPECT_EQ("fail 1", State());
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "Failed to parse the output from BTRFS command, output:[subvolume 257 is odd\n], sscanf_ret: 0").size());
  EXPECT_FALSE(TaskStatus::CheckFile(calculator_.GetTaskID()));

  // Figures for 257 only, of 257 and 258: no result, not a short one.
  tool_.Script({"subvol(257) 1 bytes"});
  EXPECT_EQ(1, RunToEnd(2, CopyResults));
  EXPECT_EQ("fail 1", State());
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "The btrfs tool gave no figure for 258, cmd(" + BtrfsToolDouble::ToolPath() +
                                        " subvolume size -vpm --space-map /run/velabtrfssnapusage/task_result/" +
                                        calculator_.GetTaskID() + ".space_map -r /volume1 257 258 )")
                    .size())
      << vela::test::DumpSyslog();
  Vector bytes;
  EXPECT_EQ(1, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, calculator_.GetTaskID(), bytes));

  tool_.Script({"@subvols 1"});
  EXPECT_EQ(9, RunToEnd(2, FailPostAction));
  EXPECT_EQ("done 0", State()) << "a failed post action keeps the result";
  EXPECT_EQ(0, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, calculator_.GetTaskID(), bytes));
  EXPECT_EQ(Vector({1, 2}), bytes);

  vela::test::RemoveBtrfsTool();
  EXPECT_EQ(6, RunToEnd(2, CopyResults));
  EXPECT_EQ("fail 6", State());
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, BtrfsToolDouble::ToolPath() + " is not found.").size());
}

TEST_F(CalculatorTest, ByPathRunsTheToolOverThePathsAndAToolFailureIsOnlyLogged) {
  tool_.Script({"subvol(300) 4096 bytes", "@stderr ERROR: something", "@exit 1"});
  vela::platform::SzList paths;
  VLIBCSzListPush(paths.Address(), "/volume1/@snapshots/s/GMT-2024.03.05-09.04.09");
  _tag_VELA_BTRFS_USAGE_CAL_TASK task = {1, RecordProgress, FailPostAction, 0};
  ASSERT_EQ(0, calculator_.Start(&task, paths.Address()));
  EXPECT_EQ(9, WaitForExit(-1, 20000));
  EXPECT_EQ((std::vector<std::string>{BtrfsToolDouble::ToolPath(), "subvolume", "size", "-vpm", "--space-map",
                                      "/run/velabtrfssnapusage/task_result/" + calculator_.GetTaskID() + ".space_map",
                                      "/volume1/@snapshots/s/GMT-2024.03.05-09.04.09"}),
            tool_.Runs().at(0));
  EXPECT_EQ("done 0", State());
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "Failed to run\"" + BtrfsToolDouble::ToolPath()).size());
}

// The parser over output given directly, without a run.
class ParserTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(status_.Init(kTask, true)); }
  int Parse(const std::string& output) {
    FILE* fp = fmemopen(const_cast<char*>(output.data()), output.size(), "r");
    std::string errMsg;
    const int result = SnapUsageCalculator::ParseCmdFp(kTask, fp, errMsg, nullptr);
    fclose(fp);
    return result;
  }
  Vector Read(TASK_RESULT_OPT opt) {
    Vector v = {99};
    TaskResult::GetResultVtr(opt, kTask, v);
    return v;
  }
  static constexpr char kTask[] = "0f8e0c55-8a5c-4c65-9f1e-1a2b3c4d5e6f";
  TaskStatus status_;
};

TEST_F(ParserTest, ASubvolLineWithoutBytesTakesTheLastNumberAndWrongFiguresFailTheRun) {
  EXPECT_EQ(0, Parse("exclusive 77 bytes\nsubvol(257)\nsubvol(258) 5 bytes\n"));
  EXPECT_EQ(Vector({257, 258}), Read(TASK_RESULT_OPT_SUBVOL_ID));
  EXPECT_EQ(Vector({77, 5}), Read(TASK_RESULT_OPT_RESULT));
  EXPECT_EQ(0, Parse("processed 3 bytes\n"));
  EXPECT_EQ(Vector{}, Read(TASK_RESULT_OPT_SUBVOL_ID));
  EXPECT_EQ(std::string(8, '\0'), ReadFile(TaskResult::GetFileBasePath(kTask) + ".result"));
  EXPECT_EQ(2, Parse("exclusive lots\n"));
  // Figures that cannot be right fail the run: a sign, more than 64 bits,
  // a subvolume twice, a sum past 64 bits.
  for (const char* wrong : {"subvol(257) -100 bytes\n", "subvol(257) 18446744073709551616 bytes\n",
                            "subvol(-1) 5 bytes\n", "processed -3 bytes\n",
                            "subvol(257) 100 bytes\nsubvol(257) 150 bytes\n",
                            "subvol(257) 18446744073709551615 bytes\nsubvol(258) 1 bytes\n"}) {
    EXPECT_EQ(2, Parse(wrong)) << wrong;
  }
  std::string errMsg;
  EXPECT_EQ(2, SnapUsageCalculator::ParseCmdFp(kTask, nullptr, errMsg, nullptr));
}

}  // namespace
}  // namespace VelaBtrfsUsage
