#include "master/device_tokens.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <syslog.h>

#include "base/directory.h"
#include "base/fd_io.h"
#include "shared/host_log.h"
#include "shared/secure_token.h"

namespace vela::webapid {

namespace {

constexpr size_t kKeyBytes = 32;
constexpr char kKeyFile[] = "device-key";

std::string Mac(const std::string& key, const std::string& id, const std::string& user) {
  return HmacSha256Hex(key, id + '\n' + user);
}

}  // namespace

DeviceTokens::DeviceTokens(const std::string& stateDir) {
  std::string why;
  const auto slash = stateDir.find_last_of('/');
  vela::base::UniqueFd parent(open(slash == 0 ? "/" : stateDir.substr(0, slash).c_str(),
                                   O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  vela::base::UniqueFd dir;
  if (parent.Valid() && slash != std::string::npos) {
    dir = vela::base::OpenCheckedDirectoryAt(parent.Get(), stateDir.substr(slash + 1), true, {0700, 0}, why);
  }
  if (dir.Valid()) {
    vela::base::UniqueFd file(openat(dir.Get(), kKeyFile, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    std::string text;
    struct stat st;
    if (file.Valid() && fstat(file.Get(), &st) == 0 && st.st_uid == 0 && (st.st_mode & 077) == 0 &&
        vela::base::ReadToEnd(file.Get(), kKeyBytes + 1, text) && text.size() == kKeyBytes) {
      key_ = text;
      return;
    }
    unsigned char raw[kKeyBytes];
    FillRandom(raw, sizeof(raw));
    key_.assign(reinterpret_cast<const char*>(raw), sizeof(raw));
    explicit_bzero(raw, sizeof(raw));
    // A new key through a file beside it, so a half-written key is never read.
    unlinkat(dir.Get(), "device-key.new", 0);
    vela::base::UniqueFd out(openat(dir.Get(), "device-key.new", O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (out.Valid() && vela::base::WriteAll(out.Get(), key_.data(), key_.size()) && fsync(out.Get()) == 0 &&
        renameat(dir.Get(), "device-key.new", dir.Get(), kKeyFile) == 0) {
      return;
    }
    why = strerror(errno);
  } else if (why.empty()) {
    why = strerror(errno);
  }
  if (key_.empty()) {
    unsigned char raw[kKeyBytes];
    FillRandom(raw, sizeof(raw));
    key_.assign(reinterpret_cast<const char*>(raw), sizeof(raw));
    explicit_bzero(raw, sizeof(raw));
  }
  HostLog(LOG_WARNING, "cannot keep the key of device cookies in %s (%s): browsers are known until the host stops",
          stateDir.c_str(), why.c_str());
}

DeviceTokens::~DeviceTokens() { Wipe(); }

void DeviceTokens::Wipe() { explicit_bzero(key_.data(), key_.size()); }

std::string DeviceTokens::Issue(const std::string& user) const {
  const std::string id = NewToken();
  return id + "." + Mac(key_, id, user);
}

std::string DeviceTokens::Recognise(const std::string& token, const std::string& user) const {
  const auto dot = token.find('.');
  if (dot == std::string::npos) return "";
  const std::string id = token.substr(0, dot);
  if (!IsToken(id) || !EqualInConstantTime(token.substr(dot + 1), Mac(key_, id, user))) return "";
  return id;
}

}  // namespace vela::webapid
