#include "vela/webapi.h"

namespace VELA {

namespace {

// Looks the parameter up and checks its JSON type; the validator runs only
// on a present value of the right type.
template <typename T>
APIParameter<T> Fetch(const Json::Value& params, const std::string& name,
                      APIRequest::PARAM_NECESSITY necessity, bool (*hasType)(const Json::Value&),
                      T (*convert)(const Json::Value&), bool (*validator)(const T&)) {
  if (!params.isMember(name)) {
    return APIParameter<T>(necessity == APIRequest::PARAM_REQUIRED, T{});
  }
  const Json::Value& raw = params[name];
  if (!hasType(raw)) return APIParameter<T>(true, T{});
  T value = convert(raw);
  const bool refused = validator != nullptr && !validator(value);
  return APIParameter<T>(refused, std::move(value));
}

bool IsString(const Json::Value& v) { return v.isString(); }
bool IsBool(const Json::Value& v) { return v.isBool(); }
bool IsObject(const Json::Value& v) { return v.isObject(); }
bool IsArray(const Json::Value& v) { return v.isArray(); }
std::string AsString(const Json::Value& v) { return v.asString(); }
bool AsBool(const Json::Value& v) { return v.asBool(); }
Json::Value AsValue(const Json::Value& v) { return v; }

}  // namespace

APIRequest::APIRequest(Json::Value params)
    : params_(params.isObject() ? std::move(params) : Json::Value(Json::objectValue)) {}

APIParameter<std::string> APIRequest::GetAndCheckString(const std::string& name,
                                                        PARAM_NECESSITY necessity,
                                                        bool (*validator)(const std::string&)) const {
  return Fetch<std::string>(params_, name, necessity, IsString, AsString, validator);
}

APIParameter<bool> APIRequest::GetAndCheckBool(const std::string& name, PARAM_NECESSITY necessity,
                                               bool (*validator)(const bool&)) const {
  return Fetch<bool>(params_, name, necessity, IsBool, AsBool, validator);
}

APIParameter<Json::Value> APIRequest::GetAndCheckObject(const std::string& name,
                                                        PARAM_NECESSITY necessity,
                                                        bool (*validator)(const Json::Value&)) const {
  return Fetch<Json::Value>(params_, name, necessity, IsObject, AsValue, validator);
}

APIParameter<Json::Value> APIRequest::GetAndCheckArray(const std::string& name,
                                                       PARAM_NECESSITY necessity,
                                                       bool (*validator)(const Json::Value&)) const {
  return Fetch<Json::Value>(params_, name, necessity, IsArray, AsValue, validator);
}

void APIResponse::SetSuccess(const Json::Value& data) {
  answered_ = true;
  success_ = true;
  errorCode_ = 0;
  data_ = data;
  errors_ = Json::Value();
}

void APIResponse::SetError(int code, const Json::Value& errors) {
  answered_ = true;
  success_ = false;
  errorCode_ = code;
  data_ = Json::Value();
  errors_ = errors;
}

Json::Value APIResponse::ToJson() const {
  Json::Value envelope(Json::objectValue);
  envelope["success"] = success_;
  if (success_) {
    envelope["data"] = data_;
  } else {
    envelope["error"]["code"] = errorCode_;
    if (!errors_.isNull()) envelope["error"]["errors"] = errors_;
  }
  return envelope;
}

}  // namespace VELA
