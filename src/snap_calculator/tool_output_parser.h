// The size tool's output, one line at a time: "subvol(ID) BYTES bytes" per
// subvolume, "exclusive BYTES bytes" (the estimate of the work) and
// "processed BYTES bytes" (the work done). Other lines are ignored. The
// figures are kept in order. A "subvol" line without its byte count takes
// the number last read, as the calculator always has. A number with a sign
// or past 2^64 - 1, a subvolume reported twice, or figures whose sum passes
// 2^64 - 1 make the line malformed: such output holds wrong figures.
#ifndef VELABTRFSSNAPUSAGE_SNAP_CALCULATOR_TOOL_OUTPUT_PARSER_H_
#define VELABTRFSSNAPUSAGE_SNAP_CALCULATOR_TOOL_OUTPUT_PARSER_H_

#include <cstddef>
#include <unordered_map>
#include <vector>

namespace VelaBtrfsUsage {

class ToolOutputParser {
 public:
  enum class Line { kIgnored, kSubvolume, kEstimate, kProgress, kMalformed };

  // Reads one line (NUL-terminated, the newline may be kept).
  Line Feed(const char* line);
  // What sscanf converted of the last line read (for messages).
  int Scanned() const { return scanned_; }
  // The number of the last estimate or progress line.
  unsigned long long Value() const { return value_; }
  // Root IDs and their figures; element i of one belongs to element i of
  // the other.
  const std::vector<unsigned long long>& Ids() const { return ids_; }
  const std::vector<unsigned long long>& Bytes() const { return bytes_; }

 private:
  std::vector<unsigned long long> ids_;
  std::vector<unsigned long long> bytes_;
  std::unordered_map<unsigned long long, std::size_t> placeOfId_;
  unsigned long long subvolId_ = 0;
  unsigned long long value_ = 0;
  unsigned long long total_ = 0;
  int scanned_ = 0;
};

}  // namespace VelaBtrfsUsage

#endif  // VELABTRFSSNAPUSAGE_SNAP_CALCULATOR_TOOL_OUTPUT_PARSER_H_
