#include "share_calculation.h"

#include <syslog.h>

#include <algorithm>

#include "vela/sz_list.h"
#include "velabtrfssnapusage/share_snap_usage_cal.h"

namespace VelaSpaceWebAPI {

namespace {

constexpr char kLogSource[] = "space/share_calculation";

using VelaBtrfsUsage::ShareSnapUsageCal;
using vela::space_map::SpaceMap;
using vela::space_map::Status;

}  // namespace

int ShareCalculation::Read(const std::string& shareName, bool needDone) {
  shareName_ = shareName;
  std::string mapPath;
  const int found = ShareSnapUsageCal::FindSpaceMap(shareName, mapPath);
  if (found == VelaBtrfsUsage::SHARE_CAL_NOT_FOUND) return kNotFound;
  if (found == VelaBtrfsUsage::SHARE_CAL_INVALID_ARGUMENT) return kBadParameter;
  if (found != VelaBtrfsUsage::SHARE_CAL_SUCCESS) return kFailure;
  if (ShareSnapUsageCal::GetShareRecord(shareName, record_, state_) != VelaBtrfsUsage::SHARE_CAL_SUCCESS) {
    syslog(LOG_ERR, "%s:%d The status record of share [%s] cannot be read", kLogSource, __LINE__, shareName.c_str());
    return kFailure;
  }
  if (!Done()) return needDone ? kNotFound : 0;
  // A calculation whose size tool could not write the map is done all the
  // same; only its map is missing.
  if (mapPath.empty()) {
    syslog(LOG_DEBUG, "%s:%d The calculation of share [%s] has no space map", kLogSource, __LINE__,
           shareName.c_str());
    return kNotFound;
  }
  if (ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, shareName, rootIds_) !=
      VelaBtrfsUsage::SHARE_CAL_SUCCESS) {
    return kFailure;  // the library logs what it could not read
  }
  vela::platform::SzList names;
  if (!names.Ok() || ShareSnapUsageCal::FindSnapNameBySubvolID(shareName, rootIds_, names.Address()) !=
                         VelaBtrfsUsage::SHARE_CAL_SUCCESS) {
    syslog(LOG_ERR, "%s:%d The snapshot names of share [%s] cannot be read", kLogSource, __LINE__, shareName.c_str());
    return kFailure;
  }
  for (int i = 0; i < names.Count(); ++i) names_.emplace_back(names.At(i));
  std::string error;
  const Status opened = SpaceMap::Open(mapPath, &map_, &error);
  // Gone since it was found: the share was cleaned or calculated anew.
  if (opened == Status::kMissing) return kNotFound;
  if (opened != Status::kOk) {
    syslog(LOG_ERR, "%s:%d The space map of share [%s] cannot be used: %s", kLogSource, __LINE__, shareName.c_str(),
           error.c_str());
    return kFailure;
  }
  // The map and the results come from one run; any difference means one
  // of them is not what that run wrote.
  const std::vector<uint64_t>& mapped = map_->RootIds();
  if (mapped.size() != rootIds_.size() || names_.size() != rootIds_.size() ||
      !std::equal(mapped.begin(), mapped.end(), rootIds_.begin())) {
    syslog(LOG_ERR, "%s:%d The space map %s of share [%s] holds %zu snapshots that are not the %zu of its results",
           kLogSource, __LINE__, mapPath.c_str(), shareName.c_str(), mapped.size(), rootIds_.size());
    map_.reset();
    return kFailure;
  }
  return 0;
}

std::string ShareCalculation::NameOf(uint64_t rootId) const {
  for (size_t i = 0; i < rootIds_.size(); ++i) {
    if (rootIds_[i] == rootId) return names_[i];
  }
  return "";
}

int ShareCalculation::ReportAccumulated(std::vector<unsigned long long>& accumulated) const {
  return ShareSnapUsageCal::GetShareSnapAccumUsageVtr(shareName_, accumulated) == VelaBtrfsUsage::SHARE_CAL_SUCCESS
             ? 0
             : kFailure;
}

}  // namespace VelaSpaceWebAPI
