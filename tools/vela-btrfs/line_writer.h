// Lines for the caller on standard output, each flushed at once: a reader
// of a pipe sees progress as it happens. A line that cannot be written ends
// the run, so that no caller mistakes missing figures for a success.
#ifndef VELA_TOOLS_VELA_BTRFS_LINE_WRITER_H_
#define VELA_TOOLS_VELA_BTRFS_LINE_WRITER_H_

#include <cstdio>

namespace vela::btrfs {

class LineWriter {
 public:
  explicit LineWriter(FILE* out) : out_(out) {}

  // Prints like printf and flushes. Throws ProviderError (kind kSystem)
  // when the output takes less than all of it.
  void Print(const char* format, ...) __attribute__((format(printf, 2, 3)));

 private:
  FILE* out_;
};

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_LINE_WRITER_H_
