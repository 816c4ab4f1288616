// JSON documents read from files and requests.
#ifndef VELABTRFSSNAPUSAGE_BASE_JSON_TEXT_H_
#define VELABTRFSSNAPUSAGE_BASE_JSON_TEXT_H_

#include <json/json.h>

#include <string>

namespace vela::base {

// Deeper nesting than this is refused as corrupt: no state file or request
// of the system comes near it, and the parser recurses once per level.
constexpr int kMaxJsonDepth = 64;

// Parses `text` as one whole JSON document into `out`. False, with `error`
// saying why, for malformed text, comments, duplicate keys, text after the
// document, or nesting deeper than kMaxJsonDepth.
bool ParseJsonText(const std::string& text, Json::Value& out, std::string& error);
// ParseJsonText, and the document must be an object.
bool ParseJsonObject(const std::string& text, Json::Value& out);
// `value` as compact JSON text.
std::string CompactJson(const Json::Value& value);

}  // namespace vela::base

#endif  // VELABTRFSSNAPUSAGE_BASE_JSON_TEXT_H_
