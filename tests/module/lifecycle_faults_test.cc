// Calculations through the module when things go wrong: children that die
// or whose PIDs come round again, tools that will not stop or stop early,
// refused starts, clean-ups racing starts, hostile state directories,
// locks held by others, corrupt records.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <cstring>
#include <ctime>

#include "support/command.h"
#include "support/fork_child.h"
#include "support/kill_at_step.h"
#include "support/sandbox_mounts.h"
#include "support/scratch_dir.h"
#include "support/share_fixture.h"
#include "support/syslog_capture.h"
#include "velabtrfssnapusage/json_file.h"
#include "velabtrfssnapusage/process_helpers.h"
#include "velabtrfssnapusage/share_task_status.h"

namespace vela::test {
namespace {

using Lifecycle = ShareFixture;

constexpr char kMap[] = "/usr/local/velabtrfssnapusage/share_snap_cal_map";
constexpr char kShareStatus[] = "/usr/local/velabtrfssnapusage/share_task_status/";
constexpr char kTaskStatusDir[] = "/run/velabtrfssnapusage/task_status";

// A run that takes 20 s unless stopped.
std::vector<std::string> SlowScript(std::vector<std::string> first = {}) {
  first.push_back("exclusive 100000 bytes");
  for (int i = 1; i <= 100; ++i) {
    first.push_back("processed " + std::to_string(i * 1000) + " bytes");
    first.push_back("@sleep 200");
  }
  return first;
}

Json::Value ReadJson(const std::string& path) { return VelaBtrfsUsage::Utils::GetJsonAttrByPath(path.c_str()); }

void WriteJson(const std::string& path, const Json::Value& doc) {
  ASSERT_TRUE(VelaBtrfsUsage::Utils::JsonToFile(doc, path)) << path;
}

// Sets the recording time of the share's map entry to `age` seconds ago.
void AgeMapEntry(const std::string& share, long age) {
  Json::Value map = ReadJson(kMap);
  map[share]["time"] = static_cast<Json::Int64>(time(nullptr) - age);
  WriteJson(kMap, map);
}

// Records the share as running under child `pid` started at `ticks` (no
// start time when `ticks` is empty), with the task files a running child has.
void ForgeRunning(const std::string& share, pid_t pid, const std::string& ticks) {
  Json::Value status = ReadJson(kShareStatus + share);
  status["status"] = "process";
  status["pid"] = std::to_string(pid);
  status.removeMember("pid_start_time");
  if (!ticks.empty()) status["pid_start_time"] = ticks;
  WriteJson(kShareStatus + share, status);
  WriteJson(std::string(kTaskStatusDir) + "/" + ReadJson(kMap)[share]["task_id"].asString(), status);
}

bool IsZombie(pid_t pid) {
  const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  const auto close = stat.rfind(')');
  return close != std::string::npos && stat.compare(close, 3, ") Z") == 0;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t begin = 0, end; begin < text.size(); begin = end + 1) {
    end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(begin, end - begin));
  }
  return lines;
}

// A process of the web server's group (not root) that holds read locks on
// `locks` until it is dropped; null when it could not take them.
std::unique_ptr<ChildProcess> HoldReadLocks(const std::vector<std::string>& locks, gid_t group) {
  int ready[2];
  if (pipe(ready) != 0) return nullptr;
  auto holder = std::make_unique<ChildProcess>([&] {
    if (syscall(SYS_setresgid, group, group, group) != 0 || syscall(SYS_setresuid, 65534, 65534, 65534) != 0) _exit(1);
    for (const std::string& lock : locks) {
      const int fd = open(lock.c_str(), O_RDONLY);
      struct flock shared = {};
      shared.l_type = F_RDLCK;
      if (fd < 0 || fcntl(fd, F_SETLK, &shared) != 0) _exit(2);
    }
    (void)!write(ready[1], "L", 1);
    pause();
  });
  const bool held = WaitReadable(ready[0], 5000);
  close(ready[0]);
  close(ready[1]);
  return held ? std::move(holder) : nullptr;
}

