// Private to the platform library: the snapshot view, a directory per share
// of symbolic links named as listings name the share's snapshots, each
// leading to the snapshot where it really lies:
//
//   /run/vela-snapshots/volumeN/SHARE/NAME -> /volumeN/PATH/OF/SNAPSHOT
//
// Callers that build a snapshot's path from its share's snapshot directory
// and its name (and read the volume from that path's text) thus work for
// snapshots anywhere in the file system, while nothing is ever created
// inside it. The view lives on /run, so it is made again after a restart,
// whenever a share's snapshot directory is asked for.
#ifndef VELA_PLATFORM_SNAPSHOT_VIEW_H_
#define VELA_PLATFORM_SNAPSHOT_VIEW_H_

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace vela::platform {

inline constexpr char kSnapshotViewRoot[] = "/run/vela-snapshots";

// "/run/vela-snapshots/volumeN/SHARE".
std::string SnapshotViewDir(int volume, const std::string& share);

// Makes the share's view directory hold exactly `links` (name, target):
// missing links are made, wrong ones replaced, others removed. Directories
// are root's, mode 0755; one that is not (or a link in their place) is
// refused. `list` is called under a lock on the directory (waited for at
// most the system's lock wait) and returns the links, so that of two
// processes the later listing always has the last word. False with errno
// set; `refusal` says why a directory was refused.
bool RebuildSnapshotView(int volume, const std::string& share,
                         const std::function<bool(std::vector<std::pair<std::string, std::string>>*)>& list,
                         std::string* refusal);

}  // namespace vela::platform

#endif  // VELA_PLATFORM_SNAPSHOT_VIEW_H_
