// Result vector files: the byte format, replacement, and what a corrupt file
// gives.
#include "velabtrfssnapusage/task_result.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "support/scratch_dir.h"
#include "support/syslog_capture.h"

namespace VelaBtrfsUsage {
namespace {

using vela::test::FindSyslog;
using vela::test::ReadFile;
using vela::test::WriteFile;
using Vector = std::vector<unsigned long long>;

constexpr char kTask[] = "6d1c7e9a-2f0b-4a5e-8c3d-9e8f7a6b5c4d";

std::string LittleEndian(uint64_t value) {
  std::string bytes;
  for (int i = 0; i < 8; ++i) bytes += static_cast<char>((value >> (8 * i)) & 0xff);
  return bytes;
}

TEST(TaskResult, FilesHoldTheCountThenTheElementsInEightNativeBytes) {
  const Vector ids = {257, 0xFFFFFFFFFFFFFFFFull, 0x0102030405060708ull};
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_SUBVOL_ID, kTask, ids));
  const std::string file = std::string("/run/velabtrfssnapusage/task_result/") + kTask + ".subvol_id";
  EXPECT_EQ(LittleEndian(3) + LittleEndian(257) + LittleEndian(0xFFFFFFFFFFFFFFFFull) +
                LittleEndian(0x0102030405060708ull),
            ReadFile(file));
  Vector back;
  ASSERT_EQ(0, TaskResult::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, kTask, back));
  EXPECT_EQ(ids, back);

  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_SUBVOL_ID, kTask, Vector{}));
  EXPECT_EQ(std::string(8, '\0'), ReadFile(file)) << "rewritten whole, nothing appended";
  ASSERT_EQ(0, TaskResult::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, kTask, back));
  EXPECT_TRUE(back.empty());
  EXPECT_EQ(0, access((std::string("/run/lock/velabtrfssnapusage/snap_cal_result/") + kTask + ".subvol_id").c_str(), F_OK));
}

TEST(TaskResult, EmptyFilesReadEmptyWhileCountsBeyondTheContentAreCorrupt) {
  vela::test::ScratchDir dir;
  Vector v = {9};
  WriteFile(dir / "empty", "");
  EXPECT_EQ(0, TaskResult::ReadVtr(dir / "empty", v));
  EXPECT_TRUE(v.empty());
  WriteFile(dir / "short-count", "\x01\x00\x00");
  EXPECT_EQ(0, TaskResult::ReadVtr(dir / "short-count", v));
  EXPECT_TRUE(v.empty());

  vela::test::ClearSyslog();
  WriteFile(dir / "huge", LittleEndian(1ull << 60) + LittleEndian(5));
  EXPECT_EQ(1, TaskResult::ReadVtr(dir / "huge", v));
  EXPECT_TRUE(v.empty());
  WriteFile(dir / "truncated", LittleEndian(3) + LittleEndian(5) + LittleEndian(6));
  EXPECT_EQ(1, TaskResult::ReadVtr(dir / "truncated", v));
  EXPECT_EQ(2u, FindSyslog(LOG_ERR, "Some errors occur on input stream, file: " + dir.Path()).size());

  WriteFile(dir / "trailing", LittleEndian(1) + LittleEndian(5) + "junk");
  EXPECT_EQ(0, TaskResult::ReadVtr(dir / "trailing", v));
  EXPECT_EQ(Vector{5}, v);
}

TEST(TaskResult, CleanFileRemovesTheTasksFilesAndLocksButNoOtherTasks) {
  const Vector v = {1, 2};
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, kTask, v));
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_SUBVOL_ID, kTask, v));
  ASSERT_EQ(0, TaskResult::WriteResultVtr(TASK_RESULT_OPT_RESULT, "another-task", v));
  EXPECT_TRUE(TaskResult::CleanFile(kTask));
  Vector back;
  EXPECT_EQ(1, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, kTask, back));
  EXPECT_NE(0, access((std::string("/run/lock/velabtrfssnapusage/snap_cal_result/") + kTask + ".result").c_str(), F_OK));
  EXPECT_EQ(0, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, "another-task", back));
  EXPECT_TRUE(TaskResult::CleanFile(kTask)) << "nothing left to clean is fine";
  EXPECT_FALSE(TaskResult::CleanFile("")) << "an empty ID would match every task";
  EXPECT_EQ(0, TaskResult::GetResultVtr(TASK_RESULT_OPT_RESULT, "another-task", back));
}

}  // namespace
}  // namespace VelaBtrfsUsage
