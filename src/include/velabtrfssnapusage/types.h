// Types shared across the calculation library and its callers.
//
// The enumerations that callers may pass unknown values of have a fixed
// underlying int, so that such values are well defined and reach the checks
// that refuse them.
#ifndef VELABTRFSSNAPUSAGE_TYPES_H_
#define VELABTRFSSNAPUSAGE_TYPES_H_

#include <map>
#include <string>

#include "velabtrfssnapusage/export.h"

namespace VelaBtrfsUsage {
class TaskStatus;
}

// Attributes of a status record. The numbers are written to logs and used as
// indexes; keep them.
enum TASKSTATUS_ATTR : int {
  TASKSTATUS_ATTR_STATUS = 0,
  TASKSTATUS_ATTR_START_TIME = 1,
  TASKSTATUS_ATTR_END_TIME = 2,
  TASKSTATUS_ATTR_PID = 3,
  TASKSTATUS_ATTR_ERROR_CODE = 4,
  TASKSTATUS_ATTR_ERROR_MSG = 5,
  TASKSTATUS_ATTR_BTRFS_CMD = 6,
  TASKSTATUS_ATTR_PROCESSED_IN_BYTES = 7,
  TASKSTATUS_ATTR_ESTIMATED_IN_BYTES = 8,
  TASKSTATUS_ATTR_RANGE_START = 9,
  TASKSTATUS_ATTR_RANGE_END = 10,
  // When the calculator child started, in clock ticks after boot: with
  // "pid" it names the child for good, as a PID used again belongs to a
  // process started later.
  TASKSTATUS_ATTR_PID_START = 11,
};

// States of a calculation, stored under "status".
enum CAL_TASK_STATUS : int {
  CAL_TASK_STATUS_READY = 0,
  CAL_TASK_STATUS_PROCESS = 1,
  CAL_TASK_STATUS_FAIL = 2,
  CAL_TASK_STATUS_STOP = 3,
  CAL_TASK_STATUS_DONE = 4,
};

// Which result vector of a task: exclusive bytes, or subvolume root IDs.
enum TASK_RESULT_OPT : int {
  TASK_RESULT_OPT_RESULT = 1,     // ".result"
  TASK_RESULT_OPT_SUBVOL_ID = 2,  // ".subvol_id"
};

// Result of a progress call-back: 0 is success.
enum _tag_progress_update_function_ret : int {
  PROGRESS_UPDATE_SUCCESS = 0,
  PROGRESS_UPDATE_FAIL = 1,
};

// Result of a parser of the btrfs tool's output.
enum _tag_fp_parse_function_ret : int {
  FP_PARSE_SUCCESS = 0,    // output read to its end, results stored
  FP_PARSE_SIGNALED = 1,   // stopped by a signal
  FP_PARSE_FAIL = 2,       // error while reading or storing
};

typedef _tag_progress_update_function_ret (*VELA_PROGRESS_UPDATE_FN)(VelaBtrfsUsage::TaskStatus&,
                                                                     void*);
typedef int (*VELA_POST_CAL_ACTION_FN)(VelaBtrfsUsage::TaskStatus&, void*);

// What a calculator task is to compute, filled by its owner.
struct _tag_VELA_BTRFS_USAGE_CAL_TASK {
  int option;                              // 1: snapshot paths; 2: root IDs of one volume
  VELA_PROGRESS_UPDATE_FN progressUpdate;  // after every status change; may be null
  VELA_POST_CAL_ACTION_FN postCalAction;   // in the child after a successful run; may be null
  int volume;                              // with option 2: the volume number
};

enum VELA_BTRFS_USAGE_CAL_OPTION {
  VELA_BTRFS_USAGE_CAL_BY_PATH = 1,
  VELA_BTRFS_USAGE_CAL_BY_SUBVOL_ID = 2,
};

// Attribute keys and state strings, filled once at load time.
VELA_EXPORT extern std::map<TASKSTATUS_ATTR, std::string> _task_status_attr_str;
VELA_EXPORT extern std::map<CAL_TASK_STATUS, std::string> _cal_task_status_str;

#endif  // VELABTRFSSNAPUSAGE_TYPES_H_
