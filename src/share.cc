#include "share.h"

#include <json/json.h>

#include <syslog.h>

#include <optional>
#include <string>
#include <vector>

#include "base/numbers.h"
#include "intl_utils/state_files.h"
#include "vela/privileged_section.h"
#include "vela/sz_list.h"
#include "vela/vlib_error.h"
#include "velabtrfssnapusage/reminder.h"
#include "velabtrfssnapusage/share_snap_usage_cal.h"
#include "velabtrfssnapusage/task_status.h"
#include "velabtrfssnapusage/time_string.h"
#include "webapi_utils.h"

namespace VelaBtrfsUsageWebAPI {

namespace {

constexpr char kApiName[] = "VELA.Snap.Usage.Share";
constexpr char kLogSource[] = "share";

// Answer codes of this module.
constexpr int kErrorFailure = 1;
constexpr int kErrorBadParameter = 3;
constexpr int kErrorNoSnapshotInRange = 5001;
constexpr int kErrorShareBusy = 5002;

using Request = VELA::APIRequest;
using VelaBtrfsUsage::ShareSnapUsageCal;
using vela::platform::PrivilegedSection;

VELA::APIParameter<std::string> FetchShareName(const Request& request) {
  return request.GetAndCheckString("share_name", Request::PARAM_REQUIRED, Utils::IsNotEmpty);
}

// A share name is also refused when it could reach outside the state
// directories: it becomes part of file paths written as root.
bool ShareNameInvalid(const VELA::APIParameter<std::string>& shareName) {
  return shareName.IsInvalid() || shareName.Get().empty() ||
         !VelaBtrfsUsage::IsShareNameSafe(shareName.Get());
}

// Range bounds are numbers of seconds; anything else is a bad parameter.
bool ReadTime(const Json::Value& value, long& t) {
  if (value.isInt64()) {
    t = static_cast<long>(value.asInt64());
    return true;
  }
  if (value.isDouble() && value.asDouble() >= -9.2e18 && value.asDouble() <= 9.2e18) {
    t = static_cast<long>(value.asDouble());
    return true;
  }
  return false;
}

// The attribute's text in a share's record, when it is there.
bool Attr(const Json::Value& record, TASKSTATUS_ATTR attr, std::string& text) {
  return VelaBtrfsUsage::TaskStatus::ReadAttr(record, attr, text);
}

// A byte count as stored, when it converts; a damaged one is left out of
// the answer rather than failing it.
bool ReadBytes(const Json::Value& record, TASKSTATUS_ATTR attr, uint64_t& bytes) {
  std::string text;
  return Attr(record, attr, text) && vela::base::ParseUnsignedAnyBase(text, bytes);
}

// The attribute as seconds, when it can be read; false (and a failure
// answer) when it exists but does not convert.
bool AddTime(const Json::Value& record, TASKSTATUS_ATTR attr, const char* key, Json::Value& report) {
  std::string text;
  if (!Attr(record, attr, text)) return true;
  long t = 0;
  if (!VelaBtrfsUsage::Utils::TimeStringToTime_T(text, t)) return false;
  report[key] = static_cast<Json::Int64>(t);
  return true;
}

// The report of one share: 0 with the answer set, or the code to answer.
int BuildReport(const std::string& name, PVLIBSZLIST* names, VELA::APIResponse* response) {
  Json::Value record;
  CAL_TASK_STATUS state;
  const bool stateKnown = ShareSnapUsageCal::GetShareRecord(name, record, state) == 0;
  Json::Value report;
  std::string text;
  if (Attr(record, TASKSTATUS_ATTR_STATUS, text)) {
    // A calculation whose process is gone has ended, whatever it recorded.
    if ((text == "ready" || text == "process") && stateKnown && state == CAL_TASK_STATUS_FAIL) text = "fail";
    report["status"] = text;
  }
  if (!AddTime(record, TASKSTATUS_ATTR_START_TIME, "start_task", report) ||
      !AddTime(record, TASKSTATUS_ATTR_END_TIME, "end_task", report) ||
      !AddTime(record, TASKSTATUS_ATTR_RANGE_START, "range_start", report) ||
      !AddTime(record, TASKSTATUS_ATTR_RANGE_END, "range_end", report)) {
    return kErrorFailure;
  }
  uint64_t bytes = 0;
  if (ReadBytes(record, TASKSTATUS_ATTR_PROCESSED_IN_BYTES, bytes)) report["processed_in_bytes"] = Json::UInt64(bytes);
  if (ReadBytes(record, TASKSTATUS_ATTR_ESTIMATED_IN_BYTES, bytes)) report["estimated_in_bytes"] = Json::UInt64(bytes);
  std::vector<unsigned long long> usage;
  std::vector<unsigned long long> ids;
  int code = ShareSnapUsageCal::GetShareSnapAccumUsageVtr(name, usage);
  if (code != 0) return code;
  code = ShareSnapUsageCal::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, name, ids);
  if (code != 0) return code;
  code = ShareSnapUsageCal::FindSnapNameBySubvolID(name, ids, names);
  if (code != 0) return code;
  // The two result files are written by one run; vectors of different
  // lengths mean a damaged file, never a row without its numbers.
  if (usage.size() != ids.size() || (*names)->nItem != static_cast<int>(ids.size())) return kErrorFailure;
  Json::Value snapList(Json::arrayValue);
  for (size_t i = 0; i < ids.size(); ++i) {
    Json::Value row;
    row["subvol_id"] = static_cast<Json::UInt64>(ids[i]);
    row["time"] = VLIBCSzListGet(*names, static_cast<int>(i));
    row["accum_usage"] = static_cast<Json::UInt64>(usage[i]);
    snapList.append(row);
  }
  report["snap_list"] = snapList;
  response->SetSuccess(report);
  return 0;
}

}  // namespace

