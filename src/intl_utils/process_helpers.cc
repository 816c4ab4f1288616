#include "velabtrfssnapusage/process_helpers.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
// The C library's header declares these without C linkage for C++.
extern "C" {
#include <sys/pidfd.h>
}
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/fd_io.h"
#include "base/unique_fd.h"
#include "intl_utils/file_names.h"
#include "intl_utils/log.h"
#include "vela/vlib_proc.h"
#include "vela/vlib_string.h"

namespace VelaBtrfsUsage::Utils {

namespace {

using vela::base::UniqueFd;

constexpr char kLogSource[] = "intl_utils/utils";

// A pidfd of process `pid` if it is the one that started at `ticks`. The
// check is made after the pidfd is open, so the two refer to one process:
// if the PID had been used again, the start time would differ.
UniqueFd OpenProcessIfSame(pid_t pid, unsigned long long ticks) {
  if (pid <= 0) {
    errno = ESRCH;
    return UniqueFd();
  }
  UniqueFd pidfd(pidfd_open(pid, 0));
  if (pidfd.Valid() && !ProcessIsAlive(pid, ticks)) {
    pidfd.Reset();
    errno = ESRCH;
  }
  return pidfd;
}

// The state letter (field 3 of /proc/PID/stat) and start time (field 22).
bool ReadProcessStat(pid_t pid, char& state, unsigned long long& ticks) {
  if (pid <= 0) return false;
  char path[64];
  snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
  const UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  std::string stat;
  if (!fd.Valid() || !vela::base::ReadToEnd(fd.Get(), 4096, stat)) return false;
  // The command name (field 2) is in parentheses and may hold anything, so
  // fields are counted from the last ")".
  const auto close = stat.rfind(')');
  if (close == std::string::npos || close + 2 >= stat.size()) return false;
  state = stat[close + 2];
  const char* p = stat.c_str() + close + 1;
  for (int field = 3; field < 22; ++field) {
    p = strchr(p + 1, ' ');
    if (p == nullptr) return false;
  }
  return sscanf(p, " %llu", &ticks) == 1;
}

}  // namespace

bool ProcessStartTicks(pid_t pid, unsigned long long& ticks) {
  char state = 0;
  return ReadProcessStat(pid, state, ticks);
}

bool ProcessIsAlive(pid_t pid, unsigned long long ticks) {
  char state = 0;
  unsigned long long started = 0;
  // A zombie has ended: it keeps its PID and start time only until its
  // parent (or whoever adopted it) reaps it, and nothing it ran goes on.
  return ReadProcessStat(pid, state, started) && started == ticks && state != 'Z' && state != 'X';
}

int SignalProcessIfSame(pid_t pid, unsigned long long ticks, int signal) {
  const UniqueFd pidfd = OpenProcessIfSame(pid, ticks);
  if (!pidfd.Valid()) return errno == ESRCH ? 0 : -1;
  if (pidfd_send_signal(pidfd.Get(), signal, nullptr, 0) == 0) return 1;
  return errno == ESRCH ? 0 : -1;
}

bool WaitProcessGone(pid_t pid, unsigned long long ticks, int timeoutMs) {
  const UniqueFd pidfd = OpenProcessIfSame(pid, ticks);
  if (!pidfd.Valid()) return errno == ESRCH;
  // A pidfd turns readable when its process ends.
  struct pollfd watch = {pidfd.Get(), POLLIN, 0};
  int ready;
  while ((ready = poll(&watch, 1, timeoutMs)) < 0 && errno == EINTR) {
  }
  return ready > 0;
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

bool IsTaskId(const std::string& text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? c != '-' : !((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

}  // namespace VelaBtrfsUsage::Utils