size_t FilesIn(const std::string& dir) {
  const std::string out = RunCommand({"find", dir, "-type", "f"}).out;
  return static_cast<size_t>(std::count(out.begin(), out.end(), '\n'));
}

TEST_F(Lifecycle, AChildThatDiedEndsItsCalculationAtOnceAndARecycledPidIsNeverSignalled) {
  tool_.Script(SlowScript());
  ASSERT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  const pid_t child = WaitForProcess("share1");
  ASSERT_GT(child, 0);
  ASSERT_EQ(0, kill(child, SIGKILL));
  // Not reaped yet (this test is the child's reaper): a zombie has ended
  // all the same, at once, not two minutes later.
  for (int i = 0; i < 500 && !IsZombie(child); ++i) usleep(2000);
  ASSERT_TRUE(IsZombie(child));
  EXPECT_EQ("ok {\"share_list\":[]}", Call("status", "{}"));
  EXPECT_EQ("error 1", Call("get_report", R"({"share_name":"share1"})")) << "a failed run has no report";
  EXPECT_EQ("ok null", Call("cancel", R"({"share_name":"share1"})"));
  EXPECT_EQ(128 + SIGKILL, WaitForExit(child, 5000));
  tool_.Script({"@subvols 100"});
  EXPECT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("done 0", WaitForEnd("share1"));

  // The recorded PID now belongs to another process, started at another time.
  ChildProcess stranger([] { pause(); });
  unsigned long long ticks = 0;
  ASSERT_TRUE(VelaBtrfsUsage::Utils::ProcessStartTicks(stranger.Pid(), ticks));
  ForgeRunning("share1", stranger.Pid(), std::to_string(ticks + 1));
  EXPECT_EQ("ok null", Call("cancel", R"({"share_name":"share1"})"));
  usleep(100 * 1000);
  EXPECT_EQ(0, kill(stranger.Pid(), 0)) << "a process that is not the child was signalled";
  EXPECT_EQ("ok {\"share_list\":[]}", Call("status", "{}"));
  EXPECT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("done 0", WaitForEnd("share1"));
}

TEST_F(Lifecycle, ALiveChildBlocksStartsWhateverItsAgeAndOnlyWithoutProofDoTwoMinutesDecide) {
  tool_.Script(SlowScript());
  ASSERT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  ASSERT_GT(WaitForProcess("share1"), 0);
  AgeMapEntry("share1", 1000);
  EXPECT_EQ("error 5002", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("ok null", Call("cancel", R"({"share_name":"share1"})"));
  EXPECT_EQ("stop 12", WaitForEnd("share1"));

  // A record that names no child to check (as older records do) falls back
  // on the age of the map entry.
  ForgeRunning("share1", 0, "");
  AgeMapEntry("share1", 30);
  EXPECT_EQ("error 5002", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("ok null", Call("cancel", R"({"share_name":"share1"})")) << "nothing proven, nothing signalled";
  AgeMapEntry("share1", 120);
  tool_.Script({"@subvols 100"});
  EXPECT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("done 0", WaitForEnd("share1"));
}

TEST_F(Lifecycle, CancelEndsTheToolsWholeProcessGroupEvenAToolThatIgnoresTheStop) {
  tool_.Script(SlowScript({"@ignore-signals", "@pidfile " + tool_.PidFile()}));
  ASSERT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  ASSERT_GT(WaitForProcess("share1"), 0);
  for (int i = 0; i < 500 && RunCommand({"cat", tool_.PidFile()}).out.empty(); ++i) usleep(10000);
  const pid_t tool = std::stoi(ReadFile(tool_.PidFile()));
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ("ok null", Call("cancel", R"({"share_name":"share1"})"));
  EXPECT_EQ("stop 12", WaitForEnd("share1"));
  EXPECT_EQ(128 + SIGKILL, WaitForExit(tool, 5000)) << "the tool must not outlive its calculation";
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(5));
  EXPECT_EQ(0u, FilesIn(kTaskStatusDir)) << "an ended task leaves no task file";
}

TEST_F(Lifecycle, AnIncompleteOutputFailsTheCalculationWithoutResultsNeverAShortReport) {
  ASSERT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  ASSERT_EQ("done 0", WaitForEnd("share1"));
  // The tool ends early: figures for some snapshots only.
  tool_.Script({"exclusive 600 bytes", "subvol(1) 100 bytes", "@exit 1"});
  ASSERT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("fail 1", WaitForEnd("share1"));
  EXPECT_EQ("error 1", Call("get_report", R"({"share_name":"share1"})"));
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "The btrfs tool gave no figure for ").size()) << DumpSyslog();
  EXPECT_EQ(0u, FilesIn("/run/velabtrfssnapusage"));
  // Every figure given, then a failure: the figures stand, the status is logged.
  tool_.Script({"@subvols 100", "@exit 3"});
  ASSERT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("done 0", WaitForEnd("share1"));
  EXPECT_EQ(1u, FindSyslog(LOG_WARNING, "The btrfs tool ended with exit status 3").size());
  EXPECT_EQ(3u, module_.Call("get_report", R"({"share_name":"share1"})").GetData()["snap_list"].size());
}