void Share::Start(VELA::APIRequest* request, VELA::APIResponse* response) {
  VelaBtrfsUsage::ShareSnapUsageCal manager;
  const auto shareName = FetchShareName(*request);
  const auto range = request->GetAndCheckObject("range", Request::PARAM_REQUIRED, nullptr);
  long start = 0;
  long end = 0;
  if (ShareNameInvalid(shareName) || range.IsInvalid() || !range.Get().isMember("range_start") ||
      !range.Get().isMember("range_end") || !ReadTime(range.Get()["range_start"], start) ||
      !ReadTime(range.Get()["range_end"], end)) {
    response->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  int result = 0;
  {
    PrivilegedSection elevated(kLogSource);
    // A start that cannot run is refused before anything is created: the
    // share stays free and its last report readable.
    result = ShareSnapUsageCal::CheckLaunch(shareName.Get(), &start, &end);
    if (result == 0) result = manager.CreateTask(shareName.Get());
    if (result == 0) result = manager.Launch(&start, &end);
  }
  if (result == 0) {
    response->SetSuccess(Json::Value());
    return;
  }
  // The two outcomes a user meets: nothing to calculate, or already busy.
  if (result == VelaBtrfsUsage::SHARE_CAL_NO_SNAPSHOT) {
    result = kErrorNoSnapshotInRange;
  } else if (result == VelaBtrfsUsage::SHARE_CAL_BUSY) {
    result = kErrorShareBusy;
  }
  response->SetError(result, Json::Value());
}

void Share::Status(VELA::APIRequest* request, VELA::APIResponse* response) {
  // "additional" is never tested: absent, it simply asks for nothing more.
  const auto additional = request->GetAndCheckArray("additional", Request::PARAM_REQUIRED, nullptr);
  vela::platform::SzList shares;
  if (!shares.Ok()) {
    syslog(LOG_ERR, "%s:%d VLIBCSzListAlloc failed. [0x%04X %s:%d]", kLogSource, __LINE__, VLIBCErrGet(),
           VLIBCErrorGetFile(), VLIBCErrorGetLine());
    response->SetError(kErrorFailure, Json::Value());
    return;
  }
  // One privileged section for the whole request, not one per file read:
  // every switch is logged, and a hundred shares made hundreds of lines.
  PrivilegedSection elevated(kLogSource);
  const VelaBtrfsUsage::Utils::StateDirectoryReuse oneLookUp;
  if (!ShareSnapUsageCal::GetShareTaskList(shares.Address())) {
    response->SetError(kErrorFailure, Json::Value());
    return;
  }
  Json::Value shareList(Json::arrayValue);
  for (int i = 0; i < shares.Count(); ++i) {
    const std::string name = shares.At(i);
    Json::Value record;
    CAL_TASK_STATUS state;
    // A calculation whose process is gone reads as ended ("fail").
    if (ShareSnapUsageCal::GetShareRecord(name, record, state) != 0) {
      syslog(LOG_DEBUG, "%s:%d Failed to get calculator status for share [%s]", kLogSource, __LINE__,
             name.c_str());
      continue;
    }
    // Only running and finished calculations are shown.
    if (state != CAL_TASK_STATUS_PROCESS && state != CAL_TASK_STATUS_DONE) continue;
    std::string stateText;
    if (!Attr(record, TASKSTATUS_ATTR_STATUS, stateText)) {
      response->SetSuccess(Json::Value());  // the request ends with nothing in it
      return;
    }
    Json::Value element;
    element["share_name"] = name;
    element["status"] = stateText;
    bool haveProcessed = false;
    bool haveEstimated = false;
    uint64_t processed = 0;
    uint64_t estimated = 0;
    for (const Json::Value& wanted : additional.Get()) {
      TASKSTATUS_ATTR attr;
      std::string text;
      if (!wanted.isString() || VelaBtrfsUsage::TaskStatus::CnvAttrsStrToEnumIdx(wanted.asString(), attr) != 0 ||
          !Attr(record, attr, text)) {
        continue;
      }
      switch (attr) {
        // A byte count that does not convert is left out of this share's
        // answer; the other shares are answered as usual.
        case TASKSTATUS_ATTR_PROCESSED_IN_BYTES:
          if (vela::base::ParseUnsignedAnyBase(text, processed)) {
            haveProcessed = true;
            element["processed_in_bytes"] = static_cast<Json::UInt64>(processed);
          }
          break;
        case TASKSTATUS_ATTR_ESTIMATED_IN_BYTES:
          if (vela::base::ParseUnsignedAnyBase(text, estimated)) {
            haveEstimated = true;
            element["estimated_in_bytes"] = static_cast<Json::UInt64>(estimated);
          }
          break;
        case TASKSTATUS_ATTR_RANGE_START:
        case TASKSTATUS_ATTR_RANGE_END: {
          long t = 0;
          if (!VelaBtrfsUsage::Utils::TimeStringToTime_T(text, t)) {
            response->SetSuccess(Json::Value());  // the request ends with nothing in it
            return;
          }
          element[attr == TASKSTATUS_ATTR_RANGE_START ? "range_start" : "range_end"] =
              static_cast<Json::Int64>(t);
          break;
        }
        default:
          syslog(LOG_ERR, "%s:%d unknow status idx: %d", kLogSource, __LINE__, static_cast<int>(attr));
          break;
      }
    }
    // A progress bar never shows less than the estimate once both are known.
    if (haveProcessed && haveEstimated && processed < estimated) {
      element["processed_in_bytes"] = static_cast<Json::UInt64>(estimated);
    }
    shareList.append(element);
  }
  Json::Value result;
  result["share_list"] = shareList;
  response->SetSuccess(result);
}

void Share::GetReport(VELA::APIRequest* request, VELA::APIResponse* response) {
  const auto shareName = FetchShareName(*request);
  if (ShareNameInvalid(shareName)) {
    response->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  const std::string& name = shareName.Get();
  vela::platform::SzList names;
  if (!names.Ok()) {
    syslog(LOG_ERR, "%s:%d VLIBCSzListAlloc failed. [0x%04X %s:%d]", kLogSource, __LINE__, VLIBCErrGet(),
           VLIBCErrorGetFile(), VLIBCErrorGetLine());
    response->SetError(kErrorFailure, Json::Value());
    return;
  }
  // Runs with the ids the server gave the request: no privileged section.
  const VelaBtrfsUsage::Utils::StateDirectoryReuse oneLookUp;
  const int code = BuildReport(name, names.Address(), response);
  if (code != 0) response->SetError(code, Json::Value());
}

void Share::Cancel(VELA::APIRequest* request, VELA::APIResponse* response) {
  const auto shareName = FetchShareName(*request);
  if (ShareNameInvalid(shareName)) {
    response->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  int result = 0;
  {
    PrivilegedSection elevated(kLogSource);
    result = ShareSnapUsageCal::Stop(shareName.Get());
  }
  if (result == 0) {
    response->SetSuccess(Json::Value());
  } else {
    response->SetError(result, Json::Value());
  }
}

void Share::Clean(VELA::APIRequest* request, VELA::APIResponse* response) {
  const auto shareName = FetchShareName(*request);
  if (ShareNameInvalid(shareName)) {
    response->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  int result = 0;
  {
    PrivilegedSection elevated(kLogSource);
    result = ShareSnapUsageCal::CleanAll(shareName.Get());
  }
  // A clean-up that left something behind says so: the caller must not
  // believe the share's calculation gone when it is not.
  if (result == 0) {
    response->SetSuccess(Json::Value());
  } else {
    response->SetError(kErrorFailure, Json::Value());
  }
}

void Share::GetConf(VELA::APIRequest* request, VELA::APIResponse* response) {
  // Never tested: an absent or mistyped "additional" iterates as empty.
  const auto additional = request->GetAndCheckArray("additional", Request::PARAM_REQUIRED, nullptr);
  Json::Value result;  // null until the first recognised name
  std::optional<PrivilegedSection> elevated;  // entered once, for the first name that needs it
  for (const Json::Value& name : additional.Get()) {
    if (!name.isString() || name.asString() != "reminder") continue;
    bool reminder = false;
    if (!elevated) elevated.emplace(kLogSource);
    const bool found = VelaBtrfsUsage::Utils::ReminderStatusGet(reminder);
    // No readable stored value means the default: remind.
    result["reminder"] = found ? reminder : true;
  }
  response->SetSuccess(result);
}

void Share::SetConf(VELA::APIRequest* request, VELA::APIResponse* response) {
  const auto reminder = request->GetAndCheckBool("reminder", Request::PARAM_REQUIRED, nullptr);
  if (reminder.IsInvalid()) {
    response->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  bool written = false;
  {
    PrivilegedSection elevated(kLogSource);
    written = VelaBtrfsUsage::Utils::ReminderStatusSet(reminder.Get());
  }
  if (written) {
    response->SetSuccess(Json::Value());
  } else {
    response->SetError(kErrorFailure, Json::Value());
  }
}

}  // namespace VelaBtrfsUsageWebAPI

extern "C" {

const VELA_WEBAPI_ENTRY gTable[] = {
    {VelaBtrfsUsageWebAPI::kApiName, 1, "start", VelaBtrfsUsageWebAPI::Share::Start},
    {VelaBtrfsUsageWebAPI::kApiName, 1, "status", VelaBtrfsUsageWebAPI::Share::Status},
    {VelaBtrfsUsageWebAPI::kApiName, 1, "get_report", VelaBtrfsUsageWebAPI::Share::GetReport},
    {VelaBtrfsUsageWebAPI::kApiName, 1, "cancel", VelaBtrfsUsageWebAPI::Share::Cancel},
    {VelaBtrfsUsageWebAPI::kApiName, 1, "clean", VelaBtrfsUsageWebAPI::Share::Clean},
    {VelaBtrfsUsageWebAPI::kApiName, 1, "get_conf", VelaBtrfsUsageWebAPI::Share::GetConf},
    {VelaBtrfsUsageWebAPI::kApiName, 1, "set_conf", VelaBtrfsUsageWebAPI::Share::SetConf},
    {nullptr, 0, nullptr, nullptr},
};

const VELA_WEBAPI_ENTRY* GetAPITable(void) { return gTable; }

}  // extern "C"
