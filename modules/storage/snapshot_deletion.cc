#include "snapshot_deletion.h"

#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "error_codes.h"
#include "vela/privileged_section.h"
#include "vela/vela_share.h"
#include "vela/vlib_error.h"

namespace VelaStorageWebAPI {

namespace {

// One request deletes at most so many: more than any share's page holds,
// and a bound on how long one request may take.
constexpr Json::ArrayIndex kMaxNames = 1000;
// The name this method's privileged section logs under: deleting a
// snapshot needs root.
constexpr char kLogSource[] = "snapshot_deletion";

using SharePtr = std::unique_ptr<VELASHARE, decltype(&VELAShareFree)>;
using SnapshotsPtr = std::unique_ptr<VELASNAPINFO, decltype(&VELAShareSnapInfoFree)>;

// A name that could be a listed snapshot's (VELASNAPINFO's 63 bytes at
// most) and is one entry of a directory: nothing path-like gets further.
bool IsPossibleSnapshotName(const Json::Value& name) {
  if (!name.isString()) return false;
  const std::string text = name.asString();
  return text.size() < sizeof(VELASNAPINFO::szName) && VELAShareNameIsValid(text.data(), text.size()) == TRUE;
}

bool ArePossibleSnapshotNames(const Json::Value& names) {
  if (names.empty() || names.size() > kMaxNames) return false;
  for (const Json::Value& name : names) {
    if (!IsPossibleSnapshotName(name)) return false;
  }
  return true;
}

struct Refusal {
  const char* reason;
  const char* message;
};

Refusal RefusalOf(int error) {
  switch (error) {
    case VLIB_ERR_NOT_FOUND: return {"not_found", "the share has no such snapshot now"};
    case VLIB_ERR_WRITABLE: return {"not_read_only", "it is writable, so it may be in use as data"};
    case VLIB_ERR_BUSY:
      return {"in_use", "the file system refused: it is the default subvolume, being sent, or holds subvolumes"};
    default: return {"failed", "the file system could not delete it"};
  }
}

// IDs given beside the names: a list as long as "names" of subvolume IDs.
bool AreSubvolumeIds(const Json::Value& ids) {
  for (const Json::Value& id : ids) {
    if (!id.isUInt64() || id.asUInt64() == 0) return false;
  }
  return true;
}

// Deletes the snapshot that the share's listing of the request's start
// names `name` (and gives subvolume `id`, when the caller said which) and
// says how it went, in the answer and in the log.
Json::Value DeleteOne(VELASHARE* share, const VELASNAPINFO* listed, int count, const std::string& name,
                      unsigned long long id, const std::string& user) {
  Json::Value result;
  result["name"] = name;
  const VELASNAPINFO* found = nullptr;
  for (int i = 0; i < count && found == nullptr; ++i) {
    if (name == listed[i].szName && (id == 0 || id == listed[i].subvolId)) found = &listed[i];
  }
  int error = VLIB_ERR_NOT_FOUND;
  int savedErrno = 0;
  if (found != nullptr) {
    result["subvol_id"] = static_cast<Json::UInt64>(found->subvolId);
    result["path"] = found->szPath;
    result["tool"] = found->szTool;
    error = VELAShareSnapDeleteReadOnly(share, found->subvolId) == 0 ? VLIB_ERR_NONE : VLIBCErrGet();
    savedErrno = errno;
  }
  result["deleted"] = error == VLIB_ERR_NONE;
  if (error == VLIB_ERR_NONE) {
    syslog(LOG_NOTICE, "storage: %s deleted snapshot %s of share %s (subvolume %llu at %s, taken by %s)",
           user.c_str(), name.c_str(), share->szName, found->subvolId, found->szPath, found->szTool);
    return result;
  }
  const Refusal refusal = RefusalOf(error);
  result["reason"] = refusal.reason;
  result["message"] = refusal.message;
  if (error == VLIB_ERR_NOT_FOUND || error == VLIB_ERR_WRITABLE) {
    syslog(LOG_WARNING, "storage: %s asked to delete snapshot %s of share %s: refused, %s", user.c_str(),
           name.c_str(), share->szName, refusal.message);
  } else {
    syslog(LOG_ERR, "storage: %s could not delete snapshot %s of share %s (subvolume %llu at %s): %s [0x%04X %s:%d]",
           user.c_str(), name.c_str(), share->szName, found->subvolId, found->szPath, strerror(savedErrno), error,
           VLIBCErrorGetFile(), VLIBCErrorGetLine());
  }
  return result;
}

}  // namespace

void SnapshotDeletion::Delete(VELA::APIRequest* request, VELA::APIResponse* response) {
  const auto shareName = request->GetAndCheckString("share_name", VELA::APIRequest::PARAM_REQUIRED, nullptr);
  const auto names = request->GetAndCheckArray("names", VELA::APIRequest::PARAM_REQUIRED, ArePossibleSnapshotNames);
  const auto ids = request->GetAndCheckArray("subvol_ids", VELA::APIRequest::PARAM_OPTIONAL, AreSubvolumeIds);
  const std::string& name = shareName.Get();
  if (shareName.IsInvalid() || names.IsInvalid() || ids.IsInvalid() ||
      (!ids.Get().isNull() && ids.Get().size() != names.Get().size()) ||
      !VELAShareNameIsValid(name.data(), name.size())) {
    response->SetError(kErrorBadParameter);
    return;
  }
  const std::string user = request->GetLoginUser().empty() ? "an unnamed user" : request->GetLoginUser();
  vela::platform::PrivilegedSection root(kLogSource);
  PVELASHARE raw = nullptr;
  SnapshotsPtr listed(nullptr, &VELAShareSnapInfoFree);
  int count = -1;
  if (VELAShareGet(name.c_str(), &raw) == 0) {
    PVELASNAPINFO infos = nullptr;
    count = VELAShareSnapInfoList(raw, &infos);
    listed.reset(infos);
  }
  const SharePtr share(raw, &VELAShareFree);
  if (count < 0) {
    const bool missing = VLIBCErrGet() == VLIB_ERR_NOT_FOUND;
    if (!missing) {
      syslog(LOG_ERR, "storage: listing the snapshots of share %s failed [0x%04X %s:%d]", name.c_str(),
             VLIBCErrGet(), VLIBCErrorGetFile(), VLIBCErrorGetLine());
    }
    response->SetError(missing ? kErrorNotFound : kErrorFailure);
    return;
  }
  // Every name is looked up in this one listing: names shift as snapshots
  // go, so a later name must not be read after an earlier one is deleted.
  Json::Value results(Json::arrayValue);
  for (Json::ArrayIndex i = 0; i < names.Get().size(); ++i) {
    const unsigned long long id = ids.Get().isNull() ? 0 : ids.Get()[i].asUInt64();
    results.append(DeleteOne(share.get(), listed.get(), count, names.Get()[i].asString(), id, user));
  }
  Json::Value data;
  data["share_name"] = share->szName;
  data["results"] = results;
  response->SetSuccess(data);
}

}  // namespace VelaStorageWebAPI
