// main() of every test executable: a test binary always runs inside the
// sandbox. Started from outside (by hand, by ctest), it re-executes itself
// through vela-sandbox with the same arguments.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "sandbox_mounts.h"

#ifndef VELA_SANDBOX_PROGRAM
#error "VELA_SANDBOX_PROGRAM must name the vela-sandbox executable"
#endif

int main(int argc, char** argv) {
  if (!vela::test::InSandbox()) {
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n < 0) {
      perror("readlink /proc/self/exe");
      return 125;
    }
    self[n] = '\0';
    std::vector<char*> args = {const_cast<char*>(VELA_SANDBOX_PROGRAM), const_cast<char*>("--"),
                               self};
    for (int i = 1; i < argc; ++i) args.push_back(argv[i]);
    args.push_back(nullptr);
    execv(args[0], args.data());
    fprintf(stderr, "cannot start %s: %s\n", VELA_SANDBOX_PROGRAM, strerror(errno));
    return 125;
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
