// Directories made on demand.
#ifndef VELABTRFSSNAPUSAGE_INTL_UTILS_MAKE_DIRS_H_
#define VELABTRFSSNAPUSAGE_INTL_UTILS_MAKE_DIRS_H_

#include <initializer_list>

namespace VelaBtrfsUsage::Utils {

// Makes each missing directory of `dirs`, in order, with mode 0777 (before
// the umask); one that appears meanwhile (EEXIST) is fine. Any other failure
// is logged as "Faild to mkdir" under the caller's source name and line, and
// stops with false.
bool EnsureDirectories(std::initializer_list<const char*> dirs, const char* logSource, int line);

}  // namespace VelaBtrfsUsage::Utils

#define VELA_ENSURE_DIRECTORIES(...) \
  VelaBtrfsUsage::Utils::EnsureDirectories({__VA_ARGS__}, kLogSource, __LINE__)

#endif  // VELABTRFSSNAPUSAGE_INTL_UTILS_MAKE_DIRS_H_
