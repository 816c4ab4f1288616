#include "share.h"

#include <json/json.h>

#include <string>

#include "privileged_section.h"
#include "velabtrfssnapusage/reminder.h"
#include "webapi_utils.h"

namespace VelaBtrfsUsageWebAPI {

namespace {

constexpr char kApiName[] = "VELA.Snap.Usage.Share";

// Answer codes of this module.
constexpr int kErrorFailure = 1;
constexpr int kErrorBadParameter = 3;

using Request = VELA::APIRequest;

VELA::APIParameter<std::string> FetchShareName(const Request& request) {
  return request.GetAndCheckString("share_name", Request::PARAM_REQUIRED, Utils::IsNotEmpty);
}

bool ShareNameInvalid(const VELA::APIParameter<std::string>& shareName) {
  return shareName.IsInvalid() || shareName.Get().empty();
}

}  // namespace

void Share::Start(VELA::APIRequest* request, VELA::APIResponse* response) {
  const auto shareName = FetchShareName(*request);
  const auto range = request->GetAndCheckObject("range", Request::PARAM_REQUIRED, nullptr);
  if (ShareNameInvalid(shareName) || range.IsInvalid() || !range.Get().isMember("range_start") ||
      !range.Get().isMember("range_end")) {
    response->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  // The calculation is not available in this build yet.
  response->SetError(kErrorFailure, Json::Value());
}

void Share::Status(VELA::APIRequest* request, VELA::APIResponse* response) {
  // "additional" is never tested: absent, it simply asks for nothing more.
  (void)request->GetAndCheckArray("additional", Request::PARAM_REQUIRED, nullptr);
  response->SetError(kErrorFailure, Json::Value());
}

void Share::GetReport(VELA::APIRequest* request, VELA::APIResponse* response) {
  if (ShareNameInvalid(FetchShareName(*request))) {
    response->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  response->SetError(kErrorFailure, Json::Value());
}

void Share::Cancel(VELA::APIRequest* request, VELA::APIResponse* response) {
  if (ShareNameInvalid(FetchShareName(*request))) {
    response->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  response->SetError(kErrorFailure, Json::Value());
}

void Share::Clean(VELA::APIRequest* request, VELA::APIResponse* response) {
  if (ShareNameInvalid(FetchShareName(*request))) {
    response->SetError(kErrorBadParameter, Json::Value());
    return;
  }
  response->SetError(kErrorFailure, Json::Value());
}

void Share::GetConf(VELA::APIRequest* request, VELA::APIResponse* response) {
  // Never tested: an absent or mistyped "additional" iterates as empty.
  const auto additional = request->GetAndCheckArray("additional", Request::PARAM_REQUIRED, nullptr);
  Json::Value result;  // null until the first recognised name
  for (const Json::Value& name : additional.Get()) {
    if (!name.isString() || name.asString() != "reminder") continue;
    bool reminder = false;
    bool found = false;
    {
      PrivilegedSection elevated;
      found = VelaBtrfsUsage::Utils::ReminderStatusGet(reminder);
    }
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
    PrivilegedSection elevated;
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
