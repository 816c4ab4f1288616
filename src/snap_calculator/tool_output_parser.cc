#include "snap_calculator/tool_output_parser.h"

#include <cctype>
#include <cstring>
#include <string_view>

#include "base/numbers.h"

namespace VelaBtrfsUsage {

namespace {

bool StartsWith(const char* line, const char* word) { return strncmp(line, word, strlen(word)) == 0; }

enum class Number { kRead, kNone, kBad };

// A number where sscanf's "%llu" would read one, and as leniently about
// what stands around it; but only in the form the tool writes. A sign
// ("%llu" takes "-5" as 2^64 - 5) or a number past 2^64 - 1 (which "%llu"
// cuts to that) is a wrong figure, not a figure.
Number ReadNumber(const char*& p, unsigned long long& value) {
  while (isspace(static_cast<unsigned char>(*p))) ++p;
  if (*p == '-' || *p == '+') return Number::kBad;
  const char* begin = p;
  while (isdigit(static_cast<unsigned char>(*p))) ++p;
  if (p == begin) return Number::kNone;
  uint64_t parsed = 0;
  if (!vela::base::ParseCanonicalDecimal(std::string_view(begin, static_cast<size_t>(p - begin)), parsed)) {
    return Number::kBad;
  }
  value = parsed;
  return Number::kRead;
}

}  // namespace

ToolOutputParser::Line ToolOutputParser::Feed(const char* line) {
  Line kind;
  const char* p = line;
  Number read = Number::kNone;
  if (StartsWith(line, "subvol")) {
    // "subvol(%llu) %llu bytes". The byte count is shared with the other
    // numeric lines: a line that has none takes the number last read.
    kind = Line::kSubvolume;
    scanned_ = 0;
    if (StartsWith(line, "subvol(")) {
      p += strlen("subvol(");
      read = ReadNumber(p, subvolId_);
      if (read == Number::kRead) {
        scanned_ = 1;
        if (*p == ')') {
          ++p;
          read = ReadNumber(p, value_);
          if (read == Number::kRead) scanned_ = 2;
          if (read == Number::kNone) read = Number::kRead;
        }
      }
    }
    if (scanned_ >= 1 && read == Number::kRead) {
      // A subvolume reported twice, or figures whose sum no longer fits
      // (the report adds them up), make the whole output wrong.
      const auto [place, added] = placeOfId_.emplace(subvolId_, ids_.size());
      if (!added || total_ + value_ < total_) return Line::kMalformed;
      total_ += value_;
      ids_.push_back(subvolId_);
      bytes_.push_back(value_);
    }
  } else if (StartsWith(line, "exclusive") || StartsWith(line, "processed")) {
    // "exclusive %llu bytes", "processed %llu bytes"
    kind = line[0] == 'e' ? Line::kEstimate : Line::kProgress;
    p += strlen("exclusive");
    read = ReadNumber(p, value_);
    scanned_ = read == Number::kRead ? 1 : 0;
  } else {
    return Line::kIgnored;
  }
  return scanned_ < 1 || read == Number::kBad ? Line::kMalformed : kind;
}

}  // namespace VelaBtrfsUsage
