#include "velabtrfssnapusage/process_helpers.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "intl_utils/file_names.h"
#include "intl_utils/log.h"
#include "vela/vlib_proc.h"
#include "vela/vlib_string.h"

namespace VelaBtrfsUsage::Utils {

namespace {

constexpr char kLogSource[] = "intl_utils/utils";

}  // namespace

int ProcessKill(int pid, int signal) {
  VELA_LOG(LOG_DEBUG, "kill PID (%d) with the signal (%d)", pid, signal);
  // A process that no longer exists has nothing left to stop.
  if (pid == -1 || kill(pid, 0) != 0) return 0;
  if (kill(pid, signal) != 0) {
    VELA_LOG(LOG_ERR, "Failed to kill PID (%d) with the signal (%d), errno (%s)", pid, signal,
             strerror(errno));
    return -1;
  }
  return 0;
}

std::string PIDStringGet() {
  char text[32];
  snprintf(text, sizeof(text), "%d", getpid());
  return text;
}

bool UUIDGen(std::string& uuid) {
  FILE* fp = VLIBCPopen(VELA_UUIDGEN_PATH, "r", nullptr);
  if (fp == nullptr) {
    VELA_SET_ERROR(VLIB_ERR_OPERATION_FAILED);
    return false;
  }
  char line[1024] = {};
  if (fgets(line, sizeof(line), fp) == nullptr) {
    VELA_SET_ERROR(VLIB_ERR_OPERATION_FAILED);
    VLIBCPclose(fp);
    return false;
  }
  // Closed once: the stream is gone after this.
  if (VLIBCPclose(fp) == -1) {
    VELA_SET_ERROR(VLIB_ERR_OPERATION_FAILED);
    return false;
  }
  if (VLIBCStrTrimSpace(line) != 0) return false;
  uuid = line;
  return true;
}

}  // namespace VelaBtrfsUsage::Utils
