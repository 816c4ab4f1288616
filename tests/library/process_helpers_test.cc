// Process helpers: signals that reach only the process that was recorded,
// even when its PID has been used again; task IDs from uuidgen.
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

TEST(SignalProcessIfSame, ReachesOnlyTheRecordedProcessEvenWhenItsPidIsUsedAgain) {
  const std::string outcome = vela::test::RunInPidNamespace([] {
    const pid_t first = fork();
    if (first == 0) pause();
    unsigned long long started = 0;
    if (!ProcessStartTicks(first, started)) return std::string("no start time");
    std::string seen = ProcessIsAlive(first, started) ? "alive" : "gone";
    seen += " " + std::to_string(SignalProcessIfSame(first, started + 1, SIGTERM));  // not that process
    seen += " " + std::to_string(SignalProcessIfSame(first, started, SIGKILL));
    waitpid(first, nullptr, 0);
    seen += ProcessIsAlive(first, started) ? " alive" : " gone";
    // Another process gets the same PID, started later. (Start times count
    // clock ticks of 10 ms; outside a test a PID comes round again only
    // after millions of others, never within one tick.)
    usleep(30 * 1000);
    vela::test::ChooseNextPid(first);
    const pid_t second = fork();
    if (second == 0) pause();
    seen += second == first ? " reused" : " not-reused";
    seen += " " + std::to_string(SignalProcessIfSame(first, started, SIGKILL));
    seen += ProcessIsAlive(first, started) ? " alive" : " gone";
    seen += WaitProcessGone(first, started, 100) ? " gone" : " waits";
    seen += kill(second, 0) == 0 ? " spared" : " hit";
    kill(second, SIGKILL);
    return seen;
  });
  EXPECT_EQ("alive 0 1 gone reused 0 gone gone spared", outcome);
  EXPECT_EQ(0, SignalProcessIfSame(0, 0, SIGTERM));
  EXPECT_EQ(0, SignalProcessIfSame(-1, 0, SIGTERM));
  EXPECT_EQ(std::to_string(getpid()), PIDStringGet());
}

TEST(UUIDGen, ReadsOneTrimmedLineOfUuidgenAndFailsWhenItPrintsNothing) {
  std::string uuid;
  ASSERT_TRUE(UUIDGen(uuid));
  EXPECT_TRUE(IsTaskId(uuid)) << uuid;
  for (const char* bad : {"", "0a0b-spaced", "6F9619FF-8B86-D011-B42D-00C04FC964FF", "../../../../etc/passwd",
                          "6f9619ff-8b86-d011-b42d-00c04fc964f/"}) {
    EXPECT_FALSE(IsTaskId(bad)) << bad;
  }
  ScratchDir dir;
  FakeUuidgen(dir, "printf '  0a0b-spaced \\t\\n'\n");
  ASSERT_TRUE(UUIDGen(uuid));
  EXPECT_EQ("0a0b-spaced", uuid);

  FakeUuidgen(dir, "exit 1\n");
  uuid = "kept";
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
