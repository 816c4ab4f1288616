#include "storage_listing.h"

#include <syslog.h>

#include <memory>
#include <string>

#include "error_codes.h"
#include "snapshot_deletion.h"
#include "vela/privileged_section.h"
#include "vela/sz_list.h"
#include "vela/vela_share.h"
#include "vela/vela_volume.h"
#include "vela/vlib_error.h"

namespace VelaStorageWebAPI {

namespace {

// The name this module's privileged sections log under. A listing runs as
// root: it must see every share and snapshot, also those whose directories
// are closed to the server's account.
constexpr char kLogSource[] = "storage_listing";

using SharePtr = std::unique_ptr<VELASHARE, decltype(&VELAShareFree)>;
using SnapshotsPtr = std::unique_ptr<VELASNAPINFO, decltype(&VELAShareSnapInfoFree)>;
using VolumesPtr = std::unique_ptr<VELAVOLUME, decltype(&VELAVolumeEnumFree)>;

void LogPlatformFailure(const char* what, const std::string& subject) {
  syslog(LOG_ERR, "storage listing: %s [%s] failed [0x%04X %s:%d]", what, subject.c_str(), VLIBCErrGet(),
         VLIBCErrorGetFile(), VLIBCErrorGetLine());
}

const char* FsTypeName(int type) {
  switch (type) {
    case VELA_FS_TYPE_BTRFS: return "btrfs";
    case VELA_FS_TYPE_EXT4: return "ext4";
    case VELA_FS_TYPE_XFS: return "xfs";
    default: return "unknown";
  }
}

// The share's snapshots, oldest first; a negative count when they cannot
// be listed (the platform error says why).
int Snapshots(VELASHARE* share, SnapshotsPtr& snapshots) {
  PVELASNAPINFO raw = nullptr;
  const int count = VELAShareSnapInfoList(share, &raw);
  snapshots.reset(raw);
  return count;
}

}  // namespace

void StorageListing::ListVolumes(VELA::APIRequest*, VELA::APIResponse* response) {
  vela::platform::PrivilegedSection root(kLogSource);
  PVELAVOLUME raw = nullptr;
  const int count = VELAVolumeEnum(&raw);
  const VolumesPtr list(raw, &VELAVolumeEnumFree);
  if (count < 0) {
    LogPlatformFailure("VELAVolumeEnum", "");
    response->SetError(kErrorFailure);
    return;
  }
  Json::Value volumes(Json::arrayValue);
  for (int i = 0; i < count; ++i) {
    const VELAVOLUME& v = list.get()[i];
    // An adopted file system that is not mounted now has nothing to show.
    if (!v.mounted) continue;
    Json::Value volume;
    volume["volume"] = v.volume;
    volume["path"] = v.szPath;
    volume["fs_type"] = FsTypeName(v.fsType);
    volume["device"] = v.szDevice;
    volume["adopted"] = v.adopted == TRUE;
    volume["size_bytes"] = static_cast<Json::UInt64>(v.sizeBytes);
    volume["free_bytes"] = static_cast<Json::UInt64>(v.freeBytes);
    volumes.append(volume);
  }
  Json::Value data;
  data["volumes"] = volumes;
  response->SetSuccess(data);
}

void StorageListing::ListShares(VELA::APIRequest*, VELA::APIResponse* response) {
  vela::platform::PrivilegedSection root(kLogSource);
  vela::platform::SzList names;
  if (!names.Ok() || VELAShareEnum(names.Address(), 0) < 0) {
    LogPlatformFailure("VELAShareEnum", "");
    response->SetError(kErrorFailure);
    return;
  }
  Json::Value shares(Json::arrayValue);
  for (int i = 0; i < names.Count(); ++i) {
    const char* name = names.At(i);
    PVELASHARE raw = nullptr;
    // A share removed since it was listed is simply not shown.
    if (VELAShareGet(name, &raw) != 0) continue;
    const SharePtr share(raw, &VELAShareFree);
    SnapshotsPtr snapshots(nullptr, &VELAShareSnapInfoFree);
    const int count = Snapshots(share.get(), snapshots);
    if (count < 0 && VLIBCErrGet() == VLIB_ERR_NOT_FOUND) continue;
    if (count < 0) {
      LogPlatformFailure("VELAShareSnapInfoList", name);
      response->SetError(kErrorFailure);
      return;
    }
    Json::Value entry;
    entry["name"] = share->szName;
    entry["volume"] = share->volume;
    entry["path"] = share->szPath;
    entry["snapshot_count"] = count;
    if (count > 0) {
      entry["first_snapshot_time"] = static_cast<Json::Int64>(snapshots.get()[0].time);
      entry["last_snapshot_time"] = static_cast<Json::Int64>(snapshots.get()[count - 1].time);
    }
    shares.append(entry);
  }
  Json::Value data;
  data["shares"] = shares;
  response->SetSuccess(data);
}

void StorageListing::ListSnapshots(VELA::APIRequest* request, VELA::APIResponse* response) {
  const auto shareName = request->GetAndCheckString("share_name", VELA::APIRequest::PARAM_REQUIRED, nullptr);
  const std::string& name = shareName.Get();
  if (shareName.IsInvalid() || !VELAShareNameIsValid(name.data(), name.size())) {
    response->SetError(kErrorBadParameter);
    return;
  }
  vela::platform::PrivilegedSection root(kLogSource);
  PVELASHARE raw = nullptr;
  SnapshotsPtr snapshots(nullptr, &VELAShareSnapInfoFree);
  const int count = VELAShareGet(name.c_str(), &raw) == 0 ? Snapshots(raw, snapshots) : -1;
  const SharePtr share(raw, &VELAShareFree);
  if (count < 0) {
    const bool missing = VLIBCErrGet() == VLIB_ERR_NOT_FOUND;
    if (!missing) LogPlatformFailure("VELAShareSnapInfoList", name);
    response->SetError(missing ? kErrorNotFound : kErrorFailure);
    return;
  }
  Json::Value list(Json::arrayValue);
  for (int i = 0; i < count; ++i) {
    const VELASNAPINFO& snapshot = snapshots.get()[i];
    Json::Value entry;
    entry["name"] = snapshot.szName;
    entry["time"] = static_cast<Json::Int64>(snapshot.time);
    entry["subvol_id"] = static_cast<Json::UInt64>(snapshot.subvolId);
    entry["path"] = snapshot.szPath;
    entry["tool"] = snapshot.szTool;
    entry["read_only"] = snapshot.readOnly == TRUE;
    list.append(entry);
  }
  Json::Value data;
  data["share_name"] = share->szName;
  data["snapshots"] = list;
  response->SetSuccess(data);
}

}  // namespace VelaStorageWebAPI

extern "C" {

const VELA_WEBAPI_ENTRY gTable[] = {
    {"VELA.Storage.Volume", 1, "list", VelaStorageWebAPI::StorageListing::ListVolumes},
    {"VELA.Storage.Share", 1, "list", VelaStorageWebAPI::StorageListing::ListShares},
    {"VELA.Storage.Share.Snapshot", 1, "list", VelaStorageWebAPI::StorageListing::ListSnapshots},
    {"VELA.Storage.Share.Snapshot", 1, "delete", VelaStorageWebAPI::SnapshotDeletion::Delete},
    {nullptr, 0, nullptr, nullptr},
};

const VELA_WEBAPI_ENTRY* GetAPITable(void) { return gTable; }

}  // extern "C"
