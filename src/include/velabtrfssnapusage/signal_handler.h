// The calculator child's stop signal.
#ifndef VELABTRFSSNAPUSAGE_SIGNAL_HANDLER_H_
#define VELABTRFSSNAPUSAGE_SIGNAL_HANDLER_H_

#include "velabtrfssnapusage/export.h"

namespace VelaBtrfsUsage {

class VELA_EXPORT SignalHandler {
 public:
  // Records SIGTERM (15) or SIGKILL (9) in BtrfsTool::gSignal; other numbers
  // are ignored. The run then ends at its next check instead of dying. In a
  // process that leads its process group the first stop is passed on to
  // the group (the btrfs tool it runs).
  static void handleSnapUsageCalulate(int sig);
  // Installs the handler for SIGTERM, so that it interrupts a waiting read
  // instead of restarting it, and registers it for SIGKILL too.
  static void Install();
  // True once a stop signal was received. The first call that sees it logs
  // "SnapUsageCalculator got signal %d": logging is not safe inside the
  // handler itself (a signal arriving while the main flow is inside syslog
  // would deadlock the child).
  static bool StopRequested();
};

}  // namespace VelaBtrfsUsage

#endif  // VELABTRFSSNAPUSAGE_SIGNAL_HANDLER_H_
