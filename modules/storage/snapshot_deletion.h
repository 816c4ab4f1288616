// Deleting snapshots of a share on the administrator's behalf:
//
//   "VELA.Storage.Share.Snapshot" 1 "delete"
//       {"share_name": NAME, "names": [SNAPSHOT, ...][, "subvol_ids": [ID, ...]]}
//
// Snapshots are named as "list" names them, all looked up in one listing
// made when the request begins. Names shift as snapshots go (the second of
// two snapshots of one second loses its "_ID" when the first is deleted),
// so a caller whose listing may be old also gives each one's subvolume ID:
// a name that lists with another ID now is not deleted. Only read-only
// snapshots of that share are deleted (never a share, never anything else
// on the volume), each on its own; the answer has one entry per name, in
// the order given:
//
//   {"share_name": NAME, "results": [
//     {"name", "deleted": true, "subvol_id", "path", "tool"},
//     {"name", "deleted": false, "reason", "message"[, "subvol_id", "path", "tool"]}]}
//
// with "reason" one of "not_found" (the share has no such snapshot now),
// "not_read_only", "in_use" (the file system refused: the default
// subvolume, being sent, or holding subvolumes) and "failed"; "message"
// says it in words. Every deletion and refusal is logged with the user who
// asked.
//
// Error codes, with nothing deleted: 3 a missing or impossible
// "share_name", "names" not a list of 1 to 1000 names, a name that could
// not be a snapshot's (empty, longer than 63 bytes, with "/", or "." or
// ".."), or "subvol_ids" not a list of as many IDs; 8 no such share; 1 the
// share's snapshots could not be listed.
#ifndef VELA_STORAGE_SNAPSHOT_DELETION_H_
#define VELA_STORAGE_SNAPSHOT_DELETION_H_

#include "vela/webapi.h"

namespace VelaStorageWebAPI {

class SnapshotDeletion {
 public:
  static void Delete(VELA::APIRequest* request, VELA::APIResponse* response);
};

}  // namespace VelaStorageWebAPI

#endif  // VELA_STORAGE_SNAPSHOT_DELETION_H_
