// Private to the platform library: a descriptor closed on every way out of
// a scope.
#ifndef VELA_PLATFORM_FD_GUARD_H_
#define VELA_PLATFORM_FD_GUARD_H_

#include <unistd.h>

#include <cerrno>

namespace vela::platform {

// Keeps errno across the close: the error a caller reads must be the one
// that made the call fail, not close()'s.
class FdGuard {
 public:
  explicit FdGuard(int fd = -1) : fd_(fd) {}
  ~FdGuard() { Reset(); }
  FdGuard(const FdGuard&) = delete;
  FdGuard& operator=(const FdGuard&) = delete;

  int Get() const { return fd_; }
  int Release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void Reset(int fd = -1) {
    if (fd_ >= 0) {
      const int saved = errno;
      close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }

 private:
  int fd_;
};

}  // namespace vela::platform

#endif  // VELA_PLATFORM_FD_GUARD_H_
