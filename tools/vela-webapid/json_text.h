// JSON text in and out: compact writing, strict reading.
#ifndef VELA_WEBAPID_JSON_TEXT_H_
#define VELA_WEBAPID_JSON_TEXT_H_

#include <json/json.h>

#include <string>

namespace vela::webapid {

std::string JsonToText(const Json::Value& value);
// False unless `text` is exactly one JSON object (no trailing data, no
// duplicate keys).
bool ParseJsonObject(const std::string& text, Json::Value& value);

}  // namespace vela::webapid

#endif  // VELA_WEBAPID_JSON_TEXT_H_
