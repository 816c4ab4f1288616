// main() of every test executable: a test always runs inside the sandbox,
// one test to a sandbox. Started from outside (by hand, by ctest), the
// binary re-executes itself through vela-sandbox for each test it is asked
// to run, with the same arguments and that test alone in --gtest_filter,
// and sums up: tests leave volumes, binds and state behind them, which the
// next test must not see, and a sandbox dies with its last process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "sandbox_mounts.h"

#ifndef VELA_SANDBOX_PROGRAM
#error "VELA_SANDBOX_PROGRAM must name the vela-sandbox executable"
#endif

namespace {

constexpr char kFilterFlag[] = "--gtest_filter=";

std::string SelfPath() {
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n < 0) {
    perror("readlink /proc/self/exe");
    exit(125);
  }
  self[n] = '\0';
  return self;
}

// Runs the binary in a sandbox with `args`; its exit status. With `out`,
// its standard output is captured there instead of shown.
int RunInSandbox(const std::string& self, const std::vector<std::string>& args, std::string* out) {
  std::vector<std::string> argv = {VELA_SANDBOX_PROGRAM, "--", self};
  argv.insert(argv.end(), args.begin(), args.end());
  std::vector<char*> raw;
  for (std::string& arg : argv) raw.push_back(arg.data());
  raw.push_back(nullptr);
  int pipeFds[2] = {-1, -1};
  if (out != nullptr && pipe2(pipeFds, O_CLOEXEC) != 0) return 125;
  const pid_t pid = fork();
  if (pid < 0) return 125;
  if (pid == 0) {
    if (out != nullptr) dup2(pipeFds[1], STDOUT_FILENO);
    execv(raw[0], raw.data());
    fprintf(stderr, "cannot start %s: %s\n", VELA_SANDBOX_PROGRAM, strerror(errno));
    _exit(125);
  }
  if (out != nullptr) {
    close(pipeFds[1]);
    char buffer[4096];
    ssize_t n;
    while ((n = read(pipeFds[0], buffer, sizeof(buffer))) > 0 || (n < 0 && errno == EINTR)) {
      if (n > 0) out->append(buffer, static_cast<size_t>(n));
    }
    close(pipeFds[0]);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The full names of the tests `args` select, as --gtest_list_tests prints
// them ("Suite." lines, then "  Test" lines, comments after "#").
bool SelectedTests(const std::string& self, std::vector<std::string> args, std::vector<std::string>* tests) {
  args.push_back("--gtest_list_tests");
  std::string listing;
  if (RunInSandbox(self, args, &listing) != 0) return false;
  std::string suite;
  size_t start = 0;
  while (start < listing.size()) {
    size_t end = listing.find('\n', start);
    if (end == std::string::npos) end = listing.size();
    std::string line = listing.substr(start, end - start);
    start = end + 1;
    const size_t comment = line.find("  #");
    if (comment != std::string::npos) line.resize(comment);
    if (line.empty()) continue;
    if (line[0] != ' ') {
      suite = line;
    } else {
      tests->push_back(suite + line.substr(line.find_first_not_of(' ')));
    }
  }
  return true;
}

// Whether the arguments ask for something other than running several
// tests: a listing, the help, or one test by its full name (as ctest does).
bool NeedsOneSandbox(const std::vector<std::string>& args) {
  for (const std::string& arg : args) {
    if (arg == "--gtest_list_tests" || arg == "--help" || arg == "-h" || arg == "--gtest_help") return true;
    if (arg.rfind(kFilterFlag, 0) == 0 && arg.find_first_of("*?:-", sizeof(kFilterFlag) - 1) == std::string::npos) {
      return true;
    }
  }
  return false;
}

int RunEachInItsSandbox(const std::string& self, const std::vector<std::string>& args) {
  std::vector<std::string> tests;
  if (NeedsOneSandbox(args) || !SelectedTests(self, args, &tests) || tests.size() <= 1) {
    return RunInSandbox(self, args, nullptr);
  }
  std::vector<std::string> others;
  for (const std::string& arg : args) {
    if (arg.rfind(kFilterFlag, 0) != 0) others.push_back(arg);
  }
  std::vector<std::string> failed;
  for (const std::string& test : tests) {
    std::vector<std::string> one = others;
    one.push_back(kFilterFlag + test);
    if (RunInSandbox(self, one, nullptr) != 0) failed.push_back(test);
  }
  printf("\n[==========] %zu tests, each in a sandbox of its own: %zu passed, %zu failed\n", tests.size(),
         tests.size() - failed.size(), failed.size());
  for (const std::string& test : failed) printf("[  FAILED  ] %s\n", test.c_str());
  return failed.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (!vela::test::InSandbox()) return RunEachInItsSandbox(SelfPath(), std::vector<std::string>(argv + 1, argv + argc));
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
