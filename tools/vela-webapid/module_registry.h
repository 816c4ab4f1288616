// The web API modules: every "*.so" of the modules directory, loaded with
// dlopen and asked for its method table through GetAPITable. A module
// that does not load, or has no table, is logged and skipped.
#ifndef VELA_WEBAPID_MODULE_REGISTRY_H_
#define VELA_WEBAPID_MODULE_REGISTRY_H_

#include <map>
#include <string>
#include <vector>

#include "vela/webapi.h"

namespace vela::webapid {

class ModuleRegistry {
 public:
  enum class Lookup { kFound, kUnknownApi, kUnknownVersion, kUnknownMethod };

  ModuleRegistry() = default;
  ModuleRegistry(const ModuleRegistry&) = delete;
  ModuleRegistry& operator=(const ModuleRegistry&) = delete;

  // Loads every module of `dir` in name order; the first module to claim
  // an API, version and method keeps it. Returns the number loaded.
  int LoadDirectory(const std::string& dir);
  Lookup Find(const std::string& api, unsigned long version, const std::string& method,
              VELA_WEBAPI_HANDLER& handler) const;

 private:
  bool Load(const std::string& path);

  // API -> version -> method -> handler
  std::map<std::string, std::map<unsigned long, std::map<std::string, VELA_WEBAPI_HANDLER>>> table_;
  // Kept loaded for the life of the worker.
  std::vector<void*> handles_;
};

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_MODULE_REGISTRY_H_
