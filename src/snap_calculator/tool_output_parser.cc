#include "snap_calculator/tool_output_parser.h"

#include <cstdio>
#include <cstring>

namespace VelaBtrfsUsage {

namespace {

bool StartsWith(const char* line, const char* word) { return strncmp(line, word, strlen(word)) == 0; }

}  // namespace

ToolOutputParser::Line ToolOutputParser::Feed(const char* line) {
  Line kind;
  if (StartsWith(line, "subvol")) {
    // The byte count is shared with the other numeric lines: a line that
    // has none takes the number last read.
    scanned_ = sscanf(line, "subvol(%llu) %llu bytes", &subvolId_, &value_);
    kind = Line::kSubvolume;
    if (scanned_ >= 1) {
      const auto [place, added] = placeOfId_.emplace(subvolId_, ids_.size());
      if (added) {
        ids_.push_back(subvolId_);
        bytes_.push_back(value_);
      } else {
        bytes_[place->second] = value_;  // the last report of a subvolume wins
      }
    }
  } else if (StartsWith(line, "exclusive")) {
    scanned_ = sscanf(line, "exclusive %llu bytes", &value_);
    kind = Line::kEstimate;
  } else if (StartsWith(line, "processed")) {
    scanned_ = sscanf(line, "processed %llu bytes", &value_);
    kind = Line::kProgress;
  } else {
    return Line::kIgnored;
  }
  return scanned_ < 1 ? Line::kMalformed : kind;
}

}  // namespace VelaBtrfsUsage
