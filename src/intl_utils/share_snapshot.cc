#include "velabtrfssnapusage/share_snapshot.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "vela/sz_list.h"
#include "intl_utils/log.h"
#include "vela/vela_volume.h"

namespace VelaBtrfsUsage::Utils {

namespace {

constexpr char kLogSource[] = "intl_utils/utils";
constexpr int kShareGetAttempts = 15;

}  // namespace

int ShareInfoGet(const char* shareName, PVELASHARE* share) {
  if (shareName == nullptr || share == nullptr) {
    VELA_LOG(LOG_ERR, "Bad paramters for getting share info");
    return -1;
  }
  for (int attempt = 0;;) {
    if (VELAShareGet(shareName, share) == 0) return 0;
    if (VLIBCErrGet() != VLIB_ERR_BUSY) {
      VELA_LOG(LOG_ERR, "VELAShareGet failed. share (%s)" VELA_ERR_FMT, shareName, VELA_ERR_ARGS);
      return -1;
    }
    // Busy is transient: wait a little and try again, a bounded number of times.
    if (attempt > 1) {
      VELA_LOG(LOG_DEBUG, "Failed to get the share (%s), re-try (%d)" VELA_ERR_FMT, shareName, attempt,
               VELA_ERR_ARGS);
    }
    sleep(static_cast<unsigned>(rand() % 5));
    if (++attempt >= kShareGetAttempts) return -1;
  }
}

bool PostfixPathAppend(const std::string& prefix, PVLIBSZLIST* names, PVLIBSZLIST* out) {
  for (int i = 0; i < (*names)->nItem; ++i) {
    char path[4096];
    snprintf(path, sizeof(path), "%s/%s", prefix.c_str(), VLIBCSzListGet(*names, i));
    if (VLIBCSzListPush(out, path) < 0) {
      VELA_LOG(LOG_ERR, "Failed to push [%s] to the list" VELA_ERR_FMT, path, VELA_ERR_ARGS);
      return false;
    }
  }
  return true;
}

int ShareSnapListGet(const std::string& shareName, PVLIBSZLIST* out, Json::Value& selector) {
  vela::platform::SzList names;
  if (!names.Ok()) {
    VELA_LOG(LOG_ERR, "VLIBCSzListAlloc failed. " VELA_ERR_FMT, VELA_ERR_ARGS);
    return -1;
  }
  PVELASHARE share = nullptr;
  PVELASNAPSELECTOR selectors = nullptr;
  int result = -1;
  char snapDir[4096] = {};
  if (ShareInfoGet(shareName.c_str(), &share) != 0) {
    VELA_LOG(LOG_ERR, "Failed to get share (%s)" VELA_ERR_FMT, shareName.c_str(), VELA_ERR_ARGS);
    goto done;
  }
  if (selector.isObject() && selector.isMember("time") && selector["time"].isArray()) {
    for (const Json::Value& element : selector["time"]) {
      const std::string text = element.isString() ? element.asString() : "";
      if (VELAShareSnapSelectorAdd(&selectors, VELAShareSnapTimeSelector, text.c_str()) != 0) {
        VELA_LOG(LOG_ERR, "Failed to add selector (%s)" VELA_ERR_FMT, text.c_str(), VELA_ERR_ARGS);
        goto done;
      }
    }
  }
  if (VELAShareSnapList(share, names.Address(), selectors) < 0) {
    VELA_LOG(LOG_ERR, "Failed to list share(%s) snapshots " VELA_ERR_FMT, shareName.c_str(),
             VELA_ERR_ARGS);
    goto done;
  }
  if (VELAShareSnapGetOrCreateSnapDir(share, snapDir, sizeof(snapDir), 0) != 1) {
    VELA_LOG(LOG_ERR, "Failed to get snapshot directory, share: %s " VELA_ERR_FMT, shareName.c_str(),
             VELA_ERR_ARGS);
    goto done;
  }
  result = PostfixPathAppend(snapDir, names.Address(), out) ? 0 : -1;
done:
  VELAShareSnapEnumFree(selectors);
  VELAShareFree(share);
  return result;
}

int SameVolumeCheck(PVLIBSZLIST* ppListPath, int& volume) {
  if (ppListPath == nullptr) {
    VELA_INVALID_ARGUMENT("__null != ppListPath");
    return -1;
  }
  if (*ppListPath == nullptr) {
    VELA_SET_ERROR(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  if ((*ppListPath)->nItem == 0) {
    volume = -1;
    return 0;
  }
  int previous = -1;
  for (int i = 0; i < (*ppListPath)->nItem; ++i) {
    const char* path = VLIBCSzListGet(*ppListPath, i);
    if (path == nullptr) {
      VELA_SET_ERROR(VLIB_ERR_BAD_PARAMETERS);
      return -1;
    }
    VOLUME_PATH_INFO pathInfo = {};
    if (VolumePathParseEx(path, &pathInfo) < 0) {
      VELA_LOG(LOG_ERR, "Fail to parse volume path from [%s]" VELA_ERR_FMT, path, VELA_ERR_ARGS);
      VELA_SET_ERROR(VLIB_ERR_BAD_VOLUME_PATH);
      return -1;
    }
    VELAMOUNTVOLINFO mountInfo = {};
    if (VELAMountVolInfoGet(path, &mountInfo) < 0) {
      VELA_LOG(LOG_ERR, "Fail to get mount volume info of path [%s]." VELA_ERR_FMT, path, VELA_ERR_ARGS);
      return -1;
    }
    if (mountInfo.fsType != VELA_FS_TYPE_BTRFS) {
      VELA_SET_ERROR(VLIB_ERR_BAD_FS_TYPE);
      return -1;
    }
    if (previous != -1 && mountInfo.volume != previous) return 1;
    previous = mountInfo.volume;
  }
  volume = previous;
  return 0;
}

}  // namespace VelaBtrfsUsage::Utils
