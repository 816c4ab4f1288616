// Process helpers: the identity of a process and signals that reach only
// it, the own PID as text, task IDs.
#ifndef VELABTRFSSNAPUSAGE_PROCESS_HELPERS_H_
#define VELABTRFSSNAPUSAGE_PROCESS_HELPERS_H_

#include <sys/types.h>

#include <string>

#include "velabtrfssnapusage/export.h"

namespace VelaBtrfsUsage::Utils {

// When process `pid` started, in clock ticks after boot (from /proc). With
// the PID it names one process for good. False when there is none.
VELA_EXPORT bool ProcessStartTicks(pid_t pid, unsigned long long& ticks);
// Whether the process `pid` that started at `ticks` is still running.
VELA_EXPORT bool ProcessIsAlive(pid_t pid, unsigned long long ticks);
// Sends `signal` to process `pid` only if it is the one that started at
// `ticks`: checked and signalled through one pidfd, so a PID used again by
// another process is never signalled. 1 when sent, 0 when that process is
// gone (nothing sent), -1 (errno set) when it cannot be done.
VELA_EXPORT int SignalProcessIfSame(pid_t pid, unsigned long long ticks, int signal);
// Waits up to `timeoutMs` for that process to end; true once it has.
VELA_EXPORT bool WaitProcessGone(pid_t pid, unsigned long long ticks, int timeoutMs);
// The own process ID in decimal.
VELA_EXPORT std::string PIDStringGet();
// One UUID from "/usr/bin/uuidgen", trimmed. False (platform error 0x2A00)
// when the program cannot be run or prints nothing.
VELA_EXPORT bool UUIDGen(std::string& uuid);
// Whether `text` has the form of a task ID as uuidgen writes it: 36
// characters, lower-case hexadecimal digits in groups of 8, 4, 4, 4 and 12
// joined by "-". Only such text read back from a file becomes part of a path.
VELA_EXPORT bool IsTaskId(const std::string& text);

}  // namespace VelaBtrfsUsage::Utils

#endif  // VELABTRFSSNAPUSAGE_PROCESS_HELPERS_H_
