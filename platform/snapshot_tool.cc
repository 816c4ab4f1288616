#include "snapshot_tool.h"

#include <time.h>

#include <cstring>
#include <sstream>
#include <vector>

#include "snapshot_names.h"

namespace vela::platform {

namespace {

std::vector<std::string> Components(const std::string& path) {
  std::vector<std::string> parts;
  std::istringstream in(path);
  std::string part;
  while (std::getline(in, part, '/')) {
    if (!part.empty()) parts.push_back(part);
  }
  return parts;
}

bool AllDigits(const std::string& text, size_t from, size_t count) {
  if (from + count > text.size()) return false;
  for (size_t i = from; i < from + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  return true;
}

// The time stamp btrbk appends after the last "." of a name: "20260105",
// "20260105T1000", "20260105T100005", each optionally followed by a zone
// ("+0100", "Z") and a "_N" that keeps names of one minute apart.
bool IsBtrbkStamp(const std::string& stamp) {
  if (!AllDigits(stamp, 0, 8)) return false;
  size_t at = 8;
  if (at < stamp.size() && stamp[at] == 'T') {
    if (!AllDigits(stamp, at + 1, 4)) return false;
    at += 5;
    if (AllDigits(stamp, at, 2)) at += 2;
    if (at < stamp.size() && stamp[at] == 'Z') {
      ++at;
    } else if (at < stamp.size() && (stamp[at] == '+' || stamp[at] == '-') && AllDigits(stamp, at + 1, 4)) {
      at += 5;
    }
  }
  if (at < stamp.size() && stamp[at] == '_') {
    const size_t digits = stamp.size() - at - 1;
    if (digits == 0 || !AllDigits(stamp, at + 1, digits)) return false;
    at = stamp.size();
  }
  return at == stamp.size();
}

}  // namespace

const char* SnapshotToolOf(const std::string& path) {
  const std::vector<std::string> parts = Components(path);
  const size_t n = parts.size();
  if (n >= 3 && parts[n - 1] == "snapshot" && parts[n - 3] == ".snapshots" &&
      AllDigits(parts[n - 2], 0, parts[n - 2].size()) && !parts[n - 2].empty()) {
    return "snapper";
  }
  if (n >= 4 && parts[n - 4] == "timeshift-btrfs" && parts[n - 3] == "snapshots") return "timeshift";
  time_t time;
  if (n == 3 && parts[0] == kOwnSnapshotRoot && ParseSnapName(parts[2].c_str(), &time)) return "vela-share";
  if (n >= 1) {
    const size_t dot = parts[n - 1].rfind('.');
    if (dot != std::string::npos && dot > 0 && IsBtrbkStamp(parts[n - 1].substr(dot + 1))) return "btrbk";
  }
  return "other";
}

}  // namespace vela::platform
