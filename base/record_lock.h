// Whole-file fcntl record locks with a bounded wait.
#ifndef VELABTRFSSNAPUSAGE_BASE_RECORD_LOCK_H_
#define VELABTRFSSNAPUSAGE_BASE_RECORD_LOCK_H_

#include <sys/types.h>

namespace vela::base {

// How long any lock is waited for: 30 seconds. The environment variable
// VELA_LOCK_WAIT_MS may make it shorter (tests of a lock that never comes),
// never longer.
int LockWaitLimitMs();

// Takes a whole-file lock on `fd`, shared or exclusive, waiting at most
// `limitMs` for a conflicting one to go. 0, ETIMEDOUT when the wait ran
// out, or the error of fcntl().
int WaitForRecordLock(int fd, bool exclusive, int limitMs);
// Releases the lock held on `fd`. 0 or errno.
int ReleaseRecordLock(int fd);
// The process that holds a lock on `fd` conflicting with an exclusive one:
// its PID, 0 when there is none, -1 (errno set) when it cannot be asked.
pid_t RecordLockHolder(int fd);

}  // namespace vela::base

#endif  // VELABTRFSSNAPUSAGE_BASE_RECORD_LOCK_H_
