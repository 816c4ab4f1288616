// vela-btrfs-double: stands in for the btrfs tool in tests.
//
// Programs run with a fixed environment, so the double finds its files at
// fixed places of the sandbox (kBtrfsDoubleDir). It appends its argument
// vector (one argument per line, then an empty line) to "args" there, then
// plays the script file "script" there line by line: every line is printed
// to standard output and flushed, except these directives:
//   @sleep MS       pause for MS milliseconds
//   @stderr TEXT    print TEXT on standard error
//   @pidfile PATH   write the own process ID to PATH
//   @exit N         exit with status N
//   @ignore-signals ignore SIGTERM and SIGPIPE from here on, as a tool that
//                   will not be stopped would
//   @subvols B      for the k-th root ID given after "-r MOUNT" (k from 0),
//                   print "subvol(ID) B*(k+1) bytes"
//   @alone          mark this run as running until it ends; a run that
//                   finds another one marked adds a line to "overlaps"
// Without a script it prints nothing and exits 0. A reader that goes away
// ends it (SIGPIPE), as it would end the real tool.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "btrfs_tool_double.h"

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_DFL);
  {
    std::ofstream out(std::string(vela::test::kBtrfsDoubleDir) + "/args", std::ios::app);
    for (int i = 0; i < argc; ++i) out << argv[i] << "\n";
    out << "\n";
  }
  std::ifstream script(std::string(vela::test::kBtrfsDoubleDir) + "/script");
  std::string line;
  while (std::getline(script, line)) {
    if (line.rfind("@sleep ", 0) == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(atoi(line.c_str() + 7)));
    } else if (line.rfind("@stderr ", 0) == 0) {
      fprintf(stderr, "%s\n", line.c_str() + 8);
    } else if (line.rfind("@pidfile ", 0) == 0) {
      std::ofstream(line.substr(9)) << getpid() << "\n";
    } else if (line == "@alone") {
      const std::string dir = vela::test::kBtrfsDoubleDir;
      const int fd = open((dir + "/alone").c_str(), O_RDWR | O_CREAT, 0600);  // kept open until the end
      if (fd < 0 || flock(fd, LOCK_EX | LOCK_NB) != 0) std::ofstream(dir + "/overlaps", std::ios::app) << getpid() << "\n";
    } else if (line == "@ignore-signals") {
      signal(SIGTERM, SIG_IGN);
      signal(SIGPIPE, SIG_IGN);
    } else if (line.rfind("@exit ", 0) == 0) {
      return atoi(line.c_str() + 6);
    } else if (line.rfind("@subvols ", 0) == 0) {
      const unsigned long long bytes = strtoull(line.c_str() + 9, nullptr, 10);
      int first = 1;
      while (first < argc && std::string(argv[first]) != "-r") ++first;
      for (int i = first + 2; i < argc; ++i) {
        printf("subvol(%s) %llu bytes\n", argv[i], bytes * static_cast<unsigned long long>(i - first - 1));
      }
      fflush(stdout);
    } else {
      printf("%s\n", line.c_str());
      fflush(stdout);
    }
  }
  return 0;
}
