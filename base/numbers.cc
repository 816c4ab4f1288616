#include "base/numbers.h"

namespace vela::base {

namespace {

int DigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return 99;
}

bool ParseDigits(std::string_view digits, unsigned base, uint64_t& value) {
  if (digits.empty()) return false;
  uint64_t result = 0;
  for (char c : digits) {
    const unsigned digit = static_cast<unsigned>(DigitValue(c));
    if (digit >= base) return false;
    if (result > (UINT64_MAX - digit) / base) return false;  // would overflow
    result = result * base + digit;
  }
  value = result;
  return true;
}

}  // namespace

bool ParseCanonicalDecimal(std::string_view text, uint64_t& value) {
  if (text.size() > 1 && text[0] == '0') return false;
  return ParseDigits(text, 10, value);
}

bool ParseRootId(std::string_view text, uint64_t& id) {
  uint64_t value = 0;
  if (!ParseCanonicalDecimal(text, value) || value == 0) return false;
  id = value;
  return true;
}

bool ParseUnsignedAnyBase(std::string_view text, uint64_t& value) {
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    return ParseDigits(text.substr(2), 16, value);
  }
  if (text.size() > 1 && text[0] == '0') return ParseDigits(text.substr(1), 8, value);
  return ParseDigits(text, 10, value);
}

}  // namespace vela::base
