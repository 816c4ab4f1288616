// Locks between processes and atomic JSON writes: the ground every state
// file of the system stands on.
#include "velabtrfssnapusage/json_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/atomic_file.h"
#include "base/file_name.h"
#include "base/numbers.h"
#include "support/fork_child.h"
#include "support/scratch_dir.h"
#include "support/syslog_capture.h"

namespace VelaBtrfsUsage::Utils {
namespace {

using vela::test::ChildProcess;
using vela::test::FindSyslog;
using vela::test::ScratchDir;
using vela::test::WaitReadable;

constexpr char kLockRoot[] = "/run/lock/velabtrfssnapusage";

Json::Value Doc(const std::string& key, const std::string& value) {
  Json::Value doc(Json::objectValue);
  doc[key] = value;
  return doc;
}

// Everything in `dir` but `keep`: temporaries left behind.
std::vector<std::string> Leftovers(const std::string& dir, const std::string& keep) {
  std::vector<std::string> found;
  DIR* d = opendir(dir.c_str());
  while (struct dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name != "." && name != ".." && name != keep && name != "filler") found.push_back(name);
  }
  closedir(d);
  return found;
}

// A child that takes the lock and reports on a pipe once it holds it.
struct LockHolder {
  int ready[2];
  int release[2];
  std::unique_ptr<ChildProcess> child;

