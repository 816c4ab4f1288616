// vela-btrfs: the "subvolume size" command the snapshot usage calculator
// runs, for btrfs file systems on plain Linux.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "provider_error.h"
#include "subvolume_size_command.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

}  // namespace

int main(int argc, char** argv) {
  using vela::btrfs::ProviderError;
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "--help" || args[0] == "-h" || args[0] == "help" ||
      (args.size() >= 3 && args[0] == "subvolume" && args[1] == "size" && args[2] == "--help")) {
    fputs(vela::btrfs::kSubvolumeSizeUsage, args.empty() ? stderr : stdout);
    return args.empty() ? kExitUsage : 0;
  }
  try {
    if (args.size() < 2 || args[0] != "subvolume" || args[1] != "size") {
      vela::btrfs::Fail(ProviderError::Kind::kUsage, "unknown command '%s'", args[0].c_str());
    }
    const auto request =
        vela::btrfs::ParseSubvolumeSizeArguments(std::vector<std::string>(args.begin() + 2, args.end()));
    vela::btrfs::RunSubvolumeSize(request, stdout);
  } catch (const ProviderError& error) {
    fprintf(stderr, "vela-btrfs: %s\n", error.what());
    if (error.kind() == ProviderError::Kind::kUsage) {
      fputs("Try 'vela-btrfs --help'.\n", stderr);
      return kExitUsage;
    }
    return kExitFailure;
  } catch (const std::exception& error) {
    fprintf(stderr, "vela-btrfs: %s\n", error.what());
    return kExitFailure;
  }
  return 0;
}
