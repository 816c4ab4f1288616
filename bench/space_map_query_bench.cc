// Times the space map's answers on a map file, as a request that opens the
// map, asks and closes it would see them: opening alone, the per-snapshot
// table, what random sets of snapshots free (with their 20 largest files)
// and plans for random amounts. Prints the median, the 95th percentile and
// the largest time of each, in milliseconds.
//
//   space-map-query-bench MAP [RUNS]     (RUNS of each question, default 200)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "vela/space_map.h"

namespace {

using vela::space_map::SpaceMap;
using vela::space_map::Status;

std::unique_ptr<SpaceMap> Open(const std::string& path) {
  std::unique_ptr<SpaceMap> map;
  std::string error;
  if (SpaceMap::Open(path, &map, &error) != Status::kOk) {
    fprintf(stderr, "space-map-query-bench: %s\n", error.c_str());
    exit(1);
  }
  return map;
}

void Report(const char* what, std::vector<double> ms) {
  std::sort(ms.begin(), ms.end());
  printf("  %-46s median %7.2f ms   p95 %7.2f ms   max %7.2f ms   (%zu runs)\n", what, ms[ms.size() / 2],
         ms[ms.size() * 95 / 100], ms.back(), ms.size());
}

// Runs `question` `runs` times, each on a freshly opened map.
std::vector<double> Time(const std::string& path, int runs, const std::function<void(const SpaceMap&, int)>& question) {
  std::vector<double> ms;
  for (int i = 0; i < runs; ++i) {
    const auto start = std::chrono::steady_clock::now();
    const auto map = Open(path);
    question(*map, i);
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  }
  return ms;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    fprintf(stderr, "usage: space-map-query-bench MAP [RUNS]\n");
    return 2;
  }
  const std::string path = argv[1];
  const int runs = argc == 3 ? atoi(argv[2]) : 200;
  if (runs < 1) {
    fprintf(stderr, "space-map-query-bench: RUNS must be a positive number, not '%s'\n", argv[2]);
    return 2;
  }
  const auto map = Open(path);
  const std::vector<uint64_t> ids = map->RootIds();
  const auto rows = map->Snapshots();
  const uint64_t most = rows.back().accumBytes;
  printf("  %s: %zu snapshots; deleting all frees %llu bytes; file lists %s\n", path.c_str(), ids.size(),
         static_cast<unsigned long long>(most), map->FilesComplete() ? "complete" : "incomplete");

  std::mt19937_64 random(1);
  std::vector<std::vector<uint64_t>> sets(static_cast<size_t>(runs));
  for (auto& set : sets) {
    const uint64_t share = random() % 100 + 1;  // sets of every size
    for (uint64_t id : ids) {
      if (random() % 100 < share) set.push_back(id);
    }
  }
  bool failed = false;
  size_t filesSeen = 0;
  Report("open", Time(path, runs, [](const SpaceMap&, int) {}));
  Report("open + per-snapshot table", Time(path, runs, [](const SpaceMap& m, int) { (void)m.Snapshots(); }));
  Report("open + freed by a random set, 20 largest files", Time(path, runs, [&](const SpaceMap& m, int i) {
           vela::space_map::Freed freed;
           std::string error;
           if (m.FreedBy(sets[static_cast<size_t>(i)], 20, &freed, &error) != Status::kOk) {
             fprintf(stderr, "space-map-query-bench: %s\n", error.c_str());
             failed = true;
           }
           filesSeen += freed.files.size();
         }));
  Report("open + freed by all, 20 largest files", Time(path, runs, [&](const SpaceMap& m, int) {
           vela::space_map::Freed freed;
           std::string error;
           failed = failed || m.FreedBy(ids, 20, &freed, &error) != Status::kOk;
         }));
  size_t inexact = 0;
  Report("open + plan for a random amount", Time(path, runs, [&](const SpaceMap& m, int i) {
           const uint64_t keep = static_cast<uint64_t>(i % 3 == 0 ? 0 : i % 3 == 1 ? 1 : 5);
           const auto plan = m.PlanFor(most == 0 ? 0 : random() % (most + most / 10), keep);
           inexact += plan.fewestSnapshots.exact ? 0 : 1;
         }));
  printf("  files named in the answers: %zu; plans not proven fewest: %zu of %d\n", filesSeen, inexact, runs);
  return failed ? 1 : 0;
}
