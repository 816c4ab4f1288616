#include "module_registry.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vela::webapid {

namespace {

// Code that runs with root's saved ids must be root's to change.
bool SafeToLoad(const std::string& path, std::string& why) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    why = strerror(errno);
    return false;
  }
  if (st.st_uid != 0 || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    why = "not owned by root, or writable by others (mode " + std::to_string(st.st_mode & 07777) + ")";
    return false;
  }
  return true;
}

bool EndsWith(const std::string& s, const std::string& suffix) {
  return s.size() > suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace

int ModuleRegistry::LoadDirectory(const std::string& dir) {
  std::string why;
  if (!SafeToLoad(dir, why)) {
    syslog(LOG_ERR, "no web API modules loaded from %s: %s", dir.c_str(), why.c_str());
    return 0;
  }
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) {
    syslog(LOG_ERR, "no web API modules loaded from %s: %s", dir.c_str(), strerror(errno));
    return 0;
  }
  std::vector<std::string> names;
  while (const struct dirent* entry = readdir(d)) {
    if (entry->d_name[0] != '.' && EndsWith(entry->d_name, ".so")) names.emplace_back(entry->d_name);
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  int loaded = 0;
  for (const std::string& name : names) loaded += Load(dir + "/" + name) ? 1 : 0;
  return loaded;
}

bool ModuleRegistry::Load(const std::string& path) {
  std::string why;
  if (!SafeToLoad(path, why)) {
    syslog(LOG_ERR, "skipping web API module %s: %s", path.c_str(), why.c_str());
    return false;
  }
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    syslog(LOG_ERR, "skipping web API module %s: %s", path.c_str(), dlerror());
    return false;
  }
  auto getTable = reinterpret_cast<VELA_WEBAPI_GET_TABLE>(dlsym(handle, VELA_WEBAPI_GET_TABLE_SYMBOL));
  const VELA_WEBAPI_ENTRY* row = getTable != nullptr ? getTable() : nullptr;
  if (row == nullptr) {
    syslog(LOG_ERR, "skipping web API module %s: no %s table", path.c_str(), VELA_WEBAPI_GET_TABLE_SYMBOL);
    dlclose(handle);
    return false;
  }
  for (; row->szAPI != nullptr; ++row) {
    if (row->szMethod == nullptr || row->pfnHandler == nullptr) continue;
    auto& methods = table_[row->szAPI][row->version];
    if (!methods.emplace(row->szMethod, row->pfnHandler).second) {
      syslog(LOG_WARNING, "web API module %s: %s %lu %s is served by an earlier module already", path.c_str(),
             row->szAPI, row->version, row->szMethod);
    }
  }
  handles_.push_back(handle);
  return true;
}

ModuleRegistry::Lookup ModuleRegistry::Find(const std::string& api, unsigned long version,
                                            const std::string& method, VELA_WEBAPI_HANDLER& handler) const {
  const auto byApi = table_.find(api);
  if (byApi == table_.end()) return Lookup::kUnknownApi;
  const auto byVersion = byApi->second.find(version);
  if (byVersion == byApi->second.end()) return Lookup::kUnknownVersion;
  const auto byMethod = byVersion->second.find(method);
  if (byMethod == byVersion->second.end()) return Lookup::kUnknownMethod;
  handler = byMethod->second;
  return Lookup::kFound;
}

}  // namespace vela::webapid