TEST_F(Lifecycle, ASnapshotDeletedUnderTheRealProviderFailsTheCalculation) {
  ScratchDir dir;
  const std::string doomed = snaps_["share1"][1].path;
  WriteFile(dir / "tool", "#!/bin/sh\nbtrfs subvolume delete -c " + doomed + " >/dev/null\nexec " +
                              VELA_TEST_SIZE_PROVIDER_PATH + " \"$@\"\n");
  ASSERT_EQ(0, chmod((dir / "tool").c_str(), 0755));
  ASSERT_EQ("", BindInto(dir / "tool", BtrfsToolDouble::ToolPath()));
  ASSERT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("fail 1", WaitForEnd("share1"));
  EXPECT_EQ("error 1", Call("get_report", R"({"share_name":"share1"})"));
}

TEST_F(Lifecycle, RefusedStartsLeaveTheShareFreeWithItsReportAndUnknownSharesLeaveNothing) {
  EXPECT_EQ("error 1", Call("start", StartParams("no-such-share", 1, 1)));
  EXPECT_EQ("error 1", Call("get_report", R"({"share_name":"no-such-share"})"));
  for (const char* root : {"/run/velabtrfssnapusage", "/run/lock/velabtrfssnapusage", "/usr/local/velabtrfssnapusage"}) {
    EXPECT_NE(0, access(root, F_OK)) << root << " made for a share that does not exist";
  }
  ASSERT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  ASSERT_EQ("done 0", WaitForEnd("share1"));
  const std::string report = Call("get_report", R"({"share_name":"share1"})");
  for (const auto& [params, answer] : std::vector<std::pair<std::string, std::string>>{
           {StartParams("share1", kT0 + 20, kT0 + 10), "error 3"},
           {StartParams("share1", 1, 4000000000000000000), "error 3"},
           {StartParams("share1", -31000000000, kT0), "error 3"},  // the year 987
           {StartParams("share1", kT0 + 10, kT0 + 20), "error 5001"},
           {StartParams("no-such-share", 1, 1), "error 1"}}) {
    EXPECT_EQ(answer, Call("start", params)) << params;
    EXPECT_EQ("done 0", State("share1")) << params;
    EXPECT_EQ(report, Call("get_report", R"({"share_name":"share1"})")) << params;
  }
  EXPECT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("done 0", WaitForEnd("share1"));
}