  LockHolder(const std::string& path, bool exclusive) {
    EXPECT_EQ(0, pipe(ready));
    EXPECT_EQ(0, pipe(release));
    child = std::make_unique<ChildProcess>([&] {
      int fd = -1;
      if (!GeneralFileLock(path, exclusive, fd)) _exit(1);
      (void)!write(ready[1], "L", 1);
      char c;
      (void)!read(release[0], &c, 1);
      GeneralFileUnlock(fd);
    });
  }
  bool Acquired(int timeoutMs) const { return WaitReadable(ready[0], timeoutMs); }
  void Release() { (void)!write(release[1], "R", 1); }
  ~LockHolder() {
    for (int fd : {ready[0], ready[1], release[0], release[1]}) close(fd);
  }
};

TEST(FileLock, SharedLocksCoexistAndAnExclusiveOneWaitsForTheirRelease) {
  const std::string path = std::string(kLockRoot) + "/contended.lock";
  umask(0);  // the modes below must not come from the umask
  int fd = -1;
  ASSERT_TRUE(GeneralFileLock(path, false, fd));
  EXPECT_EQ(-1, fd) << "a reader creates no lock file";
  struct stat st;
  EXPECT_NE(0, stat(kLockRoot, &st)) << "nor its directory";
  ASSERT_TRUE(GeneralFileLock(path, true, fd));
  ASSERT_TRUE(GeneralFileUnlock(fd));
  ASSERT_EQ(0, stat(path.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);
  ASSERT_EQ(0, stat(kLockRoot, &st));
  EXPECT_EQ(0755u, st.st_mode & 07777);
  umask(022);
  ASSERT_TRUE(GeneralFileLock(path, false, fd));

  LockHolder reader(path, false);
  EXPECT_TRUE(reader.Acquired(5000)) << "a second shared lock must be granted at once";
  LockHolder writer(path, true);
  EXPECT_FALSE(writer.Acquired(300)) << "exclusive lock granted while shared locks are held";
  reader.Release();
  EXPECT_EQ(0, reader.child->Wait());
  EXPECT_FALSE(writer.Acquired(200)) << "exclusive lock granted while this process holds a shared one";
  EXPECT_TRUE(GeneralFileUnlock(fd));
  EXPECT_TRUE(writer.Acquired(5000));
  writer.Release();
  EXPECT_EQ(0, writer.child->Wait());

  int none = -1;
  EXPECT_TRUE(GeneralFileUnlock(none));
}

TEST(FileLock, LockedReadModifyWriteLosesNoUpdateAcrossProcesses) {
  ScratchDir dir;
  const std::string data = dir / "counter";
  const std::string lock = std::string(kLockRoot) + "/counter.lock";
  Json::Value start(Json::objectValue);
  start["n"] = 0;
  ASSERT_TRUE(JsonToFile(start, data));
  constexpr int kProcesses = 4;
  constexpr int kIncrements = 50;
  std::vector<std::unique_ptr<ChildProcess>> children;
  for (int p = 0; p < kProcesses; ++p) {
    children.push_back(std::make_unique<ChildProcess>([&] {
      for (int i = 0; i < kIncrements; ++i) {
        int fd = -1;
        if (!GeneralFileLock(lock, true, fd)) _exit(1);
        Json::Value doc;
        if (!JsonFromFile(doc, data)) _exit(2);
        doc["n"] = doc["n"].asInt() + 1;
        if (!JsonToFile(doc, data)) _exit(3);
        GeneralFileUnlock(fd);
      }
    }));
  }
  for (auto& child : children) EXPECT_EQ(0, child->Wait());
  Json::Value end;
  ASSERT_TRUE(JsonFromFile(end, data));
  EXPECT_EQ(kProcesses * kIncrements, end["n"].asInt());
}

TEST(JsonToFile, RewriteKeepsOwnerAndSets0644WhileANewFileIs0600) {
  ScratchDir dir;
  umask(022);
  const std::string fresh = dir / "fresh";
  ASSERT_TRUE(JsonToFile(Doc("a", "1"), fresh));
  struct stat st;
  ASSERT_EQ(0, stat(fresh.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 07777);
  EXPECT_EQ(0u, st.st_uid);

  const std::string owned = dir / "owned";
  vela::test::WriteFile(owned, "{}");
  ASSERT_EQ(0, chown(owned.c_str(), 1234, 5678));
  ASSERT_EQ(0, chmod(owned.c_str(), 0600));
  ASSERT_TRUE(JsonToFile(Doc("b", "2"), owned));
  ASSERT_EQ(0, stat(owned.c_str(), &st));
  EXPECT_EQ(1234u, st.st_uid);
  EXPECT_EQ(5678u, st.st_gid);
  EXPECT_EQ(0644u, st.st_mode & 07777);
  Json::Value back;
  ASSERT_TRUE(JsonFromFile(back, owned));
  EXPECT_EQ(Doc("b", "2"), back);
  unlink(fresh.c_str());
  EXPECT_TRUE(Leftovers(dir.Path(), "owned").empty());
}

TEST(JsonToFile, FailedWriteOnAFullDiskLeavesTheOldFileWholeAndNoTemporary) {
  ScratchDir dir;
  const std::string disk = dir / "disk";
  ASSERT_EQ(0, mkdir(disk.c_str(), 0755));
  ASSERT_EQ(0, mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k"));
  const std::string target = disk + "/record";
  ASSERT_TRUE(JsonToFile(Doc("old", "value"), target));
  // Fill what is left of the disk.
  const int filler = open((disk + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const std::string block(4096, 'x');
  while (write(filler, block.data(), block.size()) > 0) {
  }
  close(filler);

  EXPECT_FALSE(JsonToFile(Doc("new", std::string(32768, 'y')), target));
  Json::Value back;
  ASSERT_TRUE(JsonFromFile(back, target));
  EXPECT_EQ(Doc("old", "value"), back);
  EXPECT_TRUE(Leftovers(disk, "record").empty());
  EXPECT_FALSE(SetJsonAttrByPath(target.c_str(), Doc("new", std::string(32768, 'y'))));
  EXPECT_EQ(1u, FindSyslog(LOG_DEBUG, "Failed to write Json data to file, path: " + target).size());
  umount2(disk.c_str(), MNT_DETACH);
}

TEST(JsonToFile, AWriterKilledAtAnyMomentNeverLeavesATargetThatDoesNotParseNorItsTemporaryForLong) {
  ScratchDir dir;
  // The longest name a file can have: its temporary name must fit too.
  const std::string target = dir / std::string(255, 'r');
  ASSERT_TRUE(JsonToFile(Doc("k", "initial"), target));
  for (int round = 0; round < 25; ++round) {
    ChildProcess writer([&] {
      for (int i = 0;; ++i) JsonToFile(Doc("k", std::string(100000 + i % 7, 'a' + i % 26)), target);
    });
    usleep(1000 + (round * 3571) % 20000);
    kill(writer.Pid(), SIGKILL);
    writer.Wait();
    Json::Value doc;
    ASSERT_TRUE(JsonFromFile(doc, target)) << "round " << round;
    ASSERT_TRUE(doc.isMember("k"));
  }
  // What the last killed writer left is removed by the next one.
  ASSERT_TRUE(JsonToFile(Doc("k", "last"), target));
  EXPECT_TRUE(Leftovers(dir.Path(), std::string(255, 'r')).empty());
}

TEST(JsonToFile, NoOtherNameCanTakeAFilesShortenedOrTemporaryNameNorCanAnythingPlantedThereBlockIt) {
  // A name too long for a directory entry is shortened and hashed; a name
  // given whole may look just like that result.
  const std::string longName(255, 'n');
  const std::string shortened = vela::base::FitFileName("", longName, ".lock");
  EXPECT_EQ(255u, shortened.size());
  const std::string poser = shortened.substr(0, shortened.size() - 5);
  EXPECT_NE(shortened, vela::base::FitFileName("", poser, ".lock"));
  EXPECT_NE(vela::base::TemporaryNameFor(longName), vela::base::TemporaryNameFor(poser));

  ScratchDir dir;
  const std::string temp = dir / vela::base::TemporaryNameFor("record");
  ASSERT_EQ(0, mkdir(temp.c_str(), 0755));
  ASSERT_EQ(0, mkdir((temp + "/inner").c_str(), 0755));
  vela::test::WriteFile(temp + "/inner/file", "x");
  ASSERT_EQ(0, symlink(dir.Path().c_str(), (temp + "/link").c_str()));
  EXPECT_TRUE(JsonToFile(Doc("k", "v"), dir / "record"));
  EXPECT_TRUE(Leftovers(dir.Path(), "record").empty());
}

TEST(JsonFromFile, MissingCorruptDeeplyNestedOrSpecialFilesFailWithDebugMessagesOnly) {
  ScratchDir dir;
  vela::test::ClearSyslog();
  Json::Value doc;
  EXPECT_FALSE(JsonFromFile(doc, dir / "missing"));
  EXPECT_EQ(1u, FindSyslog(LOG_DEBUG, "Failed to open ifstream (" + (dir / "missing")).size());
  EXPECT_TRUE(GetJsonAttrByPath((dir / "missing").c_str()).isNull());

  for (const char* corrupt : {"", "{\"a\": ", "not json"}) {
    vela::test::WriteFile(dir / "corrupt", corrupt);
    EXPECT_FALSE(JsonFromFile(doc, dir / "corrupt")) << corrupt;
  }
  std::string nested = "1";
  for (int depth = 1; depth <= 65; ++depth) {
    nested = "[" + nested + "]";
    vela::test::WriteFile(dir / "corrupt", nested);
    EXPECT_EQ(depth <= 64, JsonFromFile(doc, dir / "corrupt")) << depth;
  }
  EXPECT_EQ(4u, FindSyslog(LOG_DEBUG, "Some errors occurs when parseing input stream, path(" +
                                          (dir / "corrupt")).size());
  // Neither waited on nor followed.
  ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0600));
  EXPECT_FALSE(JsonFromFile(doc, dir / "fifo"));
  ASSERT_EQ(0, symlink((dir / "corrupt").c_str(), (dir / "link").c_str()));
  EXPECT_FALSE(JsonFromFile(doc, dir / "link"));
  EXPECT_TRUE(FindSyslog(LOG_ERR, "").empty()) << vela::test::DumpSyslog();

  EXPECT_FALSE(JsonToFile(Doc("a", "b"), ""));
  EXPECT_FALSE(JsonFromFile(doc, ""));
}

TEST(Numbers, OnlyTheOneWrittenFormOfANumberIsAccepted) {
  uint64_t n = 0;
  EXPECT_TRUE(vela::base::ParseRootId("18446744073709551615", n));
  EXPECT_EQ(~0ull, n);
  for (const char* bad : {"0256", "0", "", "+5", " 5", "5 ", "18446744073709551616", "5x"}) {
    EXPECT_FALSE(vela::base::ParseRootId(bad, n)) << bad;
  }
  EXPECT_TRUE(vela::base::ParseUnsignedAnyBase("0x10", n));
  EXPECT_EQ(16u, n);
  EXPECT_TRUE(vela::base::ParseUnsignedAnyBase("010", n));
  EXPECT_EQ(8u, n);
  for (const char* bad : {"12abc", "-1", "0x", "09", "", "99999999999999999999"}) {
    EXPECT_FALSE(vela::base::ParseUnsignedAnyBase(bad, n)) << bad;
  }
}

}  // namespace
}  // namespace VelaBtrfsUsage::Utils
