// Process helpers: signalling a process, the own PID as text, task IDs.
#ifndef VELABTRFSSNAPUSAGE_PROCESS_HELPERS_H_
#define VELABTRFSSNAPUSAGE_PROCESS_HELPERS_H_

#include <string>

#include "velabtrfssnapusage/export.h"

namespace VelaBtrfsUsage::Utils {

// Sends `signal` to `pid` if the process exists. A process that is gone
// (or -1) counts as success: 0, or -1 when the signal cannot be sent.
VELA_EXPORT int ProcessKill(int pid, int signal);
// The own process ID in decimal.
VELA_EXPORT std::string PIDStringGet();
// One UUID from "/usr/bin/uuidgen", trimmed. False (platform error 0x2A00)
// when the program cannot be run or prints nothing.
VELA_EXPORT bool UUIDGen(std::string& uuid);

}  // namespace VelaBtrfsUsage::Utils

#endif  // VELABTRFSSNAPUSAGE_PROCESS_HELPERS_H_
