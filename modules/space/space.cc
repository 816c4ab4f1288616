#include "space.h"

#include <syslog.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/numbers.h"
#include "failure_reason.h"
#include "share_calculation.h"
#include "vela/privileged_section.h"
#include "vela/vela_share.h"
#include "vela/vlib_error.h"
#include "velabtrfssnapusage/share_snap_usage_cal.h"
#include "velabtrfssnapusage/task_status.h"
#include "velabtrfssnapusage/time_string.h"

namespace VelaSpaceWebAPI {

namespace {

constexpr char kApiName[] = "VELA.Snap.Usage.Space";
// The name this module's privileged sections and messages log under. Every
// method runs as root: the map names the files of every snapshot and is
// root's alone, and finding where snapshots lie reads the file system's
// trees.
constexpr char kLogSource[] = "space";
// Files named in an answer of "freed".
constexpr size_t kLargestFiles = 20;

constexpr int kFailure = ShareCalculation::kFailure;
constexpr int kBadParameter = ShareCalculation::kBadParameter;

using Request = VELA::APIRequest;
using VelaBtrfsUsage::TaskStatus;
using vela::platform::PrivilegedSection;
using SharePtr = std::unique_ptr<VELASHARE, decltype(&VELAShareFree)>;
using SnapshotsPtr = std::unique_ptr<VELASNAPINFO, decltype(&VELAShareSnapInfoFree)>;

// The share name, when it is a string that could name a share: it becomes
// part of paths read as root.
bool FetchShareName(const Request& request, std::string& name) {
  const auto param = request.GetAndCheckString("share_name", Request::PARAM_REQUIRED, nullptr);
  if (param.IsInvalid() || !VelaBtrfsUsage::IsShareNameSafe(param.Get())) return false;
  name = param.Get();
  return true;
}

// A count of bytes or snapshots: a JSON number that is a whole number from
// 0 to 2^64 - 1. An absent optional one keeps `value`.
bool FetchCount(const Request& request, const char* key, bool required, uint64_t& value) {
  const Json::Value& params = request.GetParams();
  if (!params.isObject() || !params.isMember(key)) return !required;
  if (!params[key].isUInt64()) return false;
  value = params[key].asUInt64();
  return true;
}

const char* StateName(CAL_TASK_STATUS state) {
  switch (state) {
    case CAL_TASK_STATUS_READY: return "ready";
    case CAL_TASK_STATUS_PROCESS: return "process";
    case CAL_TASK_STATUS_FAIL: return "fail";
    case CAL_TASK_STATUS_STOP: return "stop";
    case CAL_TASK_STATUS_DONE: return "done";
  }
  return "fail";
}

// What the record holds of the calculation's range, times and progress,
// as recorded: a member that is not there, or does not convert, is left
// out. Progress is not raised to the estimate, so that a page can draw it.
void AddRecorded(const Json::Value& record, Json::Value& data) {
  const struct {
    TASKSTATUS_ATTR attr;
    const char* key;
  } times[] = {{TASKSTATUS_ATTR_RANGE_START, "range_start"},
               {TASKSTATUS_ATTR_RANGE_END, "range_end"},
               {TASKSTATUS_ATTR_START_TIME, "start_task"},
               {TASKSTATUS_ATTR_END_TIME, "end_task"}};
  std::string text;
  for (const auto& time : times) {
    long seconds = 0;
    if (TaskStatus::ReadAttr(record, time.attr, text) &&
        VelaBtrfsUsage::Utils::TimeStringToTime_T(text, seconds)) {
      data[time.key] = static_cast<Json::Int64>(seconds);
    }
  }
  const struct {
    TASKSTATUS_ATTR attr;
    const char* key;
  } counts[] = {{TASKSTATUS_ATTR_PROCESSED_IN_BYTES, "processed_in_bytes"},
                {TASKSTATUS_ATTR_ESTIMATED_IN_BYTES, "estimated_in_bytes"}};
  for (const auto& count : counts) {
    uint64_t bytes = 0;
    if (TaskStatus::ReadAttr(record, count.attr, text) && vela::base::ParseUnsignedAnyBase(text, bytes)) {
      data[count.key] = static_cast<Json::UInt64>(bytes);
    }
  }
}

// Where each of the share's snapshots lies now, by subvolume ID. A share
// that is gone (or whose volume is not mounted) has none. False when the
// platform cannot tell (logged).
bool SnapshotPaths(const std::string& shareName, std::map<uint64_t, std::string>& paths) {
  PVELASHARE rawShare = nullptr;
  PVELASNAPINFO rawSnapshots = nullptr;
  const int count =
      VELAShareGet(shareName.c_str(), &rawShare) == 0 ? VELAShareSnapInfoList(rawShare, &rawSnapshots) : -1;
  const SharePtr share(rawShare, &VELAShareFree);
  const SnapshotsPtr snapshots(rawSnapshots, &VELAShareSnapInfoFree);
  if (count < 0) {
    if (VLIBCErrGet() == VLIB_ERR_NOT_FOUND) return true;
    syslog(LOG_ERR, "%s:%d Failed to list the snapshots of share [%s] [0x%04X %s:%d]", kLogSource, __LINE__,
           shareName.c_str(), VLIBCErrGet(), VLIBCErrorGetFile(), VLIBCErrorGetLine());
    return false;
  }
  for (int i = 0; i < count; ++i) paths[snapshots.get()[i].subvolId] = snapshots.get()[i].szPath;
  return true;
}

// One row per calculated snapshot: 0, or the code to answer.
int SnapshotRows(const std::string& shareName, const ShareCalculation& calculation, Json::Value& rows) {
  std::vector<unsigned long long> accumulated;
  std::map<uint64_t, std::string> paths;
  if (calculation.ReportAccumulated(accumulated) != 0 || !SnapshotPaths(shareName, paths)) return kFailure;
  const std::vector<vela::space_map::SnapshotBytes> figures = calculation.Map()->Snapshots();
  const std::vector<unsigned long long>& ids = calculation.RootIds();
  for (size_t i = 0; i < ids.size(); ++i) {
    // The report's figure and the map's are one walk's: a difference means
    // one of the files is not what the run wrote.
    if (accumulated.size() != ids.size() || figures[i].accumBytes != accumulated[i]) {
      syslog(LOG_ERR, "%s:%d The space map of share [%s] gives %llu bytes for subvolume %llu, its report %llu",
             kLogSource, __LINE__, shareName.c_str(), static_cast<unsigned long long>(figures[i].accumBytes), ids[i],
             i < accumulated.size() ? accumulated[i] : 0ULL);
      return kFailure;
    }
    Json::Value row;
    row["subvol_id"] = static_cast<Json::UInt64>(ids[i]);
    row["time"] = calculation.Names()[i];
    // A snapshot deleted since the calculation keeps its row and figures.
    const auto path = paths.find(ids[i]);
    row["path"] = path != paths.end() ? path->second : "";
    row["exists"] = path != paths.end();
    row["alone_bytes"] = static_cast<Json::UInt64>(figures[i].aloneBytes);
    row["added_bytes"] = static_cast<Json::UInt64>(figures[i].addedBytes);
    row["accum_bytes"] = static_cast<Json::UInt64>(figures[i].accumBytes);
    rows.append(row);
  }
  return 0;
}

// Reads the share's calculation; false with the answer set when there is
// nothing to answer from.
bool ReadCalculation(const std::string& shareName, bool needDone, ShareCalculation& calculation,
                     VELA::APIResponse* response) {
  const int code = calculation.Read(shareName, needDone);
  if (code != 0) response->SetError(code);
  return code == 0;
}

Json::Value ProposalJson(const vela::space_map::Proposal& proposal) {
  Json::Value answer;
  Json::Value ids(Json::arrayValue);
  for (uint64_t id : proposal.rootIds) ids.append(static_cast<Json::UInt64>(id));
  answer["subvol_ids"] = ids;
  answer["freed_bytes"] = static_cast<Json::UInt64>(proposal.freedBytes);
  answer["reached"] = proposal.reached;
  answer["exact"] = proposal.exact;
  return answer;
}

}  // namespace

void Space::Get(VELA::APIRequest* request, VELA::APIResponse* response) {
  std::string name;
  if (!FetchShareName(*request, name)) {
    response->SetError(kBadParameter);
    return;
  }
  PrivilegedSection elevated(kLogSource);
  ShareCalculation calculation;
  if (!ReadCalculation(name, false, calculation, response)) return;
  Json::Value data;
  data["share_name"] = name;
  data["status"] = StateName(calculation.State());
  AddRecorded(calculation.Record(), data);
  const std::string reason = FailureReason(calculation.Record(), calculation.State());
  if (!reason.empty()) {
    // A calculation whose process went away recorded no end, nor a code:
    // it failed (1), as the report says; a stop is 12.
    std::string text;
    uint64_t recorded = 0;
    const bool known = TaskStatus::ReadAttr(calculation.Record(), TASKSTATUS_ATTR_ERROR_CODE, text) &&
                       vela::base::ParseCanonicalDecimal(text, recorded) && recorded <= INT32_MAX;
    const int unrecorded = calculation.State() == CAL_TASK_STATUS_STOP ? 12 : 1;
    data["error_code"] = known ? static_cast<Json::Int>(recorded) : unrecorded;
    data["reason"] = reason;
  }
  Json::Value rows(Json::arrayValue);
  const int code = calculation.Done() ? SnapshotRows(name, calculation, rows) : 0;
  if (code != 0) {
    response->SetError(code);
    return;
  }
  data["snap_list"] = rows;
  response->SetSuccess(data);
}

void Space::Freed(VELA::APIRequest* request, VELA::APIResponse* response) {
  std::string name;
  const auto given = request->GetAndCheckArray("subvol_ids", Request::PARAM_REQUIRED, nullptr);
  std::vector<uint64_t> ids;
  for (const Json::Value& id : given.Get()) {
    if (id.isUInt64()) ids.push_back(id.asUInt64());
  }
  if (!FetchShareName(*request, name) || given.IsInvalid() || ids.empty() || ids.size() != given.Get().size()) {
    response->SetError(kBadParameter);
    return;
  }
  PrivilegedSection elevated(kLogSource);
  ShareCalculation calculation;
  if (!ReadCalculation(name, true, calculation, response)) return;
  vela::space_map::Freed freed;
  std::string error;
  const vela::space_map::Status status = calculation.Map()->FreedBy(ids, kLargestFiles, &freed, &error);
  if (status == vela::space_map::Status::kUnknownSubvolume) {
    response->SetError(kBadParameter);
    return;
  }
  if (status != vela::space_map::Status::kOk) {
    syslog(LOG_ERR, "%s:%d The space map of share [%s] cannot answer: %s", kLogSource, __LINE__, name.c_str(),
           error.c_str());
    response->SetError(kFailure);
    return;
  }
  Json::Value data;
  data["freed_bytes"] = static_cast<Json::UInt64>(freed.freedBytes);
  data["data_bytes"] = static_cast<Json::UInt64>(freed.dataBytes);
  data["metadata_bytes"] = static_cast<Json::UInt64>(freed.metadataBytes);
  Json::Value files(Json::arrayValue);
  for (const vela::space_map::FileShare& file : freed.files) {
    Json::Value entry;
    entry["path"] = file.path;
    entry["bytes"] = static_cast<Json::UInt64>(file.bytes);
    entry["subvol_id"] = static_cast<Json::UInt64>(file.rootId);
    entry["time"] = calculation.NameOf(file.rootId);
    files.append(entry);
  }
  data["files"] = files;
  data["files_complete"] = freed.filesComplete;
  response->SetSuccess(data);
}

void Space::Plan(VELA::APIRequest* request, VELA::APIResponse* response) {
  std::string name;
  uint64_t bytes = 0;
  uint64_t keepNewest = 0;
  if (!FetchShareName(*request, name) || !FetchCount(*request, "bytes", true, bytes) ||
      !FetchCount(*request, "keep_newest", false, keepNewest)) {
    response->SetError(kBadParameter);
    return;
  }
  PrivilegedSection elevated(kLogSource);
  ShareCalculation calculation;
  if (!ReadCalculation(name, true, calculation, response)) return;
  const vela::space_map::Plan plan = calculation.Map()->PlanFor(bytes, keepNewest);
  Json::Value data;
  data["bytes"] = static_cast<Json::UInt64>(bytes);
  data["keep_newest"] = static_cast<Json::UInt64>(keepNewest);
  data["oldest_first"] = ProposalJson(plan.oldestFirst);
  data["fewest_snapshots"] = ProposalJson(plan.fewestSnapshots);
  response->SetSuccess(data);
}

}  // namespace VelaSpaceWebAPI

extern "C" {

const VELA_WEBAPI_ENTRY gTable[] = {
    {VelaSpaceWebAPI::kApiName, 1, "get", VelaSpaceWebAPI::Space::Get},
    {VelaSpaceWebAPI::kApiName, 1, "freed", VelaSpaceWebAPI::Space::Freed},
    {VelaSpaceWebAPI::kApiName, 1, "plan", VelaSpaceWebAPI::Space::Plan},
    {nullptr, 0, nullptr, nullptr},
};

const VELA_WEBAPI_ENTRY* GetAPITable(void) { return gTable; }

}  // extern "C"
