#include "line_writer.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "provider_error.h"

namespace vela::btrfs {

void LineWriter::Print(const char* format, ...) {
  va_list args;
  va_start(args, format);
  errno = 0;
  const int written = vfprintf(out_, format, args);
  va_end(args);
  if (written < 0 || fflush(out_) != 0 || ferror(out_)) {
    const int error = errno;
    clearerr(out_);
    Fail(ProviderError::Kind::kSystem, "cannot write to standard output: %s",
         error != 0 ? strerror(error) : "write failed");
  }
}

}  // namespace vela::btrfs
