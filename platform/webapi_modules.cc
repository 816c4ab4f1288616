#include "vela/webapi_modules.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

#include "base/directory.h"
#include "base/unique_fd.h"

namespace VELA {

namespace {

using vela::base::UniqueFd;

bool EndsWith(const std::string& s, const std::string& suffix) {
  return s.size() > suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string ModeText(mode_t mode) {
  char text[16];
  snprintf(text, sizeof(text), "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

// Walks from "/" down to `dir`, one component at a time and never through
// a link, refusing any step that is not root's or that group or others may
// write to: whoever could write to one of them could swap what lies below.
UniqueFd OpenRootOwnedDirectory(const std::string& dir, std::string& error) {
  if (dir.empty() || dir[0] != '/') {
    error = "not an absolute path";
    return UniqueFd();
  }
  UniqueFd at(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat st;
  if (!at.Valid() || fstat(at.Get(), &st) != 0) {
    error = std::string("/: ") + strerror(errno);
    return UniqueFd();
  }
  if (st.st_uid != 0 || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    error = "/ is not root's alone (owner " + std::to_string(st.st_uid) + ", mode " + ModeText(st.st_mode) + ")";
    return UniqueFd();
  }
  std::string walked;
  size_t start = 1;
  while (start < dir.size()) {
    size_t end = dir.find('/', start);
    if (end == std::string::npos) end = dir.size();
    const std::string name = dir.substr(start, end - start);
    start = end + 1;
    if (name.empty() || name == ".") continue;
    if (name == "..") {
      error = "the path goes up with \"..\"";
      return UniqueFd();
    }
    walked += "/" + name;
    std::string refusal;
    UniqueFd next = vela::base::OpenCheckedDirectoryAt(at.Get(), name, false, {0, 0}, refusal);
    if (!next.Valid()) {
      error = walked + ": " + (refusal.empty() ? strerror(errno) : refusal);
      return UniqueFd();
    }
    at = std::move(next);
  }
  return at;
}

}  // namespace

APIModules::~APIModules() {
  for (auto it = handles_.rbegin(); it != handles_.rend(); ++it) dlclose(*it);
  for (int fd : descriptors_) close(fd);
}

bool APIModules::LoadFile(const std::string& path, ModuleTrust trust, std::string& error) {
  const auto slash = path.rfind('/');
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string dir = slash == std::string::npos ? "." : path.substr(0, slash);
  if (dir.empty()) dir = "/";
  UniqueFd dirFd;
  if (trust == ModuleTrust::kRootOwned) {
    dirFd = OpenRootOwnedDirectory(dir, error);
  } else {
    dirFd.Reset(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dirFd.Valid()) error = dir + ": " + strerror(errno);
  }
  return dirFd.Valid() && LoadAt(dirFd.Get(), name, trust, error);
}

bool APIModules::LoadDirectory(const std::string& dir, std::vector<std::string>& skipped, std::string& error) {
  UniqueFd dirFd = OpenRootOwnedDirectory(dir, error);
  if (!dirFd.Valid()) return false;
  // Listed through a descriptor of its own; the names are then opened
  // relative to the checked one.
  DIR* listing = fdopendir(dup(dirFd.Get()));
  if (listing == nullptr) {
    error = dir + ": " + strerror(errno);
    return false;
  }
  std::vector<std::string> names;
  while (const struct dirent* entry = readdir(listing)) {
    if (entry->d_name[0] != '.' && EndsWith(entry->d_name, ".so")) names.emplace_back(entry->d_name);
  }
  closedir(listing);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    const std::string path = (dir.size() > 1 && dir.back() == '/' ? dir.substr(0, dir.size() - 1) : dir) + "/" + name;
    std::string why;
    if (!LoadAt(dirFd.Get(), name, ModuleTrust::kRootOwned, why)) skipped.push_back(path + ": " + why);
  }
  return true;
}

bool APIModules::LoadAt(int dirFd, const std::string& name, ModuleTrust trust, std::string& error) {
  UniqueFd file(openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat st;
  if (!file.Valid()) {
    error = errno == ELOOP ? "it is a symbolic link" : strerror(errno);
    return false;
  }
  if (fstat(file.Get(), &st) != 0) {
    error = strerror(errno);
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    error = "it is not a regular file";
    return false;
  }
  if (trust == ModuleTrust::kRootOwned && (st.st_uid != 0 || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0)) {
    error = "not owned by root, or writable by others (owner " + std::to_string(st.st_uid) + ", mode " +
            ModeText(st.st_mode) + ")";
    return false;
  }
  // The file checked above, by its descriptor: a name swapped meanwhile
  // changes nothing. The descriptor stays open while the module is
  // loaded: the loader knows modules by name, and a number used again
  // would name another module.
  const std::string byDescriptor = "/proc/self/fd/" + std::to_string(file.Get());
  // Never unloaded, as on a server that keeps its modules for its life: a
  // module and the libraries it brings may keep process-wide state (caches,
  // open state directories) whose code must outlive every request.
  void* handle = dlopen(byDescriptor.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  if (handle == nullptr) {
    const char* why = dlerror();
    error = why != nullptr ? why : "it does not load";
    return false;
  }
  auto getTable = reinterpret_cast<VELA_WEBAPI_GET_TABLE>(dlsym(handle, VELA_WEBAPI_GET_TABLE_SYMBOL));
  const VELA_WEBAPI_ENTRY* table = getTable != nullptr ? getTable() : nullptr;
  if (table == nullptr) {
    error = std::string("no ") + VELA_WEBAPI_GET_TABLE_SYMBOL + " table";
    dlclose(handle);
    return false;
  }
  for (const VELA_WEBAPI_ENTRY* row = table; row->szAPI != nullptr; ++row) {
    if (row->szMethod == nullptr || row->pfnHandler == nullptr) continue;
    // The first module to claim a method keeps it; a later claim is ignored.
    methods_[row->szAPI][row->version].emplace(row->szMethod, row->pfnHandler);
  }
  tables_.push_back(table);
  handles_.push_back(handle);
  descriptors_.push_back(file.Release());
  return true;
}

APIModules::Lookup APIModules::Find(const std::string& api, unsigned long version, const std::string& method,
                                    VELA_WEBAPI_HANDLER& handler) const {
  const auto byApi = methods_.find(api);
  if (byApi == methods_.end()) return Lookup::kUnknownApi;
  const auto byVersion = byApi->second.find(version);
  if (byVersion == byApi->second.end()) return Lookup::kUnknownVersion;
  const auto byMethod = byVersion->second.find(method);
  if (byMethod == byVersion->second.end()) return Lookup::kUnknownMethod;
  handler = byMethod->second;
  return Lookup::kFound;
}

void* APIModules::Symbol(const char* name) const {
  for (void* handle : handles_) {
    if (void* symbol = dlsym(handle, name)) return symbol;
  }
  return nullptr;
}

void CallAPIHandler(VELA_WEBAPI_HANDLER handler, APIRequest& request, APIResponse& response, std::string* failure) {
  if (failure != nullptr) failure->clear();
  try {
    handler(&request, &response);
  } catch (const std::exception& e) {
    if (failure != nullptr) *failure = e.what();
    response.SetError(kAPIHandlerFailed);
  } catch (...) {
    if (failure != nullptr) *failure = "an exception that is no std::exception";
    response.SetError(kAPIHandlerFailed);
  }
  if (!response.IsAnswered()) response.SetError(kAPIHandlerFailed);
}

}  // namespace VELA
