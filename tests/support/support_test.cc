// The sandbox is what keeps every other test off the machine's state, so its
// promises are checked first.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <syslog.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/btrfs_image.h"
#include "support/command.h"
#include "support/sandbox_mounts.h"
#include "support/scratch_dir.h"
#include "support/syslog_capture.h"

namespace vela::test {
namespace {

bool Exists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

TEST(Sandbox, FixedStatePathsStartMissingAndWritesStayPrivate) {
  ASSERT_TRUE(InSandbox());
  EXPECT_FALSE(Exists("/run/velabtrfssnapusage"));
  EXPECT_FALSE(Exists("/run/lock/velabtrfssnapusage"));
  EXPECT_FALSE(Exists("/usr/local/velabtrfssnapusage"));
  EXPECT_TRUE(Exists("/run/lock"));
  // /usr/local is an overlay: the machine's files are visible, writes are not
  // the machine's.
  struct statfs fs;
  ASSERT_EQ(0, statfs("/usr/local", &fs));
  EXPECT_EQ(0x794c7630, static_cast<long>(fs.f_type));
  ASSERT_EQ(0, mkdir("/usr/local/velabtrfssnapusage", 0777));
  ASSERT_EQ(0, statfs("/run", &fs));
  EXPECT_EQ(0x01021994, static_cast<long>(fs.f_type));
}

TEST(SyslogCapture, RecordsLinesOfForkedChildrenWithPriorityAndNewlines) {
  ClearSyslog();
  syslog(LOG_AUTH | LOG_INFO, "%s:%d parent line", "share", 7);
  const pid_t child = fork();
  if (child == 0) {
    syslog(LOG_ERR, "%s:%d Invaild Argument (%s)=[%d]\n", "x", 1, "!a.empty()", 0);
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  auto records = CapturedSyslog();
  ASSERT_EQ(2u, records.size()) << DumpSyslog();
  EXPECT_EQ(38, records[0].priority);
  EXPECT_EQ("share:7 parent line", records[0].text);
  EXPECT_EQ(LOG_ERR, records[1].priority);
  EXPECT_EQ("x:1 Invaild Argument (!a.empty())=[0]\n", records[1].text);
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "Invaild").size());
}

}  // namespace
}  // namespace vela::test
