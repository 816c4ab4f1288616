// Names of files made from names given by users.
#ifndef VELABTRFSSNAPUSAGE_BASE_FILE_NAME_H_
#define VELABTRFSSNAPUSAGE_BASE_FILE_NAME_H_

#include <string>

namespace vela::base {

// prefix + name + suffix when that is shorter than a directory entry's
// longest name (255 bytes); otherwise prefix + the start of `name` + "~" +
// the SHA-256 of the whole of `name` in hexadecimal + suffix, exactly 255
// bytes. The same inputs always give the same name, and different names
// never give the same one: names kept whole are shorter than shortened
// ones, and two shortened ones differ in their hash, which nobody can make
// two names share.
std::string FitFileName(const std::string& prefix, const std::string& name, const std::string& suffix);

}  // namespace vela::base

#endif  // VELABTRFSSNAPUSAGE_BASE_FILE_NAME_H_
