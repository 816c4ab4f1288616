// The calculator's reader of the size tool's output, fed arbitrary text:
// whatever the lines hold, it must neither crash nor lose the pairing of
// root IDs and figures, and a subvolume must keep one place.
#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <cstdlib>
#include <set>
#include <string>

#include "snap_calculator/tool_output_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  VelaBtrfsUsage::ToolOutputParser parser;
  // Lines as fgets gives them to the calculator: at most 1023 bytes, NUL
  // terminated, the newline kept.
  const std::string text(reinterpret_cast<const char*>(data), size);
  size_t begin = 0;
  while (begin < text.size()) {
    size_t end = text.find('\n', begin);
    end = end == std::string::npos ? text.size() : end + 1;
    end = std::min(end, begin + 1023);
    const std::string line = text.substr(begin, end - begin);
    parser.Feed(line.c_str());
    begin = end;
  }
  if (parser.Ids().size() != parser.Bytes().size()) abort();
  if (std::set<unsigned long long>(parser.Ids().begin(), parser.Ids().end()).size() != parser.Ids().size()) abort();
  return 0;
}
