// Names of files made from names given by users.
#ifndef VELABTRFSSNAPUSAGE_BASE_FILE_NAME_H_
#define VELABTRFSSNAPUSAGE_BASE_FILE_NAME_H_

#include <string>

namespace vela::base {

// prefix + name + suffix when that fits in a directory entry (255 bytes);
// otherwise prefix + the start of `name` + "~" + 16 hexadecimal digits of
// a hash of the whole of `name` + suffix, exactly 255 bytes. The same
// inputs always give the same name, and different long names differ.
std::string FitFileName(const std::string& prefix, const std::string& name, const std::string& suffix);

}  // namespace vela::base

#endif  // VELABTRFSSNAPUSAGE_BASE_FILE_NAME_H_
