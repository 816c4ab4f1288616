// Every fixed path of the system, and every name built from them, in one
// place.
#ifndef VELABTRFSSNAPUSAGE_INTL_UTILS_FILE_NAMES_H_
#define VELABTRFSSNAPUSAGE_INTL_UTILS_FILE_NAMES_H_

#include <string>

// Run-time state: gone after a restart.
#define VELA_RUN_DIR "/run/velabtrfssnapusage"
// Lock files of every state file.
#define VELA_LOCK_DIR "/run/lock/velabtrfssnapusage"
// Persistent state: survives a restart.
#define VELA_PERSISTENT_DIR "/usr/local/velabtrfssnapusage"

#define VELA_TASK_STATUS_DIR VELA_RUN_DIR "/task_status"
#define VELA_TASK_STATUS_LOCK_DIR VELA_LOCK_DIR "/task_status"
#define VELA_TASK_RESULT_DIR VELA_RUN_DIR "/task_result"
#define VELA_TASK_RESULT_LOCK_DIR VELA_LOCK_DIR "/snap_cal_result"
#define VELA_SHARE_TASK_STATUS_DIR VELA_PERSISTENT_DIR "/share_task_status"
#define VELA_SHARE_TASK_STATUS_LOCK_DIR VELA_LOCK_DIR "/share_task_status"
#define VELA_SHARE_TASK_RESULT_DIR VELA_PERSISTENT_DIR "/share_task_result"
#define VELA_SHARE_TASK_LOCK_DIR VELA_LOCK_DIR "/share_task"
#define VELA_SHARE_CAL_MAP_FILE VELA_PERSISTENT_DIR "/share_snap_cal_map"
#define VELA_SHARE_CAL_MAP_LOCK VELA_LOCK_DIR "/share_snap_cal_map.lock"
#define VELA_REMINDER_RECORD_FILE VELA_PERSISTENT_DIR "/reminder_record"
#define VELA_REMINDER_RECORD_LOCK VELA_LOCK_DIR "/reminder_record.lock"

// Directories and files of the state are created with exactly these modes
// (never through the umask): directories root's, readable by all; lock
// files readable by root and the web server's group only, so that nobody
// else can hold a lock and hang the module.
#define VELA_STATE_DIR_MODE 0755
#define VELA_LOCK_FILE_MODE 0640
// The group of the web server's processes (the service account's group):
// they read the share's status and results for get_report, which runs
// with their ids. When the machine has no such group, lock files are
// root's alone.
#ifndef VELA_WEB_SERVER_GROUP
#error "VELA_WEB_SERVER_GROUP is set by the build"
#endif

// External programs.
#define VELA_UUIDGEN_PATH "/usr/bin/uuidgen"
#ifndef VELA_BTRFS_TOOL_PATH
#error "VELA_BTRFS_TOOL_PATH is set by the build (VELA_BTRFS_TOOL)"
#endif

namespace VelaBtrfsUsage::FileNames {

// Status file and lock file of a calculator task. Task lock files end in
// ".lock"; share lock files do not.
inline std::string TaskStatusFile(const std::string& taskID) {
  return VELA_TASK_STATUS_DIR "/" + taskID;
}
inline std::string TaskStatusLock(const std::string& taskID) {
  return VELA_TASK_STATUS_LOCK_DIR "/" + taskID + ".lock";
}

inline std::string ShareTaskStatusFile(const std::string& shareName) {
  return VELA_SHARE_TASK_STATUS_DIR "/" + shareName;
}
inline std::string ShareTaskStatusLock(const std::string& shareName) {
  return VELA_SHARE_TASK_STATUS_LOCK_DIR "/" + shareName;
}
// Result vector files of a task: base + ".result" or ".subvol_id".
inline std::string TaskResultBase(const std::string& taskID) {
  return VELA_TASK_RESULT_DIR "/" + taskID;
}
inline std::string TaskResultLockBase(const std::string& taskID) {
  return VELA_TASK_RESULT_LOCK_DIR "/" + taskID;
}
// Suffix of a result vector file: ".result" (bytes, selector 1) or
// ".subvol_id" (root IDs, selector 2); null for any other selector.
inline const char* TaskResultSuffix(int opt) {
  return opt == 1 ? ".result" : opt == 2 ? ".subvol_id" : nullptr;
}
// The calculation's space map (what deleting any set of its snapshots
// frees), written by the size tool beside the task's result vectors and
// named after the task like them, so that it is copied, kept and removed
// with them.
#define VELA_SPACE_MAP_SUFFIX ".space_map"
inline std::string TaskSpaceMap(const std::string& taskID) {
  return TaskResultBase(taskID) + VELA_SPACE_MAP_SUFFIX;
}
// Serialises the creation and launch of a share's calculations, and its
// clean-up. A share name of up to 255 bytes with ".lock" after it does not
// fit in a directory entry; such names are shortened to a prefix and a
// hash, which keeps them apart.
std::string ShareTaskLock(const std::string& shareName);
// The share's persistent copy of its last results.
inline std::string ShareResultDir(const std::string& shareName) {
  return VELA_SHARE_TASK_RESULT_DIR "/" + shareName;
}
inline std::string ShareSpaceMap(const std::string& shareName, const std::string& taskID) {
  return ShareResultDir(shareName) + "/" + taskID + VELA_SPACE_MAP_SUFFIX;
}

}  // namespace VelaBtrfsUsage::FileNames

#endif  // VELABTRFSSNAPUSAGE_INTL_UTILS_FILE_NAMES_H_
