// "subvolume size": what the given subvolumes take, exclusively or
// marginally in the given order, with optional progress lines.
#ifndef VELA_TOOLS_VELA_BTRFS_SUBVOLUME_SIZE_COMMAND_H_
#define VELA_TOOLS_VELA_BTRFS_SUBVOLUME_SIZE_COMMAND_H_

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "vela/space_map.h"

namespace vela::btrfs {

struct SubvolumeSizeRequest {
  bool verbose = false;    // -v: one line per subvolume
  bool progress = false;   // -p: progress lines
  bool marginal = false;   // -m: figures marginal in the given order
  bool byRootId = false;   // -r: a mount path, then root IDs
  // --deadline: no new reading of a changed file system starts after it.
  std::chrono::seconds deadline{60};
  // --space-map: where the calculation's space map goes; none when empty.
  std::string spaceMap;
  // --space-map-file-rows: signature-file rows the map keeps at most.
  uint64_t spaceMapFileRows = space_map::kDefaultFileRowLimit;
  std::string mountPath;   // with -r
  std::vector<std::string> operands;  // subvolume paths, or root IDs with -r
};

// Parses the arguments after "subvolume size". Throws ProviderError (kind
// kUsage) for bad ones.
SubvolumeSizeRequest ParseSubvolumeSizeArguments(const std::vector<std::string>& args);

// Runs the request, printing results and progress on `out`. Throws
// ProviderError; nothing but progress lines is printed before a failure.
// False when the space map asked for could not be written (said on
// standard error); the figures are printed all the same.
bool RunSubvolumeSize(const SubvolumeSizeRequest& request, FILE* out);

extern const char kSubvolumeSizeUsage[];

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_SUBVOLUME_SIZE_COMMAND_H_
