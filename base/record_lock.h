// Whole-file fcntl record locks with a bounded wait.
#ifndef VELABTRFSSNAPUSAGE_BASE_RECORD_LOCK_H_
#define VELABTRFSSNAPUSAGE_BASE_RECORD_LOCK_H_

#include <sys/types.h>

namespace vela::base {

// Whose a lock is. A process's lock goes when the process ends or closes
// any descriptor of the file, and a forked child does not have it. A lock of
// the open file (description) is shared by every descriptor of that open:
// a forked child holds it too, and it goes when the last of them is closed.
enum class LockOwner { kProcess, kOpenFile };

// How long any lock is waited for: 30 seconds. The environment variable
// VELA_LOCK_WAIT_MS may make it shorter (tests of a lock that never comes),
// never longer.
int LockWaitLimitMs();

// Takes a whole-file lock on `fd`, shared or exclusive, waiting at most
// `limitMs` (0: one try) for a conflicting one to go. 0, ETIMEDOUT when the
// wait ran out, or the error of fcntl().
int WaitForRecordLock(int fd, bool exclusive, int limitMs, LockOwner owner = LockOwner::kProcess);
// Releases the lock held on `fd`. 0 or errno.
int ReleaseRecordLock(int fd, LockOwner owner = LockOwner::kProcess);
// Whether anybody (another process, or another open of the file) holds a
// lock on `fd` that an exclusive one would conflict with: 1, 0, or -1
// (errno set) when it cannot be asked.
int RecordLockTaken(int fd);

}  // namespace vela::base

#endif  // VELABTRFSSNAPUSAGE_BASE_RECORD_LOCK_H_
