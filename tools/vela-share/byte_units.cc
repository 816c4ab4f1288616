#include "byte_units.h"

#include <cctype>
#include <cstdio>

namespace vela::share_tool {

namespace {

constexpr char kUnits[] = "KMGTPE";

}  // namespace

std::string HumanBytes(uint64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes);
  int unit = -1;
  while (value >= 1024 && unit < 5) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  snprintf(text, sizeof(text), "%.1f %ciB", value, kUnits[unit]);
  return text;
}

bool ParseSize(const std::string& text, uint64_t& bytes) {
  size_t i = 0;
  // Whole part and decimals as integers: exact for any whole number of bytes.
  uint64_t whole = 0;
  uint64_t fraction = 0;
  uint64_t scale = 1;
  bool digits = false;
  for (; i < text.size() && isdigit(static_cast<unsigned char>(text[i])); ++i, digits = true) {
    const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
    if (whole > (UINT64_MAX - digit) / 10) return false;
    whole = whole * 10 + digit;
  }
  if (i < text.size() && text[i] == '.') {
    for (++i; i < text.size() && isdigit(static_cast<unsigned char>(text[i])); ++i, digits = true) {
      if (scale > UINT64_MAX / 100) continue;  // further digits are below a byte at any unit
      fraction = fraction * 10 + static_cast<uint64_t>(text[i] - '0');
      scale *= 10;
    }
  }
  if (!digits) return false;
  std::string unit = text.substr(i);
  for (char& c : unit) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  int power = 0;
  if (!unit.empty() && unit != "B") {
    const size_t found = std::string(kUnits).find(unit[0]);
    const std::string rest = unit.substr(1);
    if (found == std::string::npos || found > 4 || !(rest.empty() || rest == "B" || rest == "IB")) return false;
    power = static_cast<int>(found) + 1;
  }
  uint64_t multiplier = 1;
  for (int k = 0; k < power; ++k) multiplier *= 1024;
  if (whole > UINT64_MAX / multiplier) return false;
  // The fraction's bytes, rounded down: fraction / scale of the unit.
  const unsigned __int128 part = static_cast<unsigned __int128>(fraction) * multiplier / scale;
  const unsigned __int128 total = static_cast<unsigned __int128>(whole) * multiplier + part;
  if (total > UINT64_MAX) return false;
  bytes = static_cast<uint64_t>(total);
  return true;
}

}  // namespace vela::share_tool