TEST_F(Lifecycle, StartCleanLoopsNeverLeaveASecondChildAndCleanTouchesOnlyItsShare) {
  ASSERT_EQ("ok null", Call("start", StartParams("share2", 1, 1)));
  ASSERT_EQ("done 0", WaitForEnd("share2"));
  tool_.Script(SlowScript());
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ("ok null", Call("start", StartParams("share1", 1, 1))) << "round " << i;
    EXPECT_LE(CountLiveChildren(), 1) << "round " << i;
    EXPECT_EQ("ok null", Call("clean", R"({"share_name":"share1"})"));
    EXPECT_EQ(0, CountLiveChildren()) << "round " << i;
  }
  EXPECT_EQ(0u, FilesIn("/run/velabtrfssnapusage"));
  // A share whose volume is not mounted now keeps its entry.
  Json::Value map = ReadJson(kMap);
  map["on-unmounted-volume"] = map["share2"];
  WriteJson(kMap, map);
  ASSERT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("ok null", Call("clean", R"({"share_name":"share1"})"));
  EXPECT_EQ((std::vector<std::string>{"on-unmounted-volume", "share2"}), ReadJson(kMap).getMemberNames());
  EXPECT_EQ("done", module_.Call("get_report", R"({"share_name":"share2"})").GetData()["status"].asString());
}

TEST_F(Lifecycle, WhicheverProcessOfAStartDiesAtWhicheverStepAtMostOneCalculationRunsAndNothingIsLeft) {
  tool_.Script({"@alone", "exclusive 600 bytes", "@sleep 20", "@subvols 100"});
  const std::string params = StartParams("share1", 1, 1);
  ASSERT_EQ("ok null", Call("start", params));  // each start then replaces a finished calculation
  ASSERT_EQ("done 0", WaitForEnd("share1"));
#ifdef __SANITIZE_ADDRESS__
  // Under the sanitizers every third step: they look at the same code at a
  // quarter of the speed; every step is swept in the normal build.
  constexpr int kStride = 3;
#else
  constexpr int kStride = 1;
#endif
  int step = 1;
  for (;; step += kStride) {
    const KilledStep killed = KillAtStep([&] { module_.Call("start", params); }, step);
    if (!killed.killed) break;
    const std::string at = "killed at step " + std::to_string(step) + " (" + killed.call + ")";
    // The next start finds the calculation running, or none (and starts it).
    const std::string next = Call("start", params);
    EXPECT_TRUE(next == "ok null" || next == "error 5002") << at << ": " << next;
    for (int i = 0; i < 1000 && (HasChildren() || State("share1").rfind("ready", 0) == 0 ||
                                 State("share1").rfind("process", 0) == 0); ++i) {
      WaitForExit(-1, 10);
    }
    ASSERT_FALSE(HasChildren()) << at;
    EXPECT_NE(0, access((std::string(kBtrfsDoubleDir) + "/overlaps").c_str(), F_OK)) << at << ": two tools ran";
    unlink((std::string(kBtrfsDoubleDir) + "/overlaps").c_str());
    EXPECT_EQ(0u, FilesIn("/run/velabtrfssnapusage")) << at;
    EXPECT_EQ("", RunCommand({"find", "/run/velabtrfssnapusage", "/run/lock/velabtrfssnapusage",
                              "/usr/local/velabtrfssnapusage", "-name", ".*.tmp"}).out) << at;
  }
  EXPECT_GT(step, 100) << "the sweep must cover the whole start";
}

TEST_F(Lifecycle, AShareWithTheLongestNameIsCalculated) {
  const std::string name(255, 'n');
  volume_.CreateSubvolume(name);
  Snapshot(name);
  ASSERT_EQ("ok null", Call("start", StartParams(name, 1, 1)));
  EXPECT_EQ("done 0", WaitForEnd(name));
  const auto report = module_.Call("get_report", R"({"share_name":")" + name + "\"}");
  EXPECT_EQ(1u, report.GetData()["snap_list"].size()) << Answer(report);
  EXPECT_EQ("ok null", Call("clean", R"({"share_name":")" + name + "\"}"));
}

