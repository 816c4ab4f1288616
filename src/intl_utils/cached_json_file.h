// The parsed document of a state file, kept between the calls of a process
// and used again for as long as the file is the same one.
#ifndef VELABTRFSSNAPUSAGE_INTL_UTILS_CACHED_JSON_FILE_H_
#define VELABTRFSSNAPUSAGE_INTL_UTILS_CACHED_JSON_FILE_H_

#include <json/json.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <memory>
#include <string>

namespace VelaBtrfsUsage::Utils {

// State files are only ever replaced (a new file renamed over the old one),
// never changed in place, so a file with the inode, size and times of the
// one read last holds the same document. The file read last is kept open:
// its inode cannot be given to another file meanwhile. A big file (the
// share-to-task map of a hundred shares with a hundred snapshots each is a
// third of a megabyte) is then parsed once per change, not once per request.
class CachedJsonFile {
 public:
  explicit CachedJsonFile(std::string path) : path_(std::move(path)) {}
  ~CachedJsonFile();
  CachedJsonFile(const CachedJsonFile&) = delete;
  CachedJsonFile& operator=(const CachedJsonFile&) = delete;

  // The file's document, as GetJsonAttrByPath reads it (null when the file
  // is missing or does not parse). Shared: a later change of the file does
  // not take it from a caller still reading it.
  std::shared_ptr<const Json::Value> Get();

 private:
  void Forget();

  const std::string path_;
  pid_t owner_ = 0;  // the process whose descriptor fd_ is (a forked child has none)
  int fd_ = -1;
  struct stat stat_ = {};
  std::shared_ptr<const Json::Value> doc_;
};

}  // namespace VelaBtrfsUsage::Utils

#endif  // VELABTRFSSNAPUSAGE_INTL_UTILS_CACHED_JSON_FILE_H_
