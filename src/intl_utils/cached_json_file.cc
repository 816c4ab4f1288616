#include "intl_utils/cached_json_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/fd_io.h"
#include "base/json_text.h"
#include "base/unique_fd.h"
#include "intl_utils/log.h"
#include "intl_utils/state_files.h"

namespace VelaBtrfsUsage::Utils {

namespace {

constexpr char kLogSource[] = "intl_utils/utils";
constexpr size_t kMaxJsonFileBytes = 16u << 20;  // as JsonFromFile

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
         a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

}  // namespace

CachedJsonFile::~CachedJsonFile() { Forget(); }

void CachedJsonFile::Forget() {
  // A forked child has the memory but not the descriptor (workers close
  // them all), whose number may name another file there by now.
  if (fd_ >= 0 && owner_ == getpid()) close(fd_);
  fd_ = -1;
  doc_.reset();
}

std::shared_ptr<const Json::Value> CachedJsonFile::Get() {
  std::string name;
  vela::base::UniqueFd file;
  const vela::base::UniqueFd dir = OpenContainingDirectory(path_, false, name);
  if (dir.Valid()) file = OpenRegularFileAt(dir.Get(), name);
  struct stat st;
  if (!file.Valid() || fstat(file.Get(), &st) != 0) {
    VELA_LOG(LOG_DEBUG, "Failed to open ifstream (%s), errno(%s)", path_.c_str(), strerror(errno));
    Forget();
    return std::make_shared<const Json::Value>();
  }
  if (doc_ != nullptr && owner_ == getpid() && SameFile(st, stat_)) return doc_;
  std::string text;
  auto doc = std::make_shared<Json::Value>();
  std::string error;
  if (!vela::base::ReadToEnd(file.Get(), kMaxJsonFileBytes, text) || !vela::base::ParseJsonText(text, *doc, error)) {
    VELA_LOG(LOG_DEBUG, "Some errors occurs when parseing input stream, path(%s), errno(%d)", path_.c_str(), errno);
    Forget();
    return std::make_shared<const Json::Value>();
  }
  Forget();
  owner_ = getpid();
  fd_ = file.Release();
  stat_ = st;
  doc_ = std::move(doc);
  return doc_;
}

}  // namespace VelaBtrfsUsage::Utils
