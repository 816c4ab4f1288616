// Fuzz target: the space map's reader on arbitrary files. A map it accepts
// must answer every question without a crash, its freed bytes never above
// what deleting every snapshot frees, and its plans within the snapshots.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "vela/space_map.h"

namespace {

const std::string& MapPath() {
  static const std::string path = [] {
    char pattern[] = "/tmp/space-map-fuzz.XXXXXX";
    const int fd = mkstemp(pattern);
    if (fd < 0) abort();
    close(fd);
    return std::string(pattern);
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const int fd = open(MapPath().c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) abort();
  close(fd);

  using namespace vela::space_map;
  std::unique_ptr<SpaceMap> map;
  std::string error;
  if (SpaceMap::Open(MapPath(), &map, &error) != Status::kOk) return 0;
  const std::vector<uint64_t>& ids = map->RootIds();
  const std::vector<SnapshotBytes> rows = map->Snapshots();
  if (rows.size() != ids.size()) __builtin_trap();
  // Without files no question can fail: the signatures were checked.
  Freed all, some, withFiles;
  if (map->FreedBy(ids, 0, &all, &error) != Status::kOk) __builtin_trap();
  if (all.freedBytes != all.dataBytes + all.metadataBytes) __builtin_trap();
  if (!rows.empty() && rows.back().accumBytes != all.freedBytes) __builtin_trap();
  const std::vector<uint64_t> half(ids.begin(), ids.begin() + static_cast<std::ptrdiff_t>(ids.size() / 2));
  if (map->FreedBy(half, 5, &some, &error) == Status::kOk && some.freedBytes > all.freedBytes) __builtin_trap();
  if (map->FreedBy(ids, 20, &withFiles, &error) == Status::kOk &&
      (withFiles.files.size() > 20 || withFiles.freedBytes != all.freedBytes)) {
    __builtin_trap();
  }
  for (uint64_t keep : {uint64_t{0}, uint64_t{1}}) {
    const Plan plan = map->PlanFor(all.freedBytes / 2 + 1, keep);
    if (plan.oldestFirst.rootIds.size() > ids.size() || plan.fewestSnapshots.rootIds.size() > ids.size()) {
      __builtin_trap();
    }
  }
  return 0;
}
