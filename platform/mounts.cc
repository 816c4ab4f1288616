#include "mounts.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>
#include <utility>

namespace vela::platform {

namespace {

// The kernel writes space, tab, newline and backslash in paths as "\ooo".
std::string Unescape(const std::string& field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' && field[i + 1] <= '3' &&
        field[i + 2] >= '0' && field[i + 2] <= '7' && field[i + 3] >= '0' && field[i + 3] <= '7') {
      out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

// "ID PARENT MAJ:MIN ROOT POINT OPTIONS [OPTIONAL...] - FSTYPE SOURCE SUPER"
bool ParseLine(const std::string& line, Mount* mount) {
  std::istringstream in(line);
  std::string root, point, field;  // the mounted directory of the file system is not needed
  if (!(in >> mount->id >> mount->parentId >> mount->device >> root >> point >> mount->mountOptions)) return false;
  while (in >> field && field != "-") {
  }
  std::string source;
  if (field != "-" || !(in >> mount->fsType >> source)) return false;
  in >> mount->superOptions;
  mount->point = Unescape(point);
  mount->source = Unescape(source);
  return true;
}

}  // namespace

bool FindOption(const std::string& options, const std::string& key, std::string* value) {
  std::istringstream list(options);
  std::string option;
  while (std::getline(list, option, ',')) {
    if (option == key) {
      value->clear();
      return true;
    }
    if (option.size() > key.size() && option.compare(0, key.size(), key) == 0 && option[key.size()] == '=') {
      *value = option.substr(key.size() + 1);
      return true;
    }
  }
  return false;
}

bool ReadMounts(std::vector<Mount>* mounts) {
  FILE* file = fopen("/proc/self/mountinfo", "re");
  if (file == nullptr) return false;
  std::vector<Mount> all;
  char* line = nullptr;
  size_t capacity = 0;
  ssize_t length;
  while ((length = getline(&line, &capacity, file)) > 0) {
    Mount mount;
    if (ParseLine(std::string(line, static_cast<size_t>(length)), &mount)) all.push_back(std::move(mount));
  }
  const bool failed = ferror(file) != 0;
  const int readError = errno;
  free(line);
  fclose(file);
  if (failed) {
    errno = readError;
    return false;
  }
  // A mount is hidden when another one is mounted on top of it, which is a
  // mount at the same point whose parent it is.
  std::set<std::pair<int, std::string>> covered;
  for (const Mount& m : all) covered.emplace(m.parentId, m.point);
  mounts->clear();
  for (Mount& m : all) {
    if (covered.count({m.id, m.point}) == 0) mounts->push_back(std::move(m));
  }
  return true;
}

}  // namespace vela::platform