TEST_F(Lifecycle, WhatAUserPutWhereTheLockDirectoryGoesIsMovedAsideButRootsOwnOddDirectoriesAreRefused) {
  ScratchDir dir;
  constexpr char kLockRoot[] = "/run/lock/velabtrfssnapusage";
  // /run/lock is open to every user: one makes the module's directory first.
  EXPECT_EQ("made", RunForked([&] {
              if (syscall(SYS_setresgid, 1000, 1000, 1000) != 0 || syscall(SYS_setresuid, 1000, 1000, 1000) != 0 ||
                  mkdir(kLockRoot, 0777) != 0) {
                return std::string(strerror(errno));
              }
              WriteFile(std::string(kLockRoot) + "/mine", "");
              return std::string("made");
            }));
  EXPECT_EQ("ok null", Call("set_conf", R"({"reminder":false})"));
  ASSERT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  EXPECT_EQ("done 0", WaitForEnd("share1"));
  EXPECT_EQ(R"(ok {"share_list":[{"share_name":"share1","status":"done"}]})", Call("status", "{}"));
  EXPECT_EQ(1u, FindSyslog(LOG_WARNING, "Moved the foreign state directory /run/lock/velabtrfssnapusage aside to "
                                        "/run/lock/.velabtrfssnapusage.foreign.").size()) << DumpSyslog();
  EXPECT_EQ(1u, Lines(RunCommand({"find", "/run/lock", "-path", "*/.velabtrfssnapusage.foreign.*/mine", "-user",
                                  "1000"}).out).size()) << "what the user put there is kept, aside";
  // A link put there is moved aside, never followed.
  RemoveTree(kLockRoot);
  ASSERT_EQ(0, symlink(dir.Path().c_str(), kLockRoot));
  EXPECT_EQ("ok null", Call("set_conf", R"({"reminder":true})"));
  EXPECT_EQ("", RunCommand({"ls", "-A", dir.Path()}).out) << "written through a planted link";
  struct stat st;
  ASSERT_EQ(0, lstat(kLockRoot, &st));
  EXPECT_TRUE(S_ISDIR(st.st_mode) && st.st_uid == 0 && (st.st_mode & 07777) == 0755);

  RemoveTree("/usr/local/velabtrfssnapusage");
  ASSERT_EQ(0, symlink(dir.Path().c_str(), "/usr/local/velabtrfssnapusage"));
  EXPECT_EQ("error 1", Call("set_conf", R"({"reminder":false})"));
  EXPECT_EQ("", RunCommand({"ls", "-A", dir.Path()}).out) << "written through a planted link";
  EXPECT_FALSE(FindSyslog(LOG_ERR, "/usr/local/velabtrfssnapusage: it is a symbolic link").empty());
  ASSERT_EQ(0, unlink("/usr/local/velabtrfssnapusage"));

  ASSERT_EQ(0, chmod("/run/velabtrfssnapusage", 0775));
  EXPECT_EQ("error 1", Call("start", StartParams("share1", 1, 1)));
  EXPECT_FALSE(FindSyslog(LOG_ERR, "/run/velabtrfssnapusage: its group or others may write to it (mode 0775)").empty());
  ASSERT_EQ(0, chmod("/run/velabtrfssnapusage", 0755));

  // A FIFO where a record belongs is not waited on.
  ASSERT_EQ("ok null", Call("set_conf", R"({"reminder":false})"));
  ASSERT_EQ(0, unlink("/usr/local/velabtrfssnapusage/reminder_record"));
  ASSERT_EQ(0, mkfifo("/usr/local/velabtrfssnapusage/reminder_record", 0600));
  EXPECT_EQ("ok {\"reminder\":true}", Call("get_conf", R"({"additional":["reminder"]})"));
}

