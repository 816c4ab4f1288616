// vela-btrfs: the "subvolume size" command the snapshot usage calculator
// runs, for btrfs file systems on plain Linux.
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "provider_error.h"
#include "subvolume_size_command.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitKeptChanging = 3;
constexpr int kExitWithoutSpaceMap = 4;

constexpr char kUsage[] =
    "usage: vela-btrfs <command> [<args>]\n"
    "\n"
    "Commands:\n"
    "  subvolume size   bytes that subvolumes take, exclusively or marginally\n"
    "  help             this text\n"
    "\n"
    "'vela-btrfs subvolume size --help' describes the command.\n";

bool IsHelp(const std::string& arg) { return arg == "--help" || arg == "-h" || arg == "help"; }

// Descriptors 0 and 2 closed by the caller would be taken by the devices
// this program opens; /dev/null keeps them. Standard output is checked
// instead: the figures are the point of a run.
void KeepStandardDescriptors() {
  for (int fd : {0, 2}) {
    if (fcntl(fd, F_GETFD) >= 0 || errno != EBADF) continue;
    const int null = open("/dev/null", (fd == 0 ? O_RDONLY : O_WRONLY) | O_CLOEXEC);
    if (null < 0 || null == fd) continue;
    dup3(null, fd, O_CLOEXEC);
    close(null);
  }
}

int Run(const std::vector<std::string>& args) {
  using vela::btrfs::Fail;
  using vela::btrfs::ProviderError;
  if (args.empty()) Fail(ProviderError::Kind::kUsage, "no command given");
  if (IsHelp(args[0])) {
    fputs(kUsage, stdout);
    return 0;
  }
  if (args[0] != "subvolume") Fail(ProviderError::Kind::kUsage, "unknown command '%s'", args[0].c_str());
  if (args.size() < 2) Fail(ProviderError::Kind::kUsage, "'subvolume' needs a command: size");
  if (args[1] != "size") Fail(ProviderError::Kind::kUsage, "unknown command 'subvolume %s'", args[1].c_str());
  const std::vector<std::string> rest(args.begin() + 2, args.end());
  if (!rest.empty() && IsHelp(rest[0])) {
    fputs(vela::btrfs::kSubvolumeSizeUsage, stdout);
    return 0;
  }
  if (fcntl(STDOUT_FILENO, F_GETFD) < 0) {
    Fail(ProviderError::Kind::kSystem, "cannot write to standard output: %s", strerror(errno));
  }
  const bool complete = vela::btrfs::RunSubvolumeSize(vela::btrfs::ParseSubvolumeSizeArguments(rest), stdout);
  return complete ? 0 : kExitWithoutSpaceMap;
}

}  // namespace

int main(int argc, char** argv) {
  using vela::btrfs::ProviderError;
  KeepStandardDescriptors();
  // A reader that went away (`| head -1`) is a failed write like any other:
  // status 1 with a message, not death by SIGPIPE.
  signal(SIGPIPE, SIG_IGN);
  // Large arrays come and go as the walk merges its references; mapped and
  // unmapped on their own, they give their memory back instead of leaving
  // the heap at its highest.
  mallopt(M_MMAP_THRESHOLD, 256 * 1024);
  const std::vector<std::string> args(argv + 1, argv + argc);
  int status = kExitFailure;
  try {
    status = Run(args);
  } catch (const ProviderError& error) {
    fprintf(stderr, "vela-btrfs: %s\n", error.what());
    if (error.kind() == ProviderError::Kind::kUsage) {
      fputs(args.size() >= 2 && args[0] == "subvolume" && args[1] == "size"
                ? "Try 'vela-btrfs subvolume size --help'.\n"
                : "Try 'vela-btrfs --help'.\n",
            stderr);
      return kExitUsage;
    }
    return error.kind() == ProviderError::Kind::kKeptChanging ? kExitKeptChanging : kExitFailure;
  } catch (const std::exception& error) {
    fprintf(stderr, "vela-btrfs: %s\n", error.what());
    return kExitFailure;
  }
  // Help texts go through stdio: a failed write must not pass for success.
  if (fflush(stdout) != 0 || ferror(stdout)) {
    fprintf(stderr, "vela-btrfs: cannot write to standard output: %s\n", strerror(errno));
    return kExitFailure;
  }
  return status;
}
