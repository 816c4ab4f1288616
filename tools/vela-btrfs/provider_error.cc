#include "provider_error.h"

#include <cstdarg>
#include <cstdio>

namespace vela::btrfs {

namespace {

std::string FormatV(const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const int length = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length <= 0) return std::string();
  std::string text(static_cast<size_t>(length) + 1, '\0');
  vsnprintf(text.data(), text.size(), format, args);
  text.resize(static_cast<size_t>(length));
  return text;
}

}  // namespace

std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = FormatV(format, args);
  va_end(args);
  return text;
}

void Fail(ProviderError::Kind kind, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = FormatV(format, args);
  va_end(args);
  throw ProviderError(kind, text);
}

}  // namespace vela::btrfs
