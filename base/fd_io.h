// Whole reads and writes on descriptors, retried across interruptions.
#ifndef VELABTRFSSNAPUSAGE_BASE_FD_IO_H_
#define VELABTRFSSNAPUSAGE_BASE_FD_IO_H_

#include <cstddef>
#include <string>

namespace vela::base {

// Writes all `size` bytes; false (errno set) on the first error.
bool WriteAll(int fd, const void* data, size_t size);
// Reads up to `size` bytes, stopping early only at the end of the file.
// The count read; `failed` is set on an error.
size_t ReadAll(int fd, void* data, size_t size, bool& failed);
// Reads from `fd` to its end into `out`. False on a read error or when the
// content exceeds `maxBytes` (errno EFBIG): state files are small, and a
// huge one is corrupt, not something to load.
bool ReadToEnd(int fd, size_t maxBytes, std::string& out);
// Copies `from` to its end into `to`.
bool CopyToEnd(int from, int to);

}  // namespace vela::base

#endif  // VELABTRFSSNAPUSAGE_BASE_FD_IO_H_
