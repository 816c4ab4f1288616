// File helpers of the calculation library: finding and deleting a task's
// files, opening a path as a file or a directory, converting the platform's
// string hash.
#ifndef VELABTRFSSNAPUSAGE_FILE_HELPERS_H_
#define VELABTRFSSNAPUSAGE_FILE_HELPERS_H_

#include <dirent.h>
#include <json/json.h>

#include <string>

#include "vela/vlib_szhash.h"
#include "vela/vlib_szlist.h"
#include "velabtrfssnapusage/export.h"

namespace VelaBtrfsUsage::Utils {

// Pushes dirPath + "/" + name for every regular file of `dirPath` whose
// name begins with `prefix`. A missing directory adds nothing and succeeds.
VELA_EXPORT bool SearchTaskFile(const std::string& prefix, const std::string& dirPath,
                                PVLIBSZLIST* out);
// Unlinks every path; paths already gone are fine. Stops at the first other
// failure with false.
VELA_EXPORT bool DeleteCandidateFile(PVLIBSZLIST* paths);
// Opens a directory (the stream goes to *dir, its descriptor is returned) or
// a regular file (opened read-write; *dir untouched). Anything else: -1 with
// errno EINVAL.
VELA_EXPORT int FileOrDirOpen(const char* path, DIR** dir);
// Closes what FileOrDirOpen opened.
VELA_EXPORT void FileOrDirClose(int fd, DIR* dir);
// Copies every key and value of the hash into `out` as JSON strings.
VELA_EXPORT bool HashToJson(PVLIBSZHASH hash, Json::Value& out);

}  // namespace VelaBtrfsUsage::Utils

#endif  // VELABTRFSSNAPUSAGE_FILE_HELPERS_H_
