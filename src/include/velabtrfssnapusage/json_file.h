// Locked JSON files: whole-file record locks on separate lock files, and
// JSON documents written atomically (temporary file, flush, rename).
#ifndef VELABTRFSSNAPUSAGE_JSON_FILE_H_
#define VELABTRFSSNAPUSAGE_JSON_FILE_H_

#include <json/json.h>

#include <string>

#include "velabtrfssnapusage/export.h"

namespace VelaBtrfsUsage::Utils {

// Opens (creating, mode 0644) `lockPath` and waits for a whole-file lock on
// it, exclusive or shared. Creates the lock root directory when missing.
// On success `fd` holds the descriptor; after a failed lock it may still hold
// an open descriptor, which GeneralFileUnlock closes.
VELA_EXPORT bool GeneralFileLock(const std::string& lockPath, bool exclusive, int& fd);
// Releases the lock and closes `fd` (-1: nothing held, true at once). Does
// not write -1 back.
VELA_EXPORT bool GeneralFileUnlock(int& fd);

// Writes `doc` to `path` atomically. A rewrite keeps the old file's owner
// and group and sets 0644; a new file is 0600 with the writer's owner. On
// failure the old file stays whole and no temporary file is left.
VELA_EXPORT bool JsonToFile(const Json::Value& doc, const std::string& path);
// Reads and parses `path` into `doc`; false when it cannot be opened or parsed.
VELA_EXPORT bool JsonFromFile(Json::Value& doc, const std::string& path);

// JsonToFile, logging a failure.
VELA_EXPORT bool SetJsonAttrByPath(const char* path, const Json::Value& doc);
// The document in `path`, or null when it is missing or unreadable (a
// partly filled value after a parse error). Failures are logged.
VELA_EXPORT Json::Value GetJsonAttrByPath(const char* path);

}  // namespace VelaBtrfsUsage::Utils

#endif  // VELABTRFSSNAPUSAGE_JSON_FILE_H_
