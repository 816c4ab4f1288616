// The web API "VELA.Snap.Usage.Space", version 1: what deleting any set of
// a share's calculated snapshots frees, which files hold it, and which
// snapshots to delete to get a number of bytes back. It answers from the
// space map the share's last calculation wrote, with its snapshots' names
// and figures as the calculation's report gives them.
//
//   "get"    {"share_name"}
//            the last calculation: "status" with "processed_in_bytes" and
//            "estimated_in_bytes" as recorded, "range_start", "range_end",
//            "start_task", "end_task" (when recorded), "error_code" and
//            "reason" (words) after a failure or stop; once done,
//            "snap_list" of {"subvol_id", "time", "path", "exists",
//            "alone_bytes", "added_bytes", "accum_bytes"}, oldest first
//            (empty before).
//   "freed"  {"share_name", "subvol_ids": [ID, ...]}
//            "freed_bytes", "data_bytes", "metadata_bytes", "files" (the 20
//            largest: {"path", "bytes", "subvol_id", "time"}),
//            "files_complete".
//   "plan"   {"share_name", "bytes": N, "keep_newest": K (default 0)}
//            "bytes", "keep_newest", "oldest_first" and
//            "fewest_snapshots": {"subvol_ids", "freed_bytes", "reached",
//            "exact"}.
//
// Error codes: 3 a missing, mistyped or empty parameter, a name that could
// not be a share's, an ID outside the calculation; 8 no calculation of the
// share, or none that is done with a space map ("freed" and "plan"; "get"
// of a done one without a map); 1 a record, result or map that cannot be
// read or does not agree (logged), the platform failing.
#ifndef VELA_SPACE_SPACE_H_
#define VELA_SPACE_SPACE_H_

#include "vela/webapi.h"

namespace VelaSpaceWebAPI {

class Space {
 public:
  static void Get(VELA::APIRequest* request, VELA::APIResponse* response);
  static void Freed(VELA::APIRequest* request, VELA::APIResponse* response);
  static void Plan(VELA::APIRequest* request, VELA::APIResponse* response);
};

}  // namespace VelaSpaceWebAPI

extern "C" {
// The three method rows, then one all-zero row.
__attribute__((visibility("default"))) extern const VELA_WEBAPI_ENTRY gTable[];
// The address of gTable's first row. Does nothing else.
__attribute__((visibility("default"))) const VELA_WEBAPI_ENTRY* GetAPITable(void);
}

#endif  // VELA_SPACE_SPACE_H_
