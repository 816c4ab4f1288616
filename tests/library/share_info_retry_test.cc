// The retry of a busy share lookup, with the platform's lookup and sleep()
// replaced in this executable so that the bound is checked without waiting.
#include <gtest/gtest.h>
#include <syslog.h>

#include "support/syslog_capture.h"
#include "vela/vlib_error.h"
#include "velabtrfssnapusage/share_snapshot.h"

namespace {
int gLookups = 0;
int gSleeps = 0;
int gFailWith = VLIB_ERR_BUSY;
VELASHARE gShare = {};
}  // namespace

extern "C" __attribute__((visibility("default"))) int VELAShareGet(const char*, PVELASHARE* ppShare) {
  ++gLookups;
  if (gFailWith == 0) {
    *ppShare = &gShare;
    return 0;
  }
  VLIBCErrSetEx(gFailWith, "test", 1);
  return -1;
}

extern "C" __attribute__((visibility("default"))) unsigned int sleep(unsigned int seconds) {
  ++gSleeps;
  EXPECT_LE(seconds, 4u);
  return 0;
}

namespace VelaBtrfsUsage {
namespace {

class ShareInfoGet : public testing::Test {
 protected:
  void SetUp() override {
    gLookups = gSleeps = 0;
    gFailWith = VLIB_ERR_BUSY;
    vela::test::ClearSyslog();
  }
};

TEST_F(ShareInfoGet, ABusyPlatformIsAskedFifteenTimesWithAPauseAfterEach) {
  PVELASHARE share = nullptr;
  EXPECT_EQ(-1, Utils::ShareInfoGet("share1", &share));
  EXPECT_EQ(15, gLookups);
  EXPECT_EQ(15, gSleeps);
  // Attempts from the third on are logged.
  EXPECT_EQ(13u, vela::test::FindSyslog(LOG_DEBUG, "Failed to get the share (share1), re-try (").size());
}

TEST_F(ShareInfoGet, AnyOtherErrorEndsAfterOneAttempt) {
  PVELASHARE share = nullptr;
  gFailWith = VLIB_ERR_NOT_FOUND;
  EXPECT_EQ(-1, Utils::ShareInfoGet("share1", &share));
  EXPECT_EQ(1, gLookups);
  EXPECT_EQ(0, gSleeps);
  EXPECT_EQ(1u, vela::test::FindSyslog(LOG_ERR, "VELAShareGet failed. share (share1)[0x1400 test:1]").size());
  gFailWith = 0;
  EXPECT_EQ(0, Utils::ShareInfoGet("share1", &share));
  EXPECT_EQ(&gShare, share);
  EXPECT_EQ(-1, Utils::ShareInfoGet(nullptr, &share));
  EXPECT_EQ(-1, Utils::ShareInfoGet("share1", nullptr));
  EXPECT_EQ(2, gLookups) << "bad parameters never reach the platform";
}

}  // namespace
}  // namespace VelaBtrfsUsage
