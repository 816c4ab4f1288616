// The web API framework as a module sees it: a request carrying the
// parameters of one call, typed parameter fetches with validation, and a
// response that takes either a success value or an error code. A module
// exports a table of {API, version, method, handler} rows ended by an
// all-zero row, and a GetAPITable function returning its first row.
#ifndef VELA_WEBAPI_H_
#define VELA_WEBAPI_H_

#include <json/json.h>

#include <string>
#include <utility>

#include "vela/vlib_types.h"

namespace VELA {

// A fetched parameter: its value, and whether it is unusable (missing,
// of the wrong JSON type, or refused by its validator).
template <typename T>
class APIParameter {
 public:
  APIParameter() = default;
  APIParameter(bool invalid, T value) : invalid_(invalid), value_(std::move(value)) {}

  bool IsInvalid() const { return invalid_; }
  // The value; a default-constructed T (a JSON null for Json::Value) when
  // the parameter is missing or of the wrong type.
  const T& Get() const { return value_; }

 private:
  bool invalid_ = true;
  T value_{};
};

class VELA_PLATFORM_API APIRequest {
 public:
  enum PARAM_NECESSITY {
    PARAM_REQUIRED = 0,  // a missing parameter is invalid
    PARAM_OPTIONAL = 1,  // a missing parameter is valid and default-valued
  };

  // `params` is the JSON object of the call's parameters; anything else is
  // treated as an empty object.
  explicit APIRequest(Json::Value params);

  APIParameter<std::string> GetAndCheckString(const std::string& name, PARAM_NECESSITY necessity,
                                              bool (*validator)(const std::string&)) const;
  APIParameter<bool> GetAndCheckBool(const std::string& name, PARAM_NECESSITY necessity,
                                     bool (*validator)(const bool&)) const;
  APIParameter<Json::Value> GetAndCheckObject(const std::string& name, PARAM_NECESSITY necessity,
                                              bool (*validator)(const Json::Value&)) const;
  APIParameter<Json::Value> GetAndCheckArray(const std::string& name, PARAM_NECESSITY necessity,
                                             bool (*validator)(const Json::Value&)) const;

  const Json::Value& GetParams() const { return params_; }

  // The name of the logged-in user the call is made for, as the caller
  // (the web server, or the command-line runner for its invoking user) set
  // it; "" when no caller said. Modules log it with what they change.
  const std::string& GetLoginUser() const { return loginUser_; }
  void SetLoginUser(std::string user) { loginUser_ = std::move(user); }

 private:
  Json::Value params_;
  std::string loginUser_;
};

class VELA_PLATFORM_API APIResponse {
 public:
  void SetSuccess(const Json::Value& data = Json::Value());
  void SetError(int code, const Json::Value& errors = Json::Value());

  // Whether the handler answered at all.
  bool IsAnswered() const { return answered_; }
  bool IsSuccess() const { return answered_ && success_; }
  int GetErrorCode() const { return errorCode_; }
  const Json::Value& GetData() const { return data_; }
  // The envelope sent to the client:
  // {"success":true,"data":...} or {"success":false,"error":{"code":N}}.
  Json::Value ToJson() const;

 private:
  bool answered_ = false;
  bool success_ = false;
  int errorCode_ = 0;
  Json::Value data_;
  Json::Value errors_;
};

}  // namespace VELA

typedef void (*VELA_WEBAPI_HANDLER)(VELA::APIRequest*, VELA::APIResponse*);

// One row of a module's method table; every field is one machine word.
typedef struct _tag_VELA_WEBAPI_ENTRY {
  const char* szAPI;
  unsigned long version;
  const char* szMethod;
  VELA_WEBAPI_HANDLER pfnHandler;
} VELA_WEBAPI_ENTRY;

// The module's exported entry point, looked up by this name.
#define VELA_WEBAPI_GET_TABLE_SYMBOL "GetAPITable"
typedef const VELA_WEBAPI_ENTRY* (*VELA_WEBAPI_GET_TABLE)(void);

#endif  // VELA_WEBAPI_H_
