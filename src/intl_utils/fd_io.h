// Whole writes and reads on descriptors, retried across interruptions.
#ifndef VELABTRFSSNAPUSAGE_INTL_UTILS_FD_IO_H_
#define VELABTRFSSNAPUSAGE_INTL_UTILS_FD_IO_H_

#include <cstddef>

namespace VelaBtrfsUsage::Utils {

// Writes all `size` bytes; false on the first error.
bool WriteAll(int fd, const void* data, size_t size);
// Reads up to `size` bytes, stopping early only at the end of the file.
// The count read; `failed` is set on an error.
size_t ReadAll(int fd, void* data, size_t size, bool& failed);

}  // namespace VelaBtrfsUsage::Utils

#endif  // VELABTRFSSNAPUSAGE_INTL_UTILS_FD_IO_H_
