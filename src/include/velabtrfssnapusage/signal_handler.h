// The calculator child's stop signal.
#ifndef VELABTRFSSNAPUSAGE_SIGNAL_HANDLER_H_
#define VELABTRFSSNAPUSAGE_SIGNAL_HANDLER_H_

#include "velabtrfssnapusage/export.h"

namespace VelaBtrfsUsage {

class VELA_EXPORT SignalHandler {
 public:
  // Records SIGTERM (15) or SIGKILL (9) in BtrfsTool::gSignal; other numbers
  // are ignored. The run then ends at its next check instead of dying.
  static void handleSnapUsageCalulate(int sig);
  // True once a stop signal was received. The first call that sees it logs
  // "SnapUsageCalculator got signal %d": logging is not safe inside the
  // handler itself (a signal arriving while the main flow is inside syslog
  // would deadlock the child).
  static bool StopRequested();
};

}  // namespace VelaBtrfsUsage

#endif  // VELABTRFSSNAPUSAGE_SIGNAL_HANDLER_H_
