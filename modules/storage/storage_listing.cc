#include "storage_listing.h"

#include <sys/statvfs.h>
#include <syslog.h>

#include <memory>
#include <string>

#include "vela/privileged_section.h"
#include "vela/vela_share.h"
#include "vela/vela_volume.h"
#include "vela/vlib_error.h"
#include "vela/vlib_file.h"
#include "vela/vlib_szlist.h"
#include "velabtrfssnapusage/btrfs_tool.h"
#include "velabtrfssnapusage/share_snap_usage_cal.h"

namespace VelaStorageWebAPI {

namespace {

constexpr int kErrorFailure = 1;
constexpr int kErrorBadParameter = 3;
constexpr int kErrorNotFound = 8;
// The name this module's privileged sections log under. A listing runs as
// root: it must see every share and snapshot, also those whose directories
// are closed to the server's account.
constexpr char kLogSource[] = "storage_listing";

using ListPtr = std::unique_ptr<VLIBSZLIST, decltype(&VLIBCSzListFree)>;
using SharePtr = std::unique_ptr<VELASHARE, decltype(&VELAShareFree)>;

ListPtr NewList() { return ListPtr(VLIBCSzListAlloc(64), &VLIBCSzListFree); }

// Pushes onto a list owned by a ListPtr (a push may move the list).
template <typename Fill>
int FillList(ListPtr& list, Fill fill) {
  PVLIBSZLIST raw = list.release();
  const int result = fill(&raw);
  list.reset(raw);
  return result;
}

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

// The share's snapshot names, oldest first; false when they cannot be listed.
bool SnapshotNames(VELASHARE* share, ListPtr& names) {
  names = NewList();
  if (names == nullptr) return false;
  return FillList(names, [share](PVLIBSZLIST* list) { return VELAShareSnapList(share, list, nullptr); }) >= 0;
}

Json::Value SnapshotTime(const char* name) {
  time_t t = 0;
  if (VELAShareSnapTimeGet(name, &t) != 0) return Json::Value();
  return static_cast<Json::Int64>(t);
}

}  // namespace

void StorageListing::ListVolumes(VELA::APIRequest*, VELA::APIResponse* response) {
  vela::platform::PrivilegedSection root(kLogSource);
  ListPtr entries = NewList();
  if (entries == nullptr ||
      FillList(entries, [](PVLIBSZLIST* list) { return VLIBCFileEnumDir("/", 0, list, 0); }) < 0) {
    LogPlatformFailure("VLIBCFileEnumDir", "/");
    response->SetError(kErrorFailure);
    return;
  }
  Json::Value volumes(Json::arrayValue);
  for (int i = 0; i < entries->nItem; ++i) {
    const std::string path = std::string("/") + VLIBCSzListGet(entries.get(), i);
    VOLUME_PATH_INFO pathInfo;
    VELAMOUNTVOLINFO mount;
    // A mount point without its file system is no volume.
    if (VolumePathParseEx(path.c_str(), &pathInfo) != 0 || path != pathInfo.szVolPath ||
        VELAMountVolInfoGet(path.c_str(), &mount) != 0 || mount.volume != pathInfo.volume) {
      continue;
    }
    Json::Value volume;
    volume["volume"] = mount.volume;
    volume["path"] = mount.szMountPath;
    volume["fs_type"] = FsTypeName(mount.fsType);
    volume["device"] = mount.szDevice;
    struct statvfs fs;
    if (statvfs(path.c_str(), &fs) == 0) {
      volume["size_bytes"] = static_cast<Json::UInt64>(fs.f_blocks) * fs.f_frsize;
      volume["free_bytes"] = static_cast<Json::UInt64>(fs.f_bavail) * fs.f_frsize;
    }
    volumes.append(volume);
  }
  Json::Value data;
  data["volumes"] = volumes;
  response->SetSuccess(data);
}

void StorageListing::ListShares(VELA::APIRequest*, VELA::APIResponse* response) {
  vela::platform::PrivilegedSection root(kLogSource);
  ListPtr names = NewList();
  if (names == nullptr || FillList(names, [](PVLIBSZLIST* list) { return VELAShareEnum(list, 0); }) < 0) {
    LogPlatformFailure("VELAShareEnum", "");
    response->SetError(kErrorFailure);
    return;
  }
  Json::Value shares(Json::arrayValue);
  for (int i = 0; i < names->nItem; ++i) {
    const char* name = VLIBCSzListGet(names.get(), i);
    PVELASHARE raw = nullptr;
    // A share removed since it was listed is simply not shown.
    if (VELAShareGet(name, &raw) != 0) continue;
    const SharePtr share(raw, &VELAShareFree);
    ListPtr snapshots(nullptr, &VLIBCSzListFree);
    if (!SnapshotNames(share.get(), snapshots)) {
      LogPlatformFailure("VELAShareSnapList", name);
      response->SetError(kErrorFailure);
      return;
    }
    Json::Value entry;
    entry["name"] = share->szName;
    entry["volume"] = share->volume;
    entry["path"] = share->szPath;
    entry["snapshot_count"] = snapshots->nItem;
    if (snapshots->nItem > 0) {
      entry["first_snapshot_time"] = SnapshotTime(VLIBCSzListGet(snapshots.get(), 0));
      entry["last_snapshot_time"] = SnapshotTime(VLIBCSzListGet(snapshots.get(), snapshots->nItem - 1));
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
  if (shareName.IsInvalid() || name.empty() || !VelaBtrfsUsage::IsShareNameSafe(name)) {
    response->SetError(kErrorBadParameter);
    return;
  }
  vela::platform::PrivilegedSection root(kLogSource);
  PVELASHARE raw = nullptr;
  if (VELAShareGet(name.c_str(), &raw) != 0) {
    const bool missing = VLIBCErrGet() == VLIB_ERR_NOT_FOUND;
    if (!missing) LogPlatformFailure("VELAShareGet", name);
    response->SetError(missing ? kErrorNotFound : kErrorFailure);
    return;
  }
  const SharePtr share(raw, &VELAShareFree);
  ListPtr names(nullptr, &VLIBCSzListFree);
  if (!SnapshotNames(share.get(), names)) {
    LogPlatformFailure("VELAShareSnapList", name);
    response->SetError(kErrorFailure);
    return;
  }
  Json::Value snapshots(Json::arrayValue);
  char dir[4096] = "";
  // The directory exists when there are snapshots, so nothing is created.
  if (names->nItem > 0 && VELAShareSnapGetOrCreateSnapDir(share.get(), dir, sizeof(dir), 0) != 1) {
    LogPlatformFailure("VELAShareSnapGetOrCreateSnapDir", name);
    response->SetError(kErrorFailure);
    return;
  }
  for (int i = 0; i < names->nItem; ++i) {
    const char* snapshot = VLIBCSzListGet(names.get(), i);
    unsigned long long rootId = 0;
    // One deleted since the listing is left out.
    if (VelaBtrfsUsage::BtrfsTool::SubvolRootIdLookup((std::string(dir) + "/" + snapshot).c_str(), rootId) != 0) {
      continue;
    }
    Json::Value entry;
    entry["name"] = snapshot;
    entry["time"] = SnapshotTime(snapshot);
    entry["subvol_id"] = static_cast<Json::UInt64>(rootId);
    snapshots.append(entry);
  }
  Json::Value data;
  data["share_name"] = share->szName;
  data["snapshots"] = snapshots;
  response->SetSuccess(data);
}

}  // namespace VelaStorageWebAPI

extern "C" {

const VELA_WEBAPI_ENTRY gTable[] = {
    {"VELA.Storage.Volume", 1, "list", VelaStorageWebAPI::StorageListing::ListVolumes},
    {"VELA.Storage.Share", 1, "list", VelaStorageWebAPI::StorageListing::ListShares},
    {"VELA.Storage.Share.Snapshot", 1, "list", VelaStorageWebAPI::StorageListing::ListSnapshots},
    {nullptr, 0, nullptr, nullptr},
};

const VELA_WEBAPI_ENTRY* GetAPITable(void) { return gTable; }

}  // extern "C"
