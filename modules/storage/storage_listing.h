// A web API module that lists what the administrator's page shows around
// the snapshot usage module: the volumes with their size and free space,
// the shares with where they lie and how many snapshots they have over
// what time, and each share's snapshots with their times, btrfs subvolume
// IDs, where they lie and which tool made them. Everything comes from the
// platform layer; listing changes nothing. The module's one method that
// changes something, deleting snapshots, is in snapshot_deletion.h.
//
//   "VELA.Storage.Volume" 1 "list"            {}
//   "VELA.Storage.Share" 1 "list"             {}
//   "VELA.Storage.Share.Snapshot" 1 "list"    {"share_name": NAME}
//
// Error codes: 3 a missing, empty or impossible "share_name"; 8 no such
// share; 1 the platform could not list.
#ifndef VELA_STORAGE_STORAGE_LISTING_H_
#define VELA_STORAGE_STORAGE_LISTING_H_

#include "vela/webapi.h"

namespace VelaStorageWebAPI {

class StorageListing {
 public:
  static void ListVolumes(VELA::APIRequest* request, VELA::APIResponse* response);
  static void ListShares(VELA::APIRequest* request, VELA::APIResponse* response);
  static void ListSnapshots(VELA::APIRequest* request, VELA::APIResponse* response);
};

}  // namespace VelaStorageWebAPI

extern "C" {
// The method rows (the three listings and "delete"), then one all-zero row.
__attribute__((visibility("default"))) extern const VELA_WEBAPI_ENTRY gTable[];
__attribute__((visibility("default"))) const VELA_WEBAPI_ENTRY* GetAPITable(void);
}

#endif  // VELA_STORAGE_STORAGE_LISTING_H_
