// The administrator's page: the files of the web directory, read once by
// the master and served from memory, so no request ever names a path on
// disk.
#ifndef VELA_WEBAPID_SHARED_STATIC_FILES_H_
#define VELA_WEBAPID_SHARED_STATIC_FILES_H_

#include <map>
#include <string>

namespace vela::webapid {

struct StaticFile {
  std::string content;
  std::string contentType;
};

class StaticFiles {
 public:
  // Reads the regular files below `dir` (hidden names left out). Throws
  // std::runtime_error when the directory cannot be read or holds more
  // than the host will keep in memory.
  void Load(const std::string& dir);
  // The file for a URL path ("/" is "/index.html"); nullptr when none.
  const StaticFile* Find(const std::string& urlPath) const;
  size_t Count() const { return files_.size(); }

 private:
  void LoadTree(const std::string& dir, const std::string& prefix, int depth, size_t& total);

  std::map<std::string, StaticFile> files_;  // by URL path
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_SHARED_STATIC_FILES_H_
