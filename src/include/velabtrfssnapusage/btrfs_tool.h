// The btrfs tool as the calculator uses it: running "subvolume size" over a
// task's snapshots with its output on a pipe, and identifying subvolumes.
#ifndef VELABTRFSSNAPUSAGE_BTRFS_TOOL_H_
#define VELABTRFSSNAPUSAGE_BTRFS_TOOL_H_

#include <signal.h>
#include <stdio.h>

#include <string>

#include "vela/vlib_szlist.h"
#include "velabtrfssnapusage/export.h"
#include "velabtrfssnapusage/types.h"

namespace VelaBtrfsUsage {

// Reads the tool's output from `fp` to its end.
typedef _tag_fp_parse_function_ret (*VELA_FP_PARSER_FN)(std::string taskID, FILE* fp,
                                                        std::string& errMsg,
                                                        VELA_PROGRESS_UPDATE_FN progress);

// Run codes, also the task's "error_code".
enum BTRFS_CMD_CODE {
  BTRFS_CMD_SUCCESS = 0,
  BTRFS_CMD_PARSER_FAIL = 1,
  BTRFS_CMD_INVALID_ARGUMENT = 3,
  BTRFS_CMD_TOOL_MISSING = 6,
  BTRFS_CMD_STOPPED = 12,
  BTRFS_CMD_PIPE_FAIL = 13,
};

class VELA_EXPORT BtrfsTool {
 public:
  // 0, or the stop signal (15 or 9) once received.
  static volatile sig_atomic_t gSignal;

  // Runs the tool over the task's list (option 1: snapshot paths; option 2:
  // root IDs on "/volume%d"), hands its output to `parser` and returns a
  // BTRFS_CMD_CODE. `cmd` receives the command line.
  // A run whose results lack a figure for any of the list's items fails
  // (1) and leaves no result files.
  static int CmdExc(_tag_VELA_BTRFS_USAGE_CAL_TASK* task, std::string taskID, PVLIBSZLIST* ppListParam,
                    VELA_FP_PARSER_FN parser, std::string& errMsg, std::string& cmd, void* context);
  // True when a stopped tool did not end within its grace period and was
  // left running: the calculator child ends its process group with it.
  static bool ToolAbandoned();

  // 1 if `path` is a btrfs subvolume root, 0 if not, -errno when it cannot
  // be examined, -1 for NULL.
  static int SubvolTest(const char* path);
  // The root ID of the subvolume at `szPath` (links resolved). 0, or -1.
  static int SubvolRootIdLookup(const char* szPath, unsigned long long& rootId);
  // The root IDs (decimal text) of the paths, in order, after checking that
  // they lie on one volume. 0, or -1.
  static int PathToRootId(PVLIBSZLIST* ppListPath, PVLIBSZLIST* ppListRootID);
};

}  // namespace VelaBtrfsUsage

#endif  // VELABTRFSSNAPUSAGE_BTRFS_TOOL_H_