TEST(StateDirectories, TheBootEntryMakesTheRunTimeDirectoriesRootsAndClosedToOthers) {
  ScratchDir root;
  ASSERT_EQ(0, mkdir((root / "run").c_str(), 0755));
  ASSERT_EQ(0, mkdir((root / "run/lock").c_str(), 01777));
  const CommandResult made = RunCommand({"systemd-tmpfiles", "--create", "--root=" + root.Path(), VELA_TEST_TMPFILES_CONF});
  EXPECT_EQ(0, made.status) << made.err;
  for (const char* dir : {"run/velabtrfssnapusage", "run/lock/velabtrfssnapusage"}) {
    struct stat st;
    ASSERT_EQ(0, lstat((root / dir).c_str(), &st)) << dir;
    EXPECT_TRUE(S_ISDIR(st.st_mode) && st.st_uid == 0 && st.st_gid == 0 && (st.st_mode & 07777) == 0755) << dir;
  }
}

TEST_F(Lifecycle, OnlyRootAndTheWebGroupCanHoldALockAndEveryWaitForOneIsBounded) {
  constexpr gid_t kWebGroup = 4242;
  constexpr uid_t kNobody = 65534;
  ASSERT_EQ("", AddGroup("velaweb", kWebGroup));
  // A lock file left open to all (by an older version) is closed again.
  const std::string lock = "/run/lock/velabtrfssnapusage/reminder_record.lock";
  ASSERT_EQ(0, mkdir("/run/lock/velabtrfssnapusage", 0755));
  WriteFile(lock, "");
  ASSERT_EQ(0, chmod(lock.c_str(), 0666));
  ASSERT_EQ("ok null", Call("set_conf", R"({"reminder":true})"));
  struct stat st;
  ASSERT_EQ(0, stat(lock.c_str(), &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);
  EXPECT_EQ(kWebGroup, st.st_gid);
  // Outside the group, the lock file cannot even be opened.
  EXPECT_EQ("EACCES", RunForked([&] {
              if (syscall(SYS_setresgid, kNobody, kNobody, kNobody) != 0 ||
                  syscall(SYS_setresuid, kNobody, kNobody, kNobody) != 0) {
                return std::string("setres");
              }
              return std::string(open(lock.c_str(), O_RDONLY) < 0 && errno == EACCES ? "EACCES" : "opened");
            }));
  // A member of the group that holds its lock for ever holds up a writer
  // for the bounded wait only.
  const auto holder = HoldReadLocks({lock}, kWebGroup);
  ASSERT_NE(nullptr, holder);
  setenv("VELA_LOCK_WAIT_MS", "300", 1);
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ("error 1", Call("set_conf", R"({"reminder":false})"));
  unsetenv("VELA_LOCK_WAIT_MS");
  EXPECT_GE(std::chrono::steady_clock::now() - asked, std::chrono::milliseconds(300));
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "Gave up waiting for the lock on file [" + lock + "] after 300 ms").size())
      << DumpSyslog();
  EXPECT_EQ("ok {\"reminder\":true}", Call("get_conf", R"({"additional":["reminder"]})")) << "readers share";

  // get_report runs with the web server's ids: the group is enough.
  ASSERT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  ASSERT_EQ("done 0", WaitForEnd("share1"));
  const auto reportAsServer = [&] {
    return RunForked([&] {
      if (syscall(SYS_setresgid, -1, kWebGroup, -1) != 0 || syscall(SYS_setresuid, -1, kNobody, -1) != 0) {
        return std::string("setres");
      }
      const auto report = module_.Call("get_report", R"({"share_name":"share1"})");
      return report.IsSuccess() ? std::to_string(report.GetData()["snap_list"].size()) : Answer(report);
    });
  };
  EXPECT_EQ("3", reportAsServer());
  // A lock file of another group (made while the machine had no such
  // group): the server still reads, and root puts the group right when it
  // next uses the file, reading or writing.
  const std::string mapLock = "/run/lock/velabtrfssnapusage/share_snap_cal_map.lock";
  ASSERT_EQ(0, chown(mapLock.c_str(), 0, 0));
  EXPECT_EQ("3", reportAsServer());
  EXPECT_EQ(R"(ok {"share_list":[{"share_name":"share1","status":"done"}]})", Call("status", "{}"));
  ASSERT_EQ(0, stat(mapLock.c_str(), &st));
  EXPECT_EQ(kWebGroup, st.st_gid);
}

