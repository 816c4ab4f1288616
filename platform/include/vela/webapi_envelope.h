// The answer envelope every web API client reads:
//   {"success":true,"data":...}
//   {"success":false,"error":{"code":N}}   ("errors" beside "code" when the
//                                           answer carries details)
// "success" comes first, as clients of the web API expect to read it.
#ifndef VELA_WEBAPI_ENVELOPE_H_
#define VELA_WEBAPI_ENVELOPE_H_

#include <string>

#include "vela/vlib_types.h"
#include "vela/webapi.h"

namespace VELA {

// The envelope of `response` as compact JSON text; an unanswered response
// is an error answer with code 0.
VELA_PLATFORM_API std::string WriteAPIEnvelope(const APIResponse& response);
// The envelope of an error answer with `code` and, when not null, `errors`.
VELA_PLATFORM_API std::string WriteAPIErrorEnvelope(int code, const Json::Value& errors = Json::Value());

}  // namespace VELA

#endif  // VELA_WEBAPI_ENVELOPE_H_
