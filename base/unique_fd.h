// An owned file descriptor: closed when its owner goes away.
#ifndef VELABTRFSSNAPUSAGE_BASE_UNIQUE_FD_H_
#define VELABTRFSSNAPUSAGE_BASE_UNIQUE_FD_H_

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace vela::base {

// Keeps errno across the close: the error a caller reads must be the one
// that made its call fail, not close()'s.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { Reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int Get() const { return fd_; }
  bool Valid() const { return fd_ >= 0; }
  int Release() { return std::exchange(fd_, -1); }
  void Reset(int fd = -1) {
    if (fd_ >= 0) {
      const int saved = errno;
      close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace vela::base

#endif  // VELABTRFSSNAPUSAGE_BASE_UNIQUE_FD_H_
