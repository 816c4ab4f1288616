// Loads a web API module through the framework's loader and calls its
// methods the way the web server does.
#ifndef VELA_TESTS_SUPPORT_MODULE_LOADER_H_
#define VELA_TESTS_SUPPORT_MODULE_LOADER_H_

#include <string>

#include "vela/webapi.h"
#include "vela/webapi_modules.h"

namespace vela::test {

class ModuleLoader {
 public:
  // Loads `path` (throws std::runtime_error when it does not load).
  explicit ModuleLoader(const std::string& path);

  void* Symbol(const char* name) const { return modules_.Symbol(name); }
  const VELA_WEBAPI_ENTRY* Table() const { return modules_.Tables().front(); }
  // Calls the method of "VELA.Snap.Usage.Share" version 1 with the given
  // JSON parameters (text); throws when the method does not exist.
  VELA::APIResponse Call(const std::string& method, const std::string& paramsJson = "{}") const;
  // The same for another API of the module, version 1, for the logged-in
  // user `user`.
  VELA::APIResponse CallApi(const std::string& api, const std::string& method, const std::string& paramsJson,
                            const std::string& user = "") const;

 private:
  VELA::APIModules modules_;
};

// The built module of this project.
const char* ModulePath();

}  // namespace vela::test

#endif  // VELA_TESTS_SUPPORT_MODULE_LOADER_H_
