#include "velabtrfssnapusage/btrfs_tool.h"

#include <dirent.h>
#include <poll.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <set>
#include <vector>

#include "base/numbers.h"
#include "intl_utils/file_names.h"
#include "intl_utils/log.h"
#include "vela/vela_subvol.h"
#include "vela/vela_volume.h"
#include "vela/vlib_file.h"
#include "vela/vlib_proc.h"
#include "velabtrfssnapusage/file_helpers.h"
#include "velabtrfssnapusage/share_snapshot.h"
#include "velabtrfssnapusage/signal_handler.h"
#include "velabtrfssnapusage/task_result.h"

namespace VelaBtrfsUsage {

namespace {

constexpr char kLogSource[] = "intl_utils/btrfs_tool";
constexpr char kBtrfsTool[] = VELA_BTRFS_TOOL_PATH;
// How long a stopped tool is given to end after SIGTERM before the child
// gives up on it (and takes its process group down when it ends itself).
constexpr int kToolStopGraceMs = 2000;

bool gToolAbandoned = false;

long long NowMs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Reads and drops what a stopped tool still prints until it closes its
// output, for at most kToolStopGraceMs. True when it did: it has ended (or
// is ending) and can be waited for without hanging the child.
bool ToolEndsAfterStop(FILE* fp) {
  const int fd = fileno(fp);
  const long long deadline = NowMs() + kToolStopGraceMs;
  char buffer[4096];
  for (;;) {
    const long long left = deadline - NowMs();
    if (left <= 0) return false;
    struct pollfd watch = {fd, POLLIN, 0};
    const int ready = poll(&watch, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n == 0) return true;
    if (n < 0 && errno != EINTR && errno != EAGAIN) return false;
  }
}

// Whether the results the parser stored hold a figure for every subvolume
// the tool was asked about. A tool that ended early (killed, a snapshot
// deleted or the volume unmounted under it) leaves figures out, and a
// report without them would be wrong, not short.
bool ResultsComplete(_tag_VELA_BTRFS_USAGE_CAL_TASK* task, const std::string& taskID, PVLIBSZLIST list,
                     std::string& missing) {
  std::vector<unsigned long long> ids;
  if (TaskResult::GetResultVtr(TASK_RESULT_OPT_SUBVOL_ID, taskID, ids) != TASK_RESULT_SUCCESS) return false;
  if (task->option != VELA_BTRFS_USAGE_CAL_BY_SUBVOL_ID) {
    if (ids.size() >= static_cast<size_t>(list->nItem)) return true;
    missing = std::to_string(list->nItem - ids.size()) + " of the given paths";
    return false;
  }
  const std::set<unsigned long long> reported(ids.begin(), ids.end());
  for (int i = 0; i < list->nItem; ++i) {
    uint64_t id = 0;
    const char* text = VLIBCSzListGet(list, i);
    if (!vela::base::ParseRootId(text, id) || reported.count(id) == 0) {
      missing += missing.empty() ? text : std::string(" ") + text;
    }
  }
  return missing.empty();
}

}  // namespace

volatile sig_atomic_t BtrfsTool::gSignal = 0;

bool BtrfsTool::ToolAbandoned() { return gToolAbandoned; }

int BtrfsTool::CmdExc(_tag_VELA_BTRFS_USAGE_CAL_TASK* task, std::string taskID, PVLIBSZLIST* ppListParam,
                      VELA_FP_PARSER_FN parser, std::string& errMsg, std::string& cmd, void* context) {
  (void)context;
  if (ppListParam == nullptr) {
    VELA_INVALID_ARGUMENT("__null != ppListParam");
    return BTRFS_CMD_INVALID_ARGUMENT;
  }
  if (parser == nullptr) {
    VELA_INVALID_ARGUMENT("NULL != pCmdFpParser");
    return BTRFS_CMD_INVALID_ARGUMENT;
  }
  if (task == nullptr) {
    VELA_INVALID_ARGUMENT("__null != opt_task");
    return BTRFS_CMD_INVALID_ARGUMENT;
  }
  if (*ppListParam == nullptr) return BTRFS_CMD_INVALID_ARGUMENT;
  if (VLIBCFileExist(kBtrfsTool) != 1) {
    VELA_LOG(LOG_ERR, "%s is not found.", kBtrfsTool);
    return BTRFS_CMD_TOOL_MISSING;
  }
  SignalHandler::Install();

  const int items = (*ppListParam)->nItem;
  std::vector<char*> argv(static_cast<size_t>(items) + 12, nullptr);
  char volumePath[1024] = {};
  // The same run writes the space map beside the task's result vectors; a
  // tool that cannot write it says so and still gives every figure, so the
  // calculation is not lost for want of the map. The tool follows the path
  // it is given: the directory is checked (and made) here first, and a
  // refused one gets no map (nor, later, the results).
  std::string spaceMap = FileNames::TaskSpaceMap(taskID);
  int next = 0;
  argv[next++] = const_cast<char*>(kBtrfsTool);
  argv[next++] = const_cast<char*>("subvolume");
  argv[next++] = const_cast<char*>("size");
  argv[next++] = const_cast<char*>("-vpm");
  if (TaskResult::InitWorkingDir()) {
    argv[next++] = const_cast<char*>("--space-map");
    argv[next++] = spaceMap.data();
  }
  if (task->option == VELA_BTRFS_USAGE_CAL_BY_SUBVOL_ID) {
    if (VELAVolumePathGet(task->volume, volumePath, sizeof(volumePath)) != 0) {
      VELA_LOG(LOG_ERR, "Invalid volume of calculator: %d", task->volume);
      return BTRFS_CMD_INVALID_ARGUMENT;
    }
    argv[next++] = const_cast<char*>("-r");
    argv[next++] = volumePath;
  } else if (task->option != VELA_BTRFS_USAGE_CAL_BY_PATH) {
    VELA_LOG(LOG_ERR, "Invalid option of calculator: %d", task->option);
    return BTRFS_CMD_INVALID_ARGUMENT;
  }
  for (int i = 0; i < items; ++i) argv[next++] = const_cast<char*>(VLIBCSzListGet(*ppListParam, i));

  if (SignalHandler::StopRequested()) return BTRFS_CMD_STOPPED;
  FILE* fp = VLIBCPopenv(kBtrfsTool, "rB", argv.data());
  if (fp == nullptr) {
    if (VLIBCErrGet() == VLIB_ERR_SYSTEM) {
      VELA_LOG(LOG_WARNING, "Faild to open pipe" VELA_ERR_FMT " [%d]", VELA_ERR_ARGS, errno);
    }
    return BTRFS_CMD_PIPE_FAIL;
  }
  std::string commandLine;
  for (int i = 0; argv[i] != nullptr; ++i) commandLine += std::string(argv[i]) + " ";
  VELA_LOG(LOG_DEBUG, "BTRFS CMD: %s", commandLine.c_str());

  int code = BTRFS_CMD_STOPPED;
  if (!SignalHandler::StopRequested()) {
    cmd = commandLine;
    const int parsed = parser(taskID, fp, errMsg, task->progressUpdate);
    switch (parsed) {
      case FP_PARSE_SUCCESS:
        code = BTRFS_CMD_SUCCESS;
        break;
      case FP_PARSE_SIGNALED:
        code = BTRFS_CMD_STOPPED;
        break;
      case FP_PARSE_FAIL:
        VELA_LOG(LOG_WARNING, "Failed to read pipe, cmd(%s)" VELA_ERR_FMT, commandLine.c_str(),
                 VELA_ERR_ARGS);
        code = BTRFS_CMD_PARSER_FAIL;
        break;
      default:
        VELA_LOG(LOG_ERR, "Unknown return code (%d) of parser function is found.", parsed);
        code = BTRFS_CMD_PARSER_FAIL;
        break;
    }
    std::string missing;
    if (code == BTRFS_CMD_SUCCESS && !ResultsComplete(task, taskID, *ppListParam, missing)) {
      VELA_LOG(LOG_ERR, "The btrfs tool gave no figure for %s, cmd(%s)", missing.c_str(), commandLine.c_str());
      errMsg = "no figure for " + missing;
      TaskResult::CleanFile(taskID);
      code = BTRFS_CMD_PARSER_FAIL;
    }
  }
  if (code == BTRFS_CMD_STOPPED && !ToolEndsAfterStop(fp)) {
    // The tool ignores the stop: it is not waited for. The child takes it
    // down with its process group once it has recorded the stop.
    gToolAbandoned = true;
    return code;
  }
  // The tool's own failure is logged; the run's code is the parser's (a
  // tool that printed every figure and then failed still gave them all).
  const int status = VLIBCPclose(fp);
  if (status != 0) {
    VELA_SET_ERROR(VLIB_ERR_OPERATION_FAILED);
    VELA_LOG(LOG_ERR, "Failed to run\"%s\".", commandLine.c_str());
    VELA_LOG(LOG_WARNING, "The btrfs tool ended with exit status %d, cmd(%s)", status, commandLine.c_str());
  }
  // A second close of the same stream: the platform refuses it harmlessly.
  VLIBCPclose(fp);
  return code;
}

int BtrfsTool::SubvolTest(const char* path) {
  if (path == nullptr) {
    VELA_INVALID_ARGUMENT("__null != path");
    return -1;
  }
  return VELASubvolTest(path);
}

int BtrfsTool::SubvolRootIdLookup(const char* szPath, unsigned long long& rootId) {
  if (szPath == nullptr) {
    VELA_INVALID_ARGUMENT("__null != szPath");
    return -1;
  }
  std::unique_ptr<char, decltype(&free)> resolved(realpath(szPath, nullptr), &free);
  if (resolved == nullptr) {
    VELA_LOG(LOG_ERR, "Failed to get realpath of '%s', errno:%s", szPath, strerror(errno));
    return -1;
  }
  const char* path = resolved.get();
  const int test = SubvolTest(path);
  if (test < 0) {
    VELA_LOG(LOG_ERR, "Failed to access subvolume '%s': %s", path, strerror(-test));
    return -1;
  }
  if (test == 0) {
    VELA_LOG(LOG_ERR, "'%s' is not a subvolume", path);
    return -1;
  }
  DIR* dir = nullptr;
  const int fd = Utils::FileOrDirOpen(path, &dir);
  if (fd < 0) {
    VELA_LOG(LOG_ERR, "Cannot access '%s'", path);
    Utils::FileOrDirClose(-1, dir);
    return -1;
  }
  if (VELASubvolIdGet(fd, &rootId) != 0) {
    fprintf(stderr, "ERROR: Failed to lookup root id - %s\n", strerror(errno));
    VELA_LOG(LOG_ERR, "Failed to lookup rootid '%s'", path);
    Utils::FileOrDirClose(fd, dir);
    return -1;
  }
  Utils::FileOrDirClose(fd, dir);
  return 0;
}

int BtrfsTool::PathToRootId(PVLIBSZLIST* ppListPath, PVLIBSZLIST* ppListRootID) {
  if (ppListPath == nullptr) {
    VELA_INVALID_ARGUMENT("__null != ppListPath");
    return -1;
  }
  if (ppListRootID == nullptr) {
    VELA_INVALID_ARGUMENT("NULL != ppListRootID");
    return -1;
  }
  if (*ppListPath == nullptr || *ppListRootID == nullptr) {
    VELA_SET_ERROR(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  int volume = -1;
  if (Utils::SameVolumeCheck(ppListPath, volume) != 0) {
    VELA_LOG(LOG_ERR, "Same volume check fails" VELA_ERR_FMT, VELA_ERR_ARGS);
    return -1;
  }
  VLIBCSzListRemoveAll(*ppListRootID);
  for (int i = 0; i < (*ppListPath)->nItem; ++i) {
    const char* path = VLIBCSzListGet(*ppListPath, i);
    unsigned long long rootId = 0;
    if (SubvolRootIdLookup(path, rootId) != 0) {
      VELA_LOG(LOG_ERR, "Failed to look up the root ID of [%s]", path);
      return -1;
    }
    char text[32];
    snprintf(text, sizeof(text), "%llu", rootId);
    if (VLIBCSzListPush(ppListRootID, text) < 0) {
      VELA_LOG(LOG_ERR, "Failed to push root ID [%s] to the list" VELA_ERR_FMT, text, VELA_ERR_ARGS);
      return -1;
    }
  }
  return 0;
}

}  // namespace VelaBtrfsUsage
