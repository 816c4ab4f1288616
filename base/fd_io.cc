#include "base/fd_io.h"

#include <unistd.h>

#include <cerrno>

namespace vela::base {

bool WriteAll(int fd, const void* data, size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = write(fd, bytes, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

size_t ReadAll(int fd, void* data, size_t size, bool& failed) {
  char* bytes = static_cast<char*>(data);
  size_t done = 0;
  while (done < size) {
    const ssize_t n = read(fd, bytes + done, size - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      failed = true;
      break;
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return done;
}

bool ReadToEnd(int fd, size_t maxBytes, std::string& out) {
  out.clear();
  char buffer[16 * 1024];
  for (;;) {
    bool failed = false;
    const size_t n = ReadAll(fd, buffer, sizeof(buffer), failed);
    if (failed) return false;
    if (out.size() + n > maxBytes) {
      errno = EFBIG;
      return false;
    }
    out.append(buffer, n);
    if (n < sizeof(buffer)) return true;
  }
}

bool CopyToEnd(int from, int to) {
  char buffer[64 * 1024];
  for (;;) {
    bool failed = false;
    const size_t n = ReadAll(from, buffer, sizeof(buffer), failed);
    if (failed || !WriteAll(to, buffer, n)) return false;
    if (n < sizeof(buffer)) return true;
  }
}

}  // namespace vela::base
