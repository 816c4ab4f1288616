#include "failure_reason.h"

#include "base/numbers.h"
#include "velabtrfssnapusage/task_status.h"

namespace VelaSpaceWebAPI {

namespace {

// The run codes a calculation ends with (its "error_code").
const char* CodeReason(uint64_t code) {
  switch (code) {
    case 1: return "the size tool failed or its output was incomplete or wrong";
    case 3: return "the snapshots could not be calculated together (a bad range, or several volumes)";
    case 5: return "the calculation was asked for in a way the calculator does not know";
    case 6: return "the size tool is not installed";
    case 11: return "no calculation task could be created";
    case 12: return "it was stopped on request";
    case 13: return "the size tool could not be started";
    case 15: return "no snapshot was in the range";
    default: return nullptr;
  }
}

}  // namespace

std::string FailureReason(const Json::Value& record, CAL_TASK_STATUS state) {
  if (state != CAL_TASK_STATUS_FAIL && state != CAL_TASK_STATUS_STOP) return "";
  std::string text;
  std::string recorded;
  // The record still names a running calculation: its process went away
  // without recording an end.
  if (VelaBtrfsUsage::TaskStatus::ReadAttr(record, TASKSTATUS_ATTR_STATUS, text) &&
      (text == "process" || text == "ready")) {
    return "the calculation's process ended before it finished (killed, crashed, or the machine restarted)";
  }
  uint64_t code = 0;
  const bool known = VelaBtrfsUsage::TaskStatus::ReadAttr(record, TASKSTATUS_ATTR_ERROR_CODE, text) &&
                     vela::base::ParseCanonicalDecimal(text, code);
  const char* words = known ? CodeReason(code) : nullptr;
  std::string reason = words != nullptr ? words
                       : known          ? "it failed with code " + std::to_string(code)
                       : state == CAL_TASK_STATUS_STOP ? "it was stopped on request"
                                                       : "it failed for a reason it did not record";
  if (VelaBtrfsUsage::TaskStatus::ReadAttr(record, TASKSTATUS_ATTR_ERROR_MSG, recorded) && !recorded.empty()) {
    reason += ": " + recorded;
  }
  return reason;
}

}  // namespace VelaSpaceWebAPI
