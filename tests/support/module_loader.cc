#include "module_loader.h"

#include <dlfcn.h>

#include <sstream>
#include <stdexcept>

namespace vela::test {

ModuleLoader::ModuleLoader(const std::string& path) {
  handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) throw std::runtime_error(std::string("dlopen: ") + dlerror());
}

ModuleLoader::~ModuleLoader() {
  if (handle_ != nullptr) dlclose(handle_);
}

void* ModuleLoader::Symbol(const char* name) const { return dlsym(handle_, name); }

const VELA_WEBAPI_ENTRY* ModuleLoader::Table() const {
  auto getTable = reinterpret_cast<VELA_WEBAPI_GET_TABLE>(Symbol(VELA_WEBAPI_GET_TABLE_SYMBOL));
  if (getTable == nullptr) throw std::runtime_error("module exports no GetAPITable");
  return getTable();
}

VELA::APIResponse ModuleLoader::Call(const std::string& method, const std::string& paramsJson) const {
  Json::Value params;
  std::istringstream in(paramsJson);
  Json::Reader reader;
  if (!reader.parse(in, params, false)) throw std::runtime_error("bad test JSON: " + paramsJson);
  for (const VELA_WEBAPI_ENTRY* entry = Table(); entry->szAPI != nullptr; ++entry) {
    if (std::string("VELA.Snap.Usage.Share") == entry->szAPI && entry->version == 1 &&
        method == entry->szMethod) {
      VELA::APIRequest request(params);
      VELA::APIResponse response;
      entry->pfnHandler(&request, &response);
      return response;
    }
  }
  throw std::runtime_error("no method " + method);
}

const char* ModulePath() { return VELA_TEST_MODULE_PATH; }

}  // namespace vela::test
