// Private to the platform library: which tool made a snapshot, told from
// where it lies, since the tools leave no other mark on the subvolume.
#ifndef VELA_PLATFORM_SNAPSHOT_TOOL_H_
#define VELA_PLATFORM_SNAPSHOT_TOOL_H_

#include <string>

namespace vela::platform {

// The directory (at a volume's top) holding the snapshots vela-share takes:
// "@snapshots/SHARE/NAME".
inline constexpr char kOwnSnapshotRoot[] = "@snapshots";

// "snapper" for ".../.snapshots/N/snapshot", "timeshift" for
// ".../timeshift-btrfs/snapshots/DATE/NAME", "vela-share" for
// "@snapshots/SHARE/NAME" with NAME a snapshot name, "btrbk" for a last
// component "NAME.YYYYMMDD" with an optional "Thhmm[ss]", zone and "_N",
// else "other". `path` is relative to the file system's top level.
const char* SnapshotToolOf(const std::string& path);

}  // namespace vela::platform

#endif  // VELA_PLATFORM_SNAPSHOT_TOOL_H_
