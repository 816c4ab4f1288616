// Why a calculation did not end "done", in words an administrator reads:
// from the code and the message its status record holds.
#ifndef VELA_SPACE_FAILURE_REASON_H_
#define VELA_SPACE_FAILURE_REASON_H_

#include <json/json.h>

#include <string>

#include "velabtrfssnapusage/types.h"

namespace VelaSpaceWebAPI {

// `record` is the share's status record as read, `state` the state the
// calculation is in (a record that still says "process" or "ready" whose
// process is gone is in "fail"). Empty for a calculation that is running
// or done.
std::string FailureReason(const Json::Value& record, CAL_TASK_STATUS state);

}  // namespace VelaSpaceWebAPI

#endif  // VELA_SPACE_FAILURE_REASON_H_
