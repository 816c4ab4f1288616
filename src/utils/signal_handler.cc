#include "velabtrfssnapusage/signal_handler.h"

#include <signal.h>

#include "intl_utils/log.h"
#include "velabtrfssnapusage/btrfs_tool.h"

namespace VelaBtrfsUsage {

namespace {

constexpr char kLogSource[] = "utils/signal_handler";
bool gSignalLogged = false;

}  // namespace

void SignalHandler::handleSnapUsageCalulate(int sig) {
  if (sig == SIGTERM || sig == SIGKILL) BtrfsTool::gSignal = sig;
}

bool SignalHandler::StopRequested() {
  const int sig = BtrfsTool::gSignal;
  if (sig != SIGTERM && sig != SIGKILL) return false;
  if (!gSignalLogged) {
    gSignalLogged = true;
    VELA_LOG(LOG_DEBUG, "SnapUsageCalculator got signal %d", sig);
  }
  return true;
}

}  // namespace VelaBtrfsUsage
