#include "json_text.h"

#include <memory>

namespace vela::webapid {

std::string JsonToText(const Json::Value& value) {
  static const Json::StreamWriterBuilder builder = [] {
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    b["emitUTF8"] = true;
    return b;
  }();
  return Json::writeString(builder, value);
}

bool ParseJsonObject(const std::string& text, Json::Value& value) {
  static const std::unique_ptr<Json::CharReader> reader = [] {
    Json::CharReaderBuilder b;
    b["failIfExtra"] = true;
    b["rejectDupKeys"] = true;
    b["allowSpecialFloats"] = false;
    return std::unique_ptr<Json::CharReader>(b.newCharReader());
  }();
  std::string error;
  return reader->parse(text.data(), text.data() + text.size(), &value, &error) && value.isObject();
}

}  // namespace vela::webapid
