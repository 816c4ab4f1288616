#include "base/json_text.h"

#include <memory>

namespace vela::base {

namespace {

// The deepest nesting of arrays and objects in `text`, strings skipped;
// stops counting once past `limit`. `slash` tells whether a '/' stands
// outside a string: only a comment has one there.
int NestingDepth(const std::string& text, int limit, bool& slash) {
  int depth = 0;
  int deepest = 0;
  bool inString = false;
  slash = false;
  for (size_t i = 0; i < text.size() && deepest <= limit && !slash; ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '/') {
      slash = true;
    } else if (c == '[' || c == '{') {
      deepest = std::max(deepest, ++depth);
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
  return deepest;
}

}  // namespace

bool ParseJsonText(const std::string& text, Json::Value& out, std::string& error) {
  bool slash = false;
  if (NestingDepth(text, kMaxJsonDepth, slash) > kMaxJsonDepth) {
    error = "nested deeper than " + std::to_string(kMaxJsonDepth) + " levels";
    return false;
  }
  // The parser skips comments inside objects whatever it is told, and a
  // comment could hide nesting from the count above: none is accepted.
  if (slash) {
    error = "a comment, which JSON does not have";
    return false;
  }
  // One reader for the thread: making one costs more than parsing a small
  // record, and requests parse one per share.
  static thread_local const std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder builder;
    builder["allowComments"] = false;
    builder["collectComments"] = false;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = true;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }();
  try {
    Json::Value value;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &error)) return false;
    out = std::move(value);
    return true;
  } catch (const Json::Exception& e) {
    // The parser reports some limits by throwing; they are malformed input
    // like any other.
    error = e.what();
    return false;
  }
}

bool ParseJsonObject(const std::string& text, Json::Value& out) {
  std::string error;
  Json::Value value;
  if (!ParseJsonText(text, value, error) || !value.isObject()) return false;
  out = std::move(value);
  return true;
}

std::string CompactJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

}  // namespace vela::base
