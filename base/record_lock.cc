#include "base/record_lock.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace vela::base {

namespace {

constexpr int kLockWaitLimitMs = 30 * 1000;

struct flock WholeFile(short type) {
  struct flock record = {};
  record.l_type = type;
  record.l_whence = SEEK_SET;
  record.l_start = 0;
  record.l_len = 0;  // the whole file, however large it grows
  record.l_pid = 0;  // only asked locks report one; an open file's lock must say 0
  return record;
}

int SetCommand(LockOwner owner) { return owner == LockOwner::kProcess ? F_SETLK : F_OFD_SETLK; }

long long NowMs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

int LockWaitLimitMs() {
  const char* text = getenv("VELA_LOCK_WAIT_MS");
  if (text == nullptr) return kLockWaitLimitMs;
  char* end = nullptr;
  const long value = strtol(text, &end, 10);
  if (end == text || *end != '\0' || value < 1) return kLockWaitLimitMs;
  return static_cast<int>(std::min<long>(value, kLockWaitLimitMs));
}

int WaitForRecordLock(int fd, bool exclusive, int limitMs, LockOwner owner) {
  // Polled rather than waited for in F_SETLKW: a blocking wait can only be
  // bounded by a signal, and a library must not take the process's alarm.
  // The pauses stay short: locks are held for one read or write, and a
  // waiter should not sleep long past their release.
  const long long deadline = NowMs() + limitMs;
  long pauseUs = 200;
  for (;;) {
    struct flock record = WholeFile(exclusive ? F_WRLCK : F_RDLCK);
    if (fcntl(fd, SetCommand(owner), &record) == 0) return 0;
    if (errno != EAGAIN && errno != EACCES && errno != EINTR) return errno;
    if (NowMs() >= deadline) return ETIMEDOUT;
    usleep(static_cast<useconds_t>(pauseUs));
    pauseUs = std::min(pauseUs * 2, 10000L);
  }
}

int ReleaseRecordLock(int fd, LockOwner owner) {
  struct flock record = WholeFile(F_UNLCK);
  return fcntl(fd, SetCommand(owner), &record) == 0 ? 0 : errno;
}

int RecordLockTaken(int fd) {
  // Asked as an open file's lock, which conflicts with every lock but its
  // own open's, of this process or another, of either kind.
  struct flock record = WholeFile(F_WRLCK);
  if (fcntl(fd, F_OFD_GETLK, &record) != 0) return -1;
  return record.l_type == F_UNLCK ? 0 : 1;
}

}  // namespace vela::base
