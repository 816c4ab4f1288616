#include "intl_utils/fd_io.h"

#include <unistd.h>

#include <cerrno>

namespace VelaBtrfsUsage::Utils {

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

}  // namespace VelaBtrfsUsage::Utils