TEST_F(Lifecycle, ReadLocksHeldByTheWebGroupNeitherStallACalculationNorLoseItsOutcomeAndAFailedCleanSaysSo) {
  constexpr gid_t kWebGroup = 4242;
  ASSERT_EQ("", AddGroup("velaweb", kWebGroup));
  setenv("VELA_LOCK_WAIT_MS", "300", 1);
  std::vector<std::string> script = {"@sleep 400", "exclusive 600 bytes"};
  for (int i = 1; i <= 6; ++i) script.push_back("processed " + std::to_string(i * 100) + " bytes");
  script.push_back("@subvols 100");
  tool_.Script(script);
  ASSERT_EQ("ok null", Call("start", StartParams("share1", 1, 1)));
  ASSERT_GT(WaitForProcess("share1"), 0);
  const std::string statusLock = "/run/lock/velabtrfssnapusage/share_task_status/share1";
  const std::string creationLock = "/run/lock/velabtrfssnapusage/share_task/share1.lock";
  auto holder = HoldReadLocks({statusLock, creationLock}, kWebGroup);
  ASSERT_NE(nullptr, holder);
  // Progress is skipped while the share's lock is held; the outcome waits
  // its bounded while once, then is written all the same.
  EXPECT_EQ("done 0", WaitForEnd("share1"));
  EXPECT_EQ(1u, FindSyslog(LOG_ERR, "Gave up waiting for the lock on file [" + statusLock + "]").size()) << DumpSyslog();
  EXPECT_EQ(3u, module_.Call("get_report", R"({"share_name":"share1"})").GetData()["snap_list"].size());
  EXPECT_EQ("error 1", Call("clean", R"({"share_name":"share1"})")) << "nothing could be cleaned";
  EXPECT_EQ("done 0", State("share1"));
  holder.reset();
  EXPECT_EQ("ok null", Call("clean", R"({"share_name":"share1"})"));
  EXPECT_EQ("- -", State("share1")) << "no record left";
  unsetenv("VELA_LOCK_WAIT_MS");
}

TEST_F(Lifecycle, CorruptNumbersAreLeftOutOfTheirShareAndDeepNestingReadsAsCorrupt) {
  for (const char* share : {"share1", "share2"}) {
    ASSERT_EQ("ok null", Call("start", StartParams(share, 1, 1)));
    ASSERT_EQ("done 0", WaitForEnd(share));
  }
  Json::Value status = ReadJson(std::string(kShareStatus) + "share1");
  status["processed_in_bytes"] = "12abc";
  status["estimated_in_bytes"] = "0x10";
  WriteJson(std::string(kShareStatus) + "share1", status);
  EXPECT_EQ(R"(ok {"share_list":[{"estimated_in_bytes":16,"share_name":"share1","status":"done"},)"
            R"({"estimated_in_bytes":600,"processed_in_bytes":600,"share_name":"share2","status":"done"}]})",
            Call("status", R"({"additional":["processed_in_bytes","estimated_in_bytes"]})"));
  const auto report = module_.Call("get_report", R"({"share_name":"share1"})");
  EXPECT_TRUE(report.IsSuccess() && !report.GetData().isMember("processed_in_bytes")) << Answer(report);

  std::string deep = "1";
  for (int i = 0; i < 65; ++i) deep = "[" + deep + "]";
  WriteFile(kMap, "{\"share1\":" + deep + "}");
  EXPECT_EQ("ok {\"share_list\":[]}", Call("status", "{}"));
  EXPECT_EQ("error 1", Call("get_report", R"({"share_name":"share1"})"));
}

}  // namespace
}  // namespace vela::test
