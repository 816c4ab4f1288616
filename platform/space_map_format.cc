#include "space_map_format.h"

#include "base/numbers.h"

namespace vela::platform::space_map_format {

const char* const kSchema[] = {
    "CREATE TABLE meta(key TEXT PRIMARY KEY NOT NULL, value INTEGER NOT NULL) WITHOUT ROWID",
    "CREATE TABLE subvolume(position INTEGER PRIMARY KEY, root_id INTEGER NOT NULL)",
    "CREATE TABLE signature(id INTEGER PRIMARY KEY, members TEXT NOT NULL, outside INTEGER NOT NULL, "
    "data_bytes INTEGER NOT NULL, metadata_bytes INTEGER NOT NULL)",
    "CREATE TABLE file_bytes(signature INTEGER NOT NULL, file INTEGER NOT NULL, position INTEGER NOT NULL, "
    "bytes INTEGER NOT NULL, PRIMARY KEY(signature, file)) WITHOUT ROWID",
    "CREATE TABLE file_path(file INTEGER NOT NULL, position INTEGER NOT NULL, path TEXT NOT NULL, "
    "PRIMARY KEY(file, position)) WITHOUT ROWID",
};
const size_t kSchemaSize = sizeof kSchema / sizeof kSchema[0];
const char* const kTables[] = {"meta", "subvolume", "signature", "file_bytes", "file_path"};
static_assert(sizeof kTables / sizeof kTables[0] == sizeof kSchema / sizeof kSchema[0], "one name per table");

std::string MembersText(const std::vector<space_map::Run>& runs) {
  std::string text;
  for (const space_map::Run& run : runs) {
    if (!text.empty()) text += ',';
    text += std::to_string(run.first);
    if (run.last != run.first) text += '-' + std::to_string(run.last);
  }
  return text;
}

bool ParseMembers(const std::string& text, uint32_t positions, std::vector<space_map::Run>* runs) {
  runs->clear();
  size_t at = 0;
  const auto number = [&](uint32_t* value) {
    const size_t end = text.find_first_not_of("0123456789", at);
    const std::string digits = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
    uint64_t parsed = 0;
    if (!base::ParseCanonicalDecimal(digits, parsed) || parsed >= positions) return false;
    *value = static_cast<uint32_t>(parsed);
    at += digits.size();
    return true;
  };
  while (true) {
    space_map::Run run;
    if (!number(&run.first)) return false;
    run.last = run.first;
    if (at < text.size() && text[at] == '-') {
      ++at;
      if (!number(&run.last) || run.last <= run.first) return false;
    }
    // Ascending, with a gap between runs: one text per set.
    if (!runs->empty() && run.first <= uint64_t{runs->back().last} + 1) return false;
    runs->push_back(run);
    if (at == text.size()) return true;
    if (text[at] != ',') return false;
    ++at;
  }
}

}  // namespace vela::platform::space_map_format
