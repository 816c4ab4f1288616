#include "vela/webapi_envelope.h"

#include "base/json_text.h"

namespace VELA {

std::string WriteAPIEnvelope(const APIResponse& response) {
  if (response.IsSuccess()) {
    return "{\"success\":true,\"data\":" + vela::base::CompactJson(response.GetData()) + "}";
  }
  return WriteAPIErrorEnvelope(response.GetErrorCode(), response.ToJson()["error"]["errors"]);
}

std::string WriteAPIErrorEnvelope(int code, const Json::Value& errors) {
  std::string text = "{\"success\":false,\"error\":{\"code\":" + std::to_string(code);
  if (!errors.isNull()) text += ",\"errors\":" + vela::base::CompactJson(errors);
  return text + "}}";
}

}  // namespace VELA
