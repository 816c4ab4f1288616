#include "module_loader.h"

#include <stdexcept>

#include "base/json_text.h"

namespace vela::test {

ModuleLoader::ModuleLoader(const std::string& path) {
  std::string error;
  if (!modules_.LoadFile(path, VELA::ModuleTrust::kCallerChosen, error)) {
    throw std::runtime_error("cannot load " + path + ": " + error);
  }
}

VELA::APIResponse ModuleLoader::Call(const std::string& method, const std::string& paramsJson) const {
  return CallApi("VELA.Snap.Usage.Share", method, paramsJson);
}

VELA::APIResponse ModuleLoader::CallApi(const std::string& api, const std::string& method,
                                        const std::string& paramsJson, const std::string& user) const {
  Json::Value params;
  std::string error;
  if (!vela::base::ParseJsonText(paramsJson, params, error)) throw std::runtime_error("bad test JSON: " + paramsJson);
  VELA_WEBAPI_HANDLER handler = nullptr;
  if (modules_.Find(api, 1, method, handler) != VELA::APIModules::Lookup::kFound) {
    throw std::runtime_error("no method " + method + " of " + api);
  }
  VELA::APIRequest request(params);
  request.SetLoginUser(user);
  VELA::APIResponse response;
  handler(&request, &response);
  return response;
}

const char* ModulePath() { return VELA_TEST_MODULE_PATH; }

}  // namespace vela::test
