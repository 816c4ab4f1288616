#include "velabtrfssnapusage/signal_handler.h"

#include <signal.h>
#include <unistd.h>

#include "intl_utils/log.h"
#include "velabtrfssnapusage/btrfs_tool.h"

namespace VelaBtrfsUsage {

namespace {

constexpr char kLogSource[] = "utils/signal_handler";
bool gSignalLogged = false;

}  // namespace

void SignalHandler::handleSnapUsageCalulate(int sig) {
  if (sig != SIGTERM && sig != SIGKILL) return;
  const bool first = BtrfsTool::gSignal == 0;
  BtrfsTool::gSignal = sig;
  // A calculator child leads a process group of its own, which the btrfs
  // tool it runs belongs to: the stop reaches the tool as well, so that a
  // tool that would go on computing, or stay silent, ends too. (The child
  // itself gets the signal once more; it is already recorded.)
  if (first && getpgrp() == getpid()) kill(0, SIGTERM);
}

void SignalHandler::Install() {
  struct sigaction action = {};
  action.sa_handler = handleSnapUsageCalulate;
  sigemptyset(&action.sa_mask);
  // No SA_RESTART: a read of the tool's output that waits for a silent
  // tool returns at the signal, so the stop takes effect at once.
  action.sa_flags = 0;
  sigaction(SIGTERM, &action, nullptr);
  // SIGKILL cannot be caught; asking costs nothing and documents the intent.
  (void)signal(SIGKILL, handleSnapUsageCalulate);
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
