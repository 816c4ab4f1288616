// Programs run through a pipe, and workers forked for nobody to wait for.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <thread>

#include "support/fork_child.h"
#include "support/scratch_dir.h"
#include "vela/vlib_error.h"
#include "vela/vlib_proc.h"

namespace vela::test {
namespace {

std::string ReadAll(FILE* fp) {
  std::string text;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), fp)) > 0) text.append(buffer, n);
  return text;
}

// True when the caller has no child left to reap, not even a zombie.
bool NoChildren() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

bool WaitFor(const std::function<bool()>& condition, int timeoutMs = 5000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

bool HasContent(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && st.st_size > 0;
}

// The state letter of /proc/PID/stat ("R", "S", "Z"...), "" when gone.
std::string ProcessState(pid_t pid) {
  try {
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    const auto paren = stat.rfind(')');
    return paren == std::string::npos ? "" : stat.substr(paren + 2, 1);
  } catch (const std::exception&) {
    return "";
  }
}

// The worker's side of the tests: leaves its PID in `dir`/pid (written
// whole, then renamed, so that it holds no descriptor once it is there) and
// waits to be killed.
[[noreturn]] void RunWorker(const std::string& dir) {
  const std::string temp = dir + "/pid.tmp";
  const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  const std::string pid = std::to_string(getpid());
  if (fd >= 0 && write(fd, pid.data(), pid.size()) == static_cast<ssize_t>(pid.size())) {
    close(fd);
    rename(temp.c_str(), (dir + "/pid").c_str());
  }
  for (int i = 0; i < 600; ++i) usleep(100 * 1000);  // a minute at most
  _exit(0);
}

TEST(Popen, PcloseGivesTheExitStatusOnceAndLeavesOtherStreamsAlone) {
  FILE* fp = VLIBCPopen("/bin/sh", "r", "-c", "echo out; exit 3", nullptr);
  ASSERT_NE(nullptr, fp);
  EXPECT_EQ("out\n", ReadAll(fp));
  EXPECT_EQ(3, VLIBCPclose(fp));
  // A second close of the same stream touches nothing.
  EXPECT_EQ(-1, VLIBCPclose(fp));
  EXPECT_EQ(VLIB_ERR_BAD_PARAMETERS, VLIBCErrGet());

  char* const argv[] = {const_cast<char*>("true"), nullptr};
  fp = VLIBCPopenv("/bin/true", "rB", argv);
  ASSERT_NE(nullptr, fp);
  EXPECT_EQ(0, VLIBCPclose(fp));

  // A server ignores SIGPIPE; its programs must still die of it when the
  // server stops reading.
  signal(SIGPIPE, SIG_IGN);
  fp = VLIBCPopen("/usr/bin/yes", "r", nullptr);
  ASSERT_NE(nullptr, fp);
  char line[16];
  ASSERT_NE(nullptr, fgets(line, sizeof(line), fp));
  EXPECT_EQ(128 + SIGPIPE, VLIBCPclose(fp));
  signal(SIGPIPE, SIG_DFL);

  FILE* other = tmpfile();
  ASSERT_NE(nullptr, other);
  EXPECT_EQ(-1, VLIBCPclose(other));
  EXPECT_EQ(-1, VLIBCPclose(nullptr));
  EXPECT_GT(fputs("still open\n", other), 0);
  EXPECT_EQ(0, fclose(other));
  EXPECT_TRUE(NoChildren());
}

TEST(Popen, WriteStreamsDeliverEachLineBeforeTheyClose) {
  ScratchDir dir;
  const std::string script = "read line; echo \"$line\" > " + (dir / "got") + "; cat > /dev/null; exit 4";
  FILE* fp = VLIBCPopen("/bin/sh", "w", "-c", script.c_str(), nullptr);
  ASSERT_NE(nullptr, fp);
  ASSERT_GT(fputs("first\n", fp), 0);
  EXPECT_TRUE(WaitFor([&] { return HasContent(dir / "got"); }));
  EXPECT_EQ(4, VLIBCPclose(fp));
  EXPECT_EQ("first\n", ReadFile(dir / "got"));
}

TEST(Popen, ProgramsGetOnlyStandardStreamsNullInputAFixedEnvironmentAndTheRoot) {
  setenv("LC_ALL", "de_DE.UTF-8", 1);
  setenv("VELA_PROBE", "kept", 1);
  ScratchDir dir;
  char callersDir[4096];
  ASSERT_NE(nullptr, getcwd(callersDir, sizeof(callersDir)));
  ASSERT_EQ(0, chdir(dir.Path().c_str()));
  // Descriptors the caller leaves inheritable must not reach the program.
  const int inheritable = open("/dev/null", O_RDONLY);
  ASSERT_GE(inheritable, 3);
  int plainPipe[2];
  ASSERT_EQ(0, pipe(plainPipe));

  FILE* fp = VLIBCPopen("/bin/sh", "r", "-c", "ls /proc/$$/fd; readlink /proc/$$/fd/0 /proc/$$/cwd", nullptr);
  ASSERT_NE(nullptr, fp);
  EXPECT_EQ("0\n1\n2\n/dev/null\n/\n", ReadAll(fp));
  EXPECT_EQ(0, VLIBCPclose(fp));
  ASSERT_EQ(0, chdir(callersDir));

  // The program's own environment (a shell in between would add to it):
  // nothing of the caller's.
  fp = VLIBCPopen("/bin/cat", "r", "/proc/self/environ", nullptr);
  ASSERT_NE(nullptr, fp);
  std::string out = ReadAll(fp);
  EXPECT_EQ(0, VLIBCPclose(fp));
  EXPECT_EQ(std::string("PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin") + '\0' + "LC_ALL=C" + '\0',
            out);
  close(inheritable);
  close(plainPipe[0]);
  close(plainPipe[1]);
}

TEST(Popen, ExecFailureIsReportedByTheCallItself) {
  ScratchDir dir;
  WriteFile(dir / "not-executable", "#!/bin/sh\n");
  struct Case {
    std::string path;
    int err;
  } cases[] = {{dir / "missing", ENOENT}, {dir / "not-executable", EACCES}};
  for (const auto& c : cases) {
    errno = 0;
    EXPECT_EQ(nullptr, VLIBCPopen(c.path.c_str(), "r", "arg", nullptr)) << c.path;
    EXPECT_EQ(c.err, errno) << c.path;
    EXPECT_EQ(VLIB_ERR_SYSTEM, VLIBCErrGet()) << c.path;
  }
  EXPECT_TRUE(NoChildren()) << "the failed child is reaped";
}

TEST(ForkChildNoWait, WorkerHoldsNoneOfTheCallersDescriptorsAndLeavesNoZombie) {
  ScratchDir dir;
  int connection[2];  // stands for a client connection the caller holds
  ASSERT_EQ(0, pipe(connection));

  const pid_t worker = VLIBCProcForkChildNoWait();
  if (worker == 0) RunWorker(dir.Path());
  ASSERT_GT(worker, 0);
  EXPECT_TRUE(NoChildren());

  // Closing the caller's end ends the connection at once: the worker holds
  // no copy of it.
  close(connection[1]);
  ASSERT_TRUE(WaitReadable(connection[0], 2000));
  char byte;
  EXPECT_EQ(0, read(connection[0], &byte, 1));
  close(connection[0]);

  ASSERT_TRUE(WaitFor([&] { return HasContent(dir / "pid"); }));
  EXPECT_EQ(std::to_string(worker), ReadFile(dir / "pid"));
  const std::string fdDir = "/proc/" + std::to_string(worker) + "/fd";
  std::set<std::string> fds;
  DIR* listing = opendir(fdDir.c_str());
  ASSERT_NE(nullptr, listing);
  while (const struct dirent* entry = readdir(listing)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    fds.insert(name);
    char target[256] = {};
    ASSERT_GT(readlink((fdDir + "/" + name).c_str(), target, sizeof(target) - 1), 0);
    EXPECT_STREQ("/dev/null", target) << "descriptor " << name;
  }
  closedir(listing);
  EXPECT_EQ((std::set<std::string>{"0", "1", "2"}), fds);
  EXPECT_NE(getsid(0), getsid(worker));
  kill(worker, SIGKILL);

  // A caller that ignores SIGCHLD has its children reaped by the kernel;
  // the call still works and leaves that choice as it was.
  signal(SIGCHLD, SIG_IGN);
  const pid_t second = VLIBCProcForkChildNoWait();
  if (second == 0) _exit(0);
  EXPECT_GT(second, 0);
  struct sigaction current;
  sigaction(SIGCHLD, nullptr, &current);
  EXPECT_EQ(SIG_IGN, current.sa_handler);
  signal(SIGCHLD, SIG_DFL);
  EXPECT_TRUE(NoChildren());
}

TEST(ForkChildNoWait, WorkerOutlivesTheCallersProcessGroup) {
  ScratchDir dir;
  int report[2];
  ASSERT_EQ(0, pipe2(report, O_CLOEXEC));
  ChildProcess caller([&] {
    setpgid(0, 0);
    const pid_t worker = VLIBCProcForkChildNoWait();
    if (worker == 0) RunWorker(dir.Path());
    const ssize_t written = write(report[1], &worker, sizeof(worker));
    (void)written;
    kill(0, SIGKILL);  // the whole process group, as a terminal's hang-up would
  });
  close(report[1]);
  pid_t worker = -1;
  ASSERT_EQ(static_cast<ssize_t>(sizeof(worker)), read(report[0], &worker, sizeof(worker)));
  close(report[0]);
  EXPECT_EQ(128 + SIGKILL, caller.Wait());
  ASSERT_GT(worker, 0);
  ASSERT_TRUE(WaitFor([&] { return HasContent(dir / "pid"); }));
  const std::string state = ProcessState(worker);
  EXPECT_TRUE(state == "S" || state == "R") << "state " << state;
  kill(worker, SIGKILL);
}

}  // namespace
}  // namespace vela::test
