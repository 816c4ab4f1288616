// Shares and their snapshots as the calculation library sees them: share
// records from the platform, full paths of a share's snapshots, and the
// check that snapshot paths lie on one btrfs volume.
#ifndef VELABTRFSSNAPUSAGE_SHARE_SNAPSHOT_H_
#define VELABTRFSSNAPUSAGE_SHARE_SNAPSHOT_H_

#include <json/json.h>

#include <string>

#include "vela/vela_share.h"
#include "vela/vlib_szlist.h"
#include "velabtrfssnapusage/export.h"

namespace VelaBtrfsUsage::Utils {

// The platform's share record, retrying while the platform reports it busy
// (at most 15 attempts, each failed one followed by a pause of up to 4 s).
// 0, or -1.
VELA_EXPORT int ShareInfoGet(const char* shareName, PVELASHARE* share);
// Pushes the full paths of the share's snapshots onto *out, oldest first.
// `selector` may hold "time": an array of time selectors (">=NAME", ...);
// without it every snapshot is listed. 0, or -1.
VELA_EXPORT int ShareSnapListGet(const std::string& shareName, PVLIBSZLIST* out, Json::Value& selector);
// Pushes prefix + "/" + name for every name onto *out.
VELA_EXPORT bool PostfixPathAppend(const std::string& prefix, PVLIBSZLIST* names, PVLIBSZLIST* out);
// 0 and the common volume number when every path lies on the same btrfs
// volume (-1 for an empty list); 1 when they lie on different volumes; -1
// on error (a path not under a volume, a volume that is not btrfs, ...).
VELA_EXPORT int SameVolumeCheck(PVLIBSZLIST* ppListPath, int& volume);

}  // namespace VelaBtrfsUsage::Utils

#endif  // VELABTRFSSNAPUSAGE_SHARE_SNAPSHOT_H_
