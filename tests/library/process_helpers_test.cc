// Process helpers: signals to vanished processes, task IDs from uuidgen.
#include "velabtrfssnapusage/process_helpers.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/fork_child.h"
#include "support/sandbox_mounts.h"
#include "support/scratch_dir.h"
#include "vela/vlib_error.h"
#include "velabtrfssnapusage/snap_usage_cal.h"

namespace VelaBtrfsUsage::Utils {
namespace {

using vela::test::ScratchDir;

// Puts a shell script at /usr/bin/uuidgen for this test.
void FakeUuidgen(const ScratchDir& dir, const std::string& body) {
  vela::test::WriteFile(dir / "uuidgen", "#!/bin/sh\n" + body);
  ASSERT_EQ(0, chmod((dir / "uuidgen").c_str(), 0755));
  ASSERT_EQ("", vela::test::BindInto(dir / "uuidgen", "/usr/bin/uuidgen"));
}

TEST(ProcessKill, AProcessThatIsGoneCountsAsStopped) {
  vela::test::ChildProcess sleeper([] { pause(); });
  EXPECT_EQ(0, ProcessKill(sleeper.Pid(), SIGTERM));
  EXPECT_EQ(128 + SIGTERM, sleeper.Wait());
  vela::test::ChildProcess quick([] {});
  const pid_t gone = quick.Pid();
  quick.Wait();
  EXPECT_EQ(0, ProcessKill(gone, SIGTERM));
  EXPECT_EQ(0, ProcessKill(-1, SIGTERM));
  EXPECT_EQ(std::to_string(getpid()), PIDStringGet());
}

TEST(UUIDGen, ReadsOneTrimmedLineOfUuidgen) {
  std::string uuid;
  ASSERT_TRUE(UUIDGen(uuid));
  EXPECT_EQ(36u, uuid.size()) << uuid;
  ScratchDir dir;
  FakeUuidgen(dir, "printf '  0a0b-spaced \\t\\n'\n");
  ASSERT_TRUE(UUIDGen(uuid));
  EXPECT_EQ("0a0b-spaced", uuid);
}

TEST(UUIDGen, APrintsNothingFailureIsAnExternalCommandError) {
  ScratchDir dir;
  FakeUuidgen(dir, "exit 1\n");
  std::string uuid = "kept";
  EXPECT_FALSE(UUIDGen(uuid));
  EXPECT_EQ(0x2A00, VLIBCErrGet());
  EXPECT_EQ("kept", uuid);
  EXPECT_FALSE(SnapUsageCalculator::GenTaskID(uuid));
}

TEST(GenTaskID, DrawsAgainWhenAStatusFileHasTheId) {
  ScratchDir dir;
  // Prints "taken" the first time and "fresh" after.
  FakeUuidgen(dir, "if [ -e " + (dir / "drawn") + " ]; then echo fresh; else touch " + (dir / "drawn") +
                       "; echo taken; fi\n");
  TaskStatus existing;
  ASSERT_TRUE(existing.Init("taken", true));
  std::string id;
  ASSERT_TRUE(SnapUsageCalculator::GenTaskID(id));
  EXPECT_EQ("fresh", id);
}

}  // namespace
}  // namespace VelaBtrfsUsage::Utils
