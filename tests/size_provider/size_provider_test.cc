// The size provider (vela-btrfs subvolume size) on real loopback btrfs
// volumes: its figures against the kernel's quota groups, its flag forms and
// modes, its progress lines, its refusals, damaged tree blocks, and SIGTERM.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <set>
#include <sstream>

#include "checksum.h"
#include "size_provider/dataset.h"
#include "support/btrfs_image.h"
#include "support/command.h"
#include "support/fork_child.h"
#include "support/scratch_dir.h"
#include "vela/space_map.h"

namespace vela::test {
namespace {

constexpr char kProvider[] = VELA_TEST_SIZE_PROVIDER_PATH;

// ---------------------------------------------------------------------------
// Running the provider and reading what it printed.

// Runs the provider under a time limit, so that a hang fails the test instead
// of stalling it (a killed run exits 137).
CommandResult Provider(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"timeout", "-s", "KILL", "120", kProvider};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunCommand(argv);
}

// The same, with the provider's reads limited by `throttle`.
CommandResult ThrottledProvider(const ReadThrottle& throttle, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"timeout", "-s", "KILL", "120", "sh", "-c", "echo $$ > \"$1\" && shift && exec \"$@\"",
                                   "throttled", throttle.Procs(), kProvider};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunCommand(argv);
}

// The provider writing into a pipe whose reader has gone, with SIGPIPE at
// its default action as a shell pipeline leaves it (the test process ignores
// it, and children would inherit that): its status and standard error.
CommandResult ProviderIntoAClosedPipe(const std::vector<std::string>& args) {
  ScratchDir scratch;
  const std::string errPath = scratch / "err";
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  close(out[0]);
  std::vector<std::string> argv = {kProvider};
  argv.insert(argv.end(), args.begin(), args.end());
  const pid_t pid = fork();
  if (pid == 0) {
    signal(SIGPIPE, SIG_DFL);
    const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (err < 0 || dup2(out[1], 1) < 0 || dup2(err, 2) < 0) _exit(126);
    std::vector<char*> pointers;
    for (auto& a : argv) pointers.push_back(a.data());
    pointers.push_back(nullptr);
    execv(pointers[0], pointers.data());
    _exit(127);
  }
  close(out[1]);
  CommandResult run;
  run.status = WaitForExit(pid, 120000);
  run.err = ReadFile(errPath);
  return run;
}

std::vector<std::string> SizeArgs(std::vector<std::string> flags, const std::vector<std::string>& subvolumes) {
  std::vector<std::string> args = {"subvolume", "size"};
  args.insert(args.end(), flags.begin(), flags.end());
  args.insert(args.end(), subvolumes.begin(), subvolumes.end());
  return args;
}

std::vector<std::string> IdArgs(const std::string& mount, const std::vector<uint64_t>& ids) {
  std::vector<std::string> args = {"-r", mount};
  for (uint64_t id : ids) args.push_back(std::to_string(id));
  return args;
}

struct Progress {
  bool estimate;  // an "exclusive" line; otherwise a "processed" one
  uint64_t bytes;
};

struct Output {
  std::vector<Progress> progress;
  std::vector<std::pair<uint64_t, uint64_t>> subvols;  // root ID, bytes
  bool hasTotal = false;
  uint64_t total = 0;
  std::vector<std::string> strays;  // lines of no known form, or out of place

  std::vector<uint64_t> Ids() const {
    std::vector<uint64_t> ids;
    for (const auto& s : subvols) ids.push_back(s.first);
    return ids;
  }
  std::vector<uint64_t> Bytes() const {
    std::vector<uint64_t> bytes;
    for (const auto& s : subvols) bytes.push_back(s.second);
    return bytes;
  }
};

// Reads the output strictly: progress lines first, then the subvolume lines,
// then the total; a line of any other form, or in another place, is a stray.
Output Parse(const std::string& text) {
  Output out;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    unsigned long long a = 0, b = 0;
    char again[128];
    if (sscanf(line.c_str(), "exclusive %llu bytes", &a) == 1 &&
        (snprintf(again, sizeof(again), "exclusive %llu bytes", a), line == again) && out.subvols.empty() &&
        !out.hasTotal) {
      out.progress.push_back({true, a});
    } else if (sscanf(line.c_str(), "processed %llu bytes", &a) == 1 &&
               (snprintf(again, sizeof(again), "processed %llu bytes", a), line == again) && out.subvols.empty() &&
               !out.hasTotal) {
      out.progress.push_back({false, a});
    } else if (sscanf(line.c_str(), "subvol(%llu) %llu bytes", &a, &b) == 2 &&
               (snprintf(again, sizeof(again), "subvol(%llu) %llu bytes", a, b), line == again) && !out.hasTotal) {
      out.subvols.emplace_back(a, b);
    } else if (sscanf(line.c_str(), "total %llu bytes", &a) == 1 &&
               (snprintf(again, sizeof(again), "total %llu bytes", a), line == again) && !out.hasTotal) {
      out.hasTotal = true;
      out.total = a;
    } else {
      out.strays.push_back(line);
    }
  }
  return out;
}

// A successful run with -v: well-formed output whose total is the sum.
Output Figures(const CommandResult& run) {
  Output out = Parse(run.out);
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(std::vector<std::string>{}, out.strays) << run.out;
  EXPECT_TRUE(out.hasTotal) << run.out;
  const auto bytes = out.Bytes();
  EXPECT_EQ(std::accumulate(bytes.begin(), bytes.end(), uint64_t{0}), out.total) << run.out;
  return out;
}

// The estimate comes first; work done never shrinks, never passes the
// estimate printed before it, and reaches the last estimate at the end.
testing::AssertionResult ProgressKeptItsWord(const std::vector<Progress>& progress) {
  if (progress.empty()) return testing::AssertionFailure() << "no progress line";
  if (!progress.front().estimate) return testing::AssertionFailure() << "the first progress line is no estimate";
  uint64_t estimate = 0, done = 0;
  for (size_t i = 0; i < progress.size(); ++i) {
    if (progress[i].estimate) {
      estimate = progress[i].bytes;
      continue;
    }
    if (progress[i].bytes < done) {
      return testing::AssertionFailure() << "line " << i << ": processed fell from " << done << " to " << progress[i].bytes;
    }
    if (progress[i].bytes > estimate) {
      return testing::AssertionFailure() << "line " << i << ": processed " << progress[i].bytes << " passes the estimate "
                                         << estimate;
    }
    done = progress[i].bytes;
  }
  if (progress.back().estimate || progress.back().bytes != estimate) {
    return testing::AssertionFailure() << "the last progress line is not processed == the last estimate " << estimate;
  }
  return testing::AssertionSuccess();
}

std::vector<uint64_t> RootIds(const std::vector<std::string>& paths) {
  std::vector<uint64_t> ids;
  for (const auto& path : paths) ids.push_back(RootId(path));
  return ids;
}

unsigned Occurrences(const std::string& text, const std::string& word) {
  unsigned count = 0;
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++count;
  return count;
}

std::vector<uint64_t> RunningSums(const std::vector<uint64_t>& figures) {
  std::vector<uint64_t> sums;
  uint64_t sum = 0;
  for (uint64_t figure : figures) sums.push_back(sum += figure);
  return sums;
}

// An open space map; fails the test when it does not open.
std::unique_ptr<space_map::SpaceMap> OpenMap(const std::string& path) {
  std::unique_ptr<space_map::SpaceMap> map;
  std::string error;
  EXPECT_EQ(space_map::Status::kOk, space_map::SpaceMap::Open(path, &map, &error)) << error;
  return map;
}

// A file held open: while it is, a deleted subvolume holding it waits for
// the cleaner.
struct OpenFile {
  explicit OpenFile(const std::string& path) : fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~OpenFile() { Close(); }
  void Close() {
    if (fd >= 0) close(fd);
    fd = -1;
  }
  int fd;
};

// A byte copy of an image mounted at a path until the object goes away.
class MountedCopy {
 public:
  MountedCopy(const std::string& image, const std::string& copy, const std::string& mountPoint)
      : copy_(copy), mountPoint_(mountPoint) {
    MustRun({"cp", "--sparse=always", image, copy_});
    MustRun({"mount", "-t", "btrfs", "-o", "loop", copy_, mountPoint_});
  }
  ~MountedCopy() {
    if (RunCommand({"umount", mountPoint_}).status != 0) RunCommand({"umount", "-l", mountPoint_});
    unlink(copy_.c_str());
  }
  MountedCopy(const MountedCopy&) = delete;
  MountedCopy& operator=(const MountedCopy&) = delete;

 private:
  std::string copy_;
  std::string mountPoint_;
};

// ---------------------------------------------------------------------------
// Figures against the kernel's quota groups.

struct Layout {
  const char* name;
  std::vector<std::string> mkfsArgs;
  int snapshotTreeLevel;  // the least level the snapshots' trees must reach
};

void PrintTo(const Layout& layout, std::ostream* os) { *os << layout.name; }

class SizeProviderQuotaGroups : public testing::TestWithParam<Layout> {};

TEST_P(SizeProviderQuotaGroups, FiguresEqualTheKernelsQuotaGroupsToTheByteWhileADeletedSnapshotAwaitsTheCleaner) {
  const Layout& layout = GetParam();
  BtrfsImage volume("/volume1", 512ull << 20, layout.mkfsArgs);
  const ChurnDataset data = BuildChurnDataset("/volume1", 3000);
  const auto& snaps = data.snapshots;
  const std::vector<uint64_t> snapIds = RootIds(snaps);

  // The data has what it is meant to: deep trees, compressed and
  // preallocated extents.
  const auto levels = RootLevels(volume.ImagePath());
  for (uint64_t id : snapIds) EXPECT_GE(levels.at(id), layout.snapshotTreeLevel) << "tree of " << id;
  const std::string s3Tree = MustRun({"btrfs", "inspect-internal", "dump-tree", "--hide-names", "-t",
                                      std::to_string(snapIds[2]), volume.ImagePath()});
  EXPECT_NE(std::string::npos, s3Tree.find("compression 3 (zstd)"));
  EXPECT_NE(std::string::npos, s3Tree.find("type 2 (prealloc)"));

  // s7 shares its new file with "doomed" only; once "doomed" is deleted,
  // that file is s7's alone. A reader keeps the deleted snapshot's tree
  // waiting for the cleaner while the provider runs.
  const Output beforeDeletion = Figures(Provider(SizeArgs({"-v"}, {snaps[6]})));
  const uint64_t doomedId = RootId(data.doomed);
  OpenFile reader(data.doomed + "/new1");
  ASSERT_LE(0, reader.fd);
  MustRun({"btrfs", "-q", "subvolume", "delete", "-c", data.doomed});
  ASSERT_NE(std::string::npos, MustRun({"btrfs", "subvolume", "list", "-d", "/volume1"})
                                   .find("ID " + std::to_string(doomedId) + " "))
      << "the deleted snapshot should still wait for the cleaner";

  const Output exclusive = Figures(Provider(SizeArgs({"-v"}, snaps)));
  ASSERT_EQ(snapIds, exclusive.Ids());

  // Marginal figures in an order unlike the snapshots' age, by path and by
  // root ID.
  const std::vector<size_t> orderA = {2, 0, 6, 4, 1, 7, 5, 3};
  std::vector<std::string> pathsA;
  std::vector<uint64_t> idsA;
  for (size_t i : orderA) {
    pathsA.push_back(snaps[i]);
    idsA.push_back(snapIds[i]);
  }
  const Output marginalA = Figures(Provider(SizeArgs({"-vpm"}, pathsA)));
  ASSERT_EQ(idsA, marginalA.Ids());
  EXPECT_TRUE(ProgressKeptItsWord(marginalA.progress));
  const Output marginalAById = Figures(Provider(SizeArgs({"-vpm"}, IdArgs("/volume1", idsA))));
  EXPECT_EQ(marginalA.subvols, marginalAById.subvols);
  EXPECT_TRUE(ProgressKeptItsWord(marginalAById.progress));

  // Oldest first, then the live share, the other share and the top level.
  std::vector<uint64_t> idsB = snapIds;
  idsB.push_back(RootId(data.share));
  idsB.push_back(RootId(data.other));
  idsB.push_back(5);
  const Output marginalB = Figures(Provider(SizeArgs({"-vm"}, IdArgs("/volume1", idsB))));
  ASSERT_EQ(idsB, marginalB.Ids());

  // The deleted snapshot itself cannot be asked for.
  const CommandResult deleted = Provider(SizeArgs({"-v"}, IdArgs("/volume1", {doomedId})));
  EXPECT_NE(0, deleted.status);
  EXPECT_EQ("", deleted.out);
  EXPECT_NE("", deleted.err);

  // The reference: the kernel's own accounting on a copy, once the cleaner
  // has removed the deleted snapshot. 1/k holds the first k of order A,
  // 2/k the first k of order B.
  reader.Close();
  volume.Unmount();
  ScratchDir scratch;
  MountedCopy copy(volume.ImagePath(), scratch / "copy.img", "/volume2");
  MustRun({"btrfs", "subvolume", "sync", "/volume2"});
  const auto groups = QuotaGroupsOfPrefixes("/volume2", {idsA, idsB});

  for (size_t i = 0; i < snaps.size(); ++i) {
    EXPECT_EQ(groups.at("0/" + std::to_string(snapIds[i])).exclusive, exclusive.Bytes()[i]) << snaps[i];
  }
  const auto sumsA = RunningSums(marginalA.Bytes());
  const auto sumsB = RunningSums(marginalB.Bytes());
  for (size_t k = 1; k <= idsA.size(); ++k) {
    EXPECT_EQ(groups.at("1/" + std::to_string(k)).exclusive, sumsA[k - 1]) << "first " << k << " of order A";
  }
  for (size_t k = 1; k <= idsB.size(); ++k) {
    EXPECT_EQ(groups.at("2/" + std::to_string(k)).exclusive, sumsB[k - 1]) << "first " << k << " of order B";
  }

  // None of this holds by accident: data shared among snapshots only (the
  // 120 KiB rewritten in the middle of the large file live in s2 to s5)
  // makes the marginal total exceed the sum of exclusive figures, and the
  // deleted snapshot's file went to s7 alone.
  EXPECT_GT(marginalA.total, exclusive.total + 120000);
  ASSERT_EQ(1u, beforeDeletion.subvols.size());
  EXPECT_GE(exclusive.Bytes()[6], beforeDeletion.total + 70000) << "the 70000-byte file only s7 still holds";
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, SizeProviderQuotaGroups,
    testing::Values(Layout{"DefaultLayout", {}, 1},
                    Layout{"SmallNodesXxhashSingleMetadata", {"-n", "4096", "--csum", "xxhash", "-m", "single"}, 2}),
    [](const testing::TestParamInfo<Layout>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// The space map, from the same reading as the figures.

// After the churn's eight snapshots: a nested subvolume holding a reflink of
// the share's data, with a snapshot of its own; then s9 with a file that
// only it keeps and one that moves to another directory before s10 and is
// gone by s11.
constexpr char kMoreShapesScript[] = R"sh(set -eu
S=$1/share
N=$1/@snapshots/share
btrfs -q subvolume create "$S/nested"
head -c 400000 /dev/urandom > "$S/nested/inner"
cp --reflink=always "$S/big4" "$S/nested/big4-link"
btrfs -q subvolume snapshot -r "$S/nested" "$N/nested-1"
mkdir -p "$S/dir1" "$S/dir2"
head -c 512000 /dev/urandom > "$S/dir1/moving"
head -c 300000 /dev/urandom > "$S/solo"
btrfs -q subvolume snapshot -r "$S" "$N/s9"
rm "$S/solo"
mv "$S/dir1/moving" "$S/dir2/moved"
btrfs -q subvolume snapshot -r "$S" "$N/s10"
rm "$S/dir2/moved"
btrfs -q subvolume snapshot -r "$S" "$N/s11"
btrfs filesystem sync "$1"
)sh";

std::vector<std::string> WithoutProgressDone(const std::string& out) {
  std::vector<std::string> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("processed ", 0) != 0) lines.push_back(line);  // printed as time goes by
  }
  return lines;
}

TEST(SizeProviderSpaceMap, AnySetFreesWhatTheKernelsQuotaGroupOfItSaysAndTheFilesBehindItAreNamed) {
  BtrfsImage volume("/volume1", 512ull << 20);
  const ChurnDataset data = BuildChurnDataset("/volume1", 1500);
  MustRun({"sh", "-c", kMoreShapesScript, "shapes", "/volume1"});
  std::vector<std::string> order = data.snapshots;
  for (const char* name : {"s9", "s10", "s11", "nested-1"}) order.push_back("/volume1/@snapshots/share/" + std::string(name));
  const std::vector<uint64_t> ids = RootIds(order);
  const size_t s9 = 8, s10 = 9;

  // The lines printed are the same with the map as without it.
  ScratchDir scratch;
  const std::string map = scratch / "map", limited = scratch / "limited";
  const CommandResult plain = Provider(SizeArgs({"-vm"}, order));
  const CommandResult mapped = Provider(SizeArgs({"-vm", "--space-map", map}, order));
  EXPECT_EQ(0, mapped.status) << mapped.err;
  EXPECT_EQ(plain.out, mapped.out);
  EXPECT_EQ(WithoutProgressDone(Provider(SizeArgs({"-vpm"}, order)).out),
            WithoutProgressDone(Provider(SizeArgs({"-vpm", "--space-map=" + limited, "--space-map-file-rows", "1"}, order)).out));
  const Output marginal = Figures(plain);
  const auto reader = OpenMap(map);
  const auto limitedReader = OpenMap(limited);
  ASSERT_TRUE(reader && limitedReader);
  ASSERT_EQ(ids, reader->RootIds());
  const auto rows = reader->Snapshots();
  const auto sums = RunningSums(marginal.Bytes());

  // Random sets of the snapshots, not only prefixes; the pairs of
  // neighbours for what each adds to the one before it; all.
  std::mt19937 random(5);
  std::vector<std::vector<uint64_t>> sets;
  for (int k = 0; k < 12; ++k) {
    std::vector<uint64_t> set;
    for (uint64_t id : ids) {
      if (random() % 3 == 0) set.push_back(id);
    }
    if (!set.empty()) sets.push_back(set);
  }
  const size_t firstPair = sets.size();
  for (size_t i = 1; i < ids.size(); ++i) sets.push_back({ids[i - 1], ids[i]});
  sets.push_back(ids);

  // Files of known sets: what only s9 keeps; the moved file with the
  // newest path of the set holding it; all of them with one row kept.
  const auto top = [](const space_map::SpaceMap& m, const std::vector<uint64_t>& set) {
    space_map::Freed freed;
    std::string error;
    EXPECT_EQ(space_map::Status::kOk, m.FreedBy(set, 20, &freed, &error)) << error;
    return freed;
  };
  const auto onlyS9 = top(*reader, {ids[s9]});
  ASSERT_FALSE(onlyS9.files.empty());
  EXPECT_EQ("solo", onlyS9.files[0].path);
  EXPECT_EQ(ids[s9], onlyS9.files[0].rootId);
  EXPECT_EQ(303104u, onlyS9.files[0].bytes) << "300000 bytes in whole sectors";
  EXPECT_GE(onlyS9.dataBytes, 303104u);
  const auto both = top(*reader, {ids[s10], ids[s9]});
  ASSERT_GE(both.files.size(), 2u);
  EXPECT_EQ("dir2/moved", both.files[0].path) << "named as s10 sees it";
  EXPECT_EQ(ids[s10], both.files[0].rootId);
  EXPECT_EQ(512000u, both.files[0].bytes);
  EXPECT_EQ("solo", both.files[1].path);
  EXPECT_TRUE(both.filesComplete);
  const auto all = top(*reader, ids);
  const auto allLimited = top(*limitedReader, ids);
  EXPECT_EQ(all.freedBytes, allLimited.freedBytes) << "the signatures stay exact";
  EXPECT_FALSE(allLimited.filesComplete);
  ASSERT_EQ(1u, allLimited.files.size());
  ASSERT_GE(all.files.size(), 2u) << "one row kept is fewer than all";
  EXPECT_EQ(all.files[0].path, allLimited.files[0].path) << "the largest row is kept";

  volume.Unmount();
  MountedCopy copy(volume.ImagePath(), scratch / "copy.img", "/volume2");
  const auto groups = QuotaGroupsOfSets("/volume2", sets);
  for (size_t i = 0; i < ids.size(); ++i) {
    SCOPED_TRACE(order[i]);
    EXPECT_EQ(groups.at("0/" + std::to_string(ids[i])).exclusive, rows[i].aloneBytes);
    EXPECT_EQ(sums[i], rows[i].accumBytes);
    const uint64_t added = i == 0 ? groups.at("0/" + std::to_string(ids[0])).referenced
                                  : groups.at("1/" + std::to_string(firstPair + i)).referenced -
                                        groups.at("0/" + std::to_string(ids[i - 1])).referenced;
    EXPECT_EQ(added, rows[i].addedBytes);
  }
  for (size_t k = 0; k < sets.size(); ++k) {
    SCOPED_TRACE("set " + testing::PrintToString(sets[k]));
    const space_map::Freed freed = top(*reader, sets[k]);
    EXPECT_EQ(groups.at("1/" + std::to_string(k + 1)).exclusive, freed.freedBytes);
    EXPECT_EQ(freed.freedBytes, top(*limitedReader, sets[k]).freedBytes);
  }
}

// ---------------------------------------------------------------------------
// File systems of several devices: a sprout of a seed, and RAID1 with a
// device missing. Figures on the mounted file system, then the kernel's
// quota groups on byte copies of what is left of its devices.

struct Measured {
  std::vector<uint64_t> ids;
  Output exclusive, marginal;  // marginal in the given order
  std::vector<space_map::SnapshotBytes> map;  // the space map of the marginal run
};

Measured Measure(const std::vector<std::string>& snapshots) {
  ScratchDir scratch;
  Measured m{RootIds(snapshots), Figures(Provider(SizeArgs({"-v"}, snapshots))),
             Figures(Provider(SizeArgs({"-vpm", "--space-map", scratch / "map"}, snapshots))), {}};
  EXPECT_EQ(m.ids, m.exclusive.Ids());
  EXPECT_EQ(m.ids, m.marginal.Ids());
  if (const auto map = OpenMap(scratch / "map")) m.map = map->Snapshots();
  return m;
}

void ExpectTheKernelsFigures(const Measured& m, const std::string& mount) {
  const auto groups = QuotaGroupsOfPrefixes(mount, {m.ids});
  if (m.exclusive.subvols.size() != m.ids.size() || m.marginal.subvols.size() != m.ids.size() ||
      m.map.size() != m.ids.size()) {
    return;
  }
  const auto sums = RunningSums(m.marginal.Bytes());
  for (size_t i = 0; i < m.ids.size(); ++i) {
    const Qgroup& alone = groups.at("0/" + std::to_string(m.ids[i]));
    const Qgroup& first = groups.at("1/" + std::to_string(i + 1));
    EXPECT_EQ(alone.exclusive, m.exclusive.Bytes()[i]) << "subvolume " << m.ids[i];
    EXPECT_EQ(first.exclusive, sums[i]) << "the first " << i + 1;
    EXPECT_EQ(alone.exclusive, m.map[i].aloneBytes) << "the map, subvolume " << m.ids[i];
    EXPECT_EQ(first.exclusive, m.map[i].accumBytes) << "the map, the first " << i + 1;
  }
}

// The kernel's figures on byte copies of a file system's images: each
// image's loop device (`devices`, in the same order) is detached, the copies
// are attached, and that of the last image is mounted at /volume2 with
// `options`.
void ExpectTheKernelsFiguresOnCopies(const Measured& m, LoopDevices& loops, const std::vector<std::string>& images,
                                     const std::vector<std::string>& devices, const std::string& options) {
  for (size_t i = 0; i < images.size(); ++i) {
    MustRun({"cp", "--sparse=always", images[i], images[i] + ".copy"});
    loops.Detach(devices[i]);
  }
  for (size_t i = 0; i + 1 < images.size(); ++i) MustRun({"btrfs", "device", "scan", loops.Attach(images[i] + ".copy")});
  std::vector<std::string> mount = {"mount", loops.Attach(images.back() + ".copy"), "/volume2"};
  if (!options.empty()) mount.insert(mount.begin() + 1, {"-o", options});
  MustRun(mount);
  ExpectTheKernelsFigures(m, "/volume2");
  MustRun({"umount", "/volume2"});
}

// After the churn, changes and one more snapshot, `name`: it shares data
// and tree blocks with the older snapshots and has new ones of its own.
std::string ChangeAndSnapshot(const ChurnDataset& data, const std::string& name) {
  MustRun({"sh", "-c",
           "set -eu; i=0; while [ $i -lt 300 ]; do [ ! -e \"$1/small/f$i\" ] || echo later >> \"$1/small/f$i\"; "
           "i=$((i + 7)); done; head -c 200000 /dev/urandom > \"$1/later\"; rm \"$1/big1\"",
           "change", data.share});
  const std::string& oldest = data.snapshots.front();
  const std::string snapshot = oldest.substr(0, oldest.rfind('/') + 1) + name;
  MustRun({"btrfs", "-q", "subvolume", "snapshot", "-r", data.share, snapshot});
  return snapshot;
}

// Loop devices over `count` fresh images in `scratch`, with a btrfs of the
// given data and metadata profile across them, the churn on it, unmounted.
std::vector<std::string> ChurnedVolume(const ScratchDir& scratch, LoopDevices& loops, int count,
                                       const std::string& profile, ChurnDataset* data) {
  std::vector<std::string> devices;
  std::vector<std::string> mkfs = {"mkfs.btrfs", "-q", "-f", "-d", profile, "-m", profile};
  for (int i = 0; i < count; ++i) {
    devices.push_back(loops.Attach(scratch / ("device" + std::to_string(i) + ".img"), 512ull << 20));
    mkfs.push_back(devices.back());
  }
  MustRun(mkfs);
  MustRun({"mount", devices.back(), "/volume1"});
  *data = BuildChurnDataset("/volume1", 300);
  MustRun({"umount", "/volume1"});
  return devices;
}

TEST(SizeProviderMultiDevice, ASproutReadsItsSeedAndGivesTheKernelsFigures) {
  ScratchDir scratch;
  LoopDevices loops;
  const std::string seed = loops.Attach(scratch / "seed.img", 512ull << 20);
  MustRun({"mkfs.btrfs", "-q", "-f", seed});
  MustRun({"mount", seed, "/volume1"});
  const ChurnDataset data = BuildChurnDataset("/volume1", 300);
  MustRun({"umount", "/volume1"});
  MustRun({"btrfstune", "-S", "1", seed});
  MustRun({"mount", "-o", "ro", seed, "/volume1"});
  const std::string sprout = loops.Attach(scratch / "sprout.img", 512ull << 20);
  MustRun({"btrfs", "device", "add", "-K", "-f", sprout, "/volume1"});
  MustRun({"mount", "-o", "remount,rw", "/volume1"});
  std::vector<std::string> snaps = data.snapshots;
  snaps.push_back(ChangeAndSnapshot(data, "sprouted"));
  const Measured measured = Measure(snaps);

  MustRun({"umount", "/volume1"});
  ExpectTheKernelsFiguresOnCopies(measured, loops, {scratch / "seed.img", scratch / "sprout.img"}, {seed, sprout}, "");
}

TEST(SizeProviderMultiDevice, Raid1WithItsFirstDeviceMissingIsReadFromTheOtherAndGivesTheKernelsFigures) {
  ScratchDir scratch;
  LoopDevices loops;
  ChurnDataset data;
  const std::vector<std::string> devices = ChurnedVolume(scratch, loops, 2, "raid1", &data);
  const std::string& second = devices[1];
  loops.Detach(devices[0]);
  MustRun({"mount", "-o", "degraded", second, "/volume1"});
  ASSERT_NE(std::string::npos, MustRun({"btrfs", "filesystem", "show", "/volume1"}).find("MISSING"));
  std::vector<std::string> snaps = data.snapshots;
  snaps.push_back(ChangeAndSnapshot(data, "degraded"));
  const Measured measured = Measure(snaps);

  MustRun({"umount", "/volume1"});
  ExpectTheKernelsFiguresOnCopies(measured, loops, {scratch / "device1.img"}, {second}, "degraded");
}

// The generation of the last commit a device's superblock records.
uint64_t SuperblockGeneration(const std::string& device) {
  std::istringstream lines(MustRun({"btrfs", "inspect-internal", "dump-super", device}));
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream words(line);
    std::string key, value;
    if (words >> key >> value && key == "generation") return std::stoull(value);
  }
  throw std::runtime_error("no generation in the superblock of " + device);
}

TEST(SizeProviderMultiDevice, AMirrorBackFromADegradedMountWithAnOlderSuperblockIsReadAsTheKernelReadsIt) {
  ScratchDir scratch;
  LoopDevices loops;
  ChurnDataset data;
  const std::vector<std::string> devices = ChurnedVolume(scratch, loops, 2, "raid1", &data);
  const std::string& first = devices[1];
  // The other device is away while the file system is written degraded,
  // then comes back with the superblock of an older commit.
  loops.Detach(devices[0]);
  MustRun({"mount", "-o", "degraded", first, "/volume1"});
  std::vector<std::string> snaps = data.snapshots;
  snaps.push_back(ChangeAndSnapshot(data, "degraded"));
  MustRun({"umount", "/volume1"});
  const std::string back = loops.Attach(scratch / "device0.img");
  MustRun({"btrfs", "device", "scan", back});
  // Mounted read-only nothing commits, so the mirror stays behind.
  MustRun({"mount", "-o", "ro", first, "/volume1"});
  const Measured measured = Measure(snaps);
  ASSERT_LT(SuperblockGeneration(back), SuperblockGeneration(first)) << "the mirror should have stayed behind";
  MustRun({"umount", "/volume1"});
  ExpectTheKernelsFiguresOnCopies(measured, loops, {scratch / "device0.img", scratch / "device1.img"}, {back, first}, "");
}

TEST(SizeProviderMultiDevice, DegradedRaid5RebuildsTheBlocksOfItsMissingDeviceFromParityAndGivesTheKernelsFigures) {
  ScratchDir scratch;
  LoopDevices loops;
  ChurnDataset data;
  const std::vector<std::string> devices = ChurnedVolume(scratch, loops, 3, "raid5", &data);
  loops.Detach(devices[0]);
  MustRun({"mount", "-o", "degraded,ro", devices[1], "/volume1"});
  const Measured measured = Measure(data.snapshots);
  MustRun({"umount", "/volume1"});
  ExpectTheKernelsFiguresOnCopies(measured, loops, {scratch / "device1.img", scratch / "device2.img"},
                                  {devices[1], devices[2]}, "degraded");
}

TEST(SizeProviderMultiDevice, Raid6ReadsWithOneDeviceMissingAndSaysPlainlyWhatItCannotRebuildWithTwo) {
  ScratchDir scratch;
  LoopDevices loops;
  ChurnDataset data;
  const std::vector<std::string> devices = ChurnedVolume(scratch, loops, 4, "raid6", &data);
  MustRun({"mount", "-o", "ro", devices[3], "/volume1"});
  const Output whole = Figures(Provider(SizeArgs({"-vm"}, data.snapshots)));
  MustRun({"umount", "/volume1"});

  loops.Detach(devices[0]);
  MustRun({"mount", "-o", "degraded,ro", devices[3], "/volume1"});
  EXPECT_EQ(whole.subvols, Figures(Provider(SizeArgs({"-vm"}, data.snapshots))).subvols);
  MustRun({"umount", "/volume1"});

  // With two devices gone, blocks whose data stripe and P stripe are both
  // missing would need the second parity, which this program does not use.
  loops.Detach(devices[1]);
  MustRun({"mount", "-o", "degraded,ro", devices[3], "/volume1"});
  const CommandResult run = Provider(SizeArgs({"-vm"}, data.snapshots));
  MustRun({"umount", "/volume1"});
  EXPECT_EQ(1, run.status) << run.err;
  EXPECT_EQ("", run.out);
  EXPECT_NE(std::string::npos, run.err.find("cannot be read: it lies on missing device")) << run.err;
  EXPECT_EQ(std::string::npos, run.err.find("bad tree block")) << run.err;
}

// ---------------------------------------------------------------------------
// A busy file system: snapshots taken and deleted every fifth of a second on
// the same volume. Freed blocks are discarded at once, so a block read after
// the file system has moved on is gone, not merely stale.

// $1 the subvolume to churn, $2 where its snapshots go, $3 the file whose
// existence stops the loop.
constexpr char kSnapshotChurnScript[] = R"sh(set -eu
k=0
while [ ! -e "$3" ]; do
  k=$((k + 1))
  i=$((k % 10))
  while [ $i -lt 3000 ]; do echo "$k" >> "$1/f$i"; i=$((i + 10)); done
  btrfs -q subvolume snapshot "$1" "$2/o$k"
  [ $k -eq 1 ] || btrfs -q subvolume delete "$2/o$((k - 1))"
  sleep 0.2
done
)sh";

TEST(SizeProviderBusy, SnapshotsTakenAndDeletedAllTheTimeFailNoRunAndADeadlineEndsAReadingTheyAlwaysOvertake) {
  BtrfsImage volume("/volume1", 512ull << 20, {}, "discard=sync");
  const ChurnDataset data = BuildChurnDataset("/volume1", 600);
  MustRun({"sh", "-c", "i=0; while [ $i -lt 3000 ]; do echo $i > \"$1/f$i\"; i=$((i + 1)); done; mkdir /volume1/churn",
           "fill", data.other});
  const CommandResult quiet = Provider(SizeArgs({"-vpm"}, data.snapshots));
  const Output quietOut = Figures(quiet);
  ASSERT_FALSE(quietOut.progress.empty());
  const uint64_t walked = quietOut.progress.back().bytes;

  ScratchDir scratch;
  const std::string stop = scratch / "stop";
  ChildProcess churn([&] {
    execl("/bin/sh", "sh", "-c", kSnapshotChurnScript, "churn", data.other.c_str(), "/volume1/churn", stop.c_str(),
          static_cast<char*>(nullptr));
  });
  // Reads slowed so that a reading lasts about as long as the churn takes
  // to move on: many are overtaken. VELA_BUSY_RUNS asks for more runs.
  const int runs = getenv("VELA_BUSY_RUNS") != nullptr ? atoi(getenv("VELA_BUSY_RUNS")) : 20;
  unsigned restarts = 0;
  {
    ReadThrottle throttle(LoopDevice(volume.ImagePath()), walked * 5);
    for (int run = 0; run < runs; ++run) {
      const CommandResult busy = ThrottledProvider(throttle, SizeArgs({"-vpm"}, data.snapshots));
      EXPECT_EQ(0, busy.status) << busy.err;
      EXPECT_EQ(quietOut.subvols, Parse(busy.out).subvols) << busy.err;
      restarts += Occurrences(busy.err, "reading again");
    }
  }
  EXPECT_GT(restarts, 0) << "the churn should have overtaken some readings";
  printf("%d runs, %u readings overtaken and started over\n", runs, restarts);

  // Slowed so much that the churn overtakes every reading: the run stops
  // at its deadline and says why.
  {
    ReadThrottle throttle(LoopDevice(volume.ImagePath()), walked / 3);
    const auto start = std::chrono::steady_clock::now();
    const CommandResult overtaken = ThrottledProvider(throttle, SizeArgs({"-vpm", "--deadline", "1"}, data.snapshots));
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(3, overtaken.status) << overtaken.err;
    EXPECT_NE(std::string::npos, overtaken.err.find("the file system kept changing")) << overtaken.err;
    // Each note promising another reading is followed by one: the readings
    // the message counts are the notes and the last one.
    unsigned readings = 0;
    const size_t counted = overtaken.err.find("within 1 s (");
    ASSERT_NE(std::string::npos, counted) << overtaken.err;
    ASSERT_EQ(1, sscanf(overtaken.err.c_str() + counted, "within 1 s (%u reading", &readings)) << overtaken.err;
    EXPECT_EQ(readings, Occurrences(overtaken.err, "reading again") + 1) << overtaken.err;
    const Output partial = Parse(overtaken.out);
    EXPECT_TRUE(partial.subvols.empty() && !partial.hasTotal) << overtaken.out;
    EXPECT_LT(seconds, 20) << "one reading after the deadline at most";
  }
  WriteFile(stop, "");
  EXPECT_EQ(0, churn.Wait());
}

// ---------------------------------------------------------------------------
// Flag forms, modes and the relations between the figures.

TEST(SizeProvider, FlagFormsAndPathAndRootIdModesAgreeAndFiguresRelateAsTheyMust) {
  BtrfsImage volume("/volume1", 512ull << 20, {"--csum", "blake2b"});
  const ChurnDataset data = BuildChurnDataset("/volume1", 400);
  const auto& snaps = data.snapshots;
  const std::vector<uint64_t> ids = RootIds(snaps);

  const Output reference = Figures(Provider(SizeArgs({"-v", "-p", "-m"}, snaps)));
  ASSERT_TRUE(ProgressKeptItsWord(reference.progress));
  ASSERT_EQ(ids, reference.Ids());
  const std::vector<std::vector<std::string>> forms = {
      SizeArgs({"-vpm"}, snaps),
      SizeArgs({"-mpv"}, snaps),
      SizeArgs({"-v", "-pm"}, snaps),
      SizeArgs({"-vpm"}, IdArgs("/volume1", ids)),
      SizeArgs({"-v", "-p", "-m"}, IdArgs("/volume1", ids)),
      SizeArgs({"-pm", "-v"}, IdArgs("/volume1/share/small", ids)),  // any path on the volume
  };
  for (const auto& args : forms) {
    SCOPED_TRACE(testing::PrintToString(args));
    const Output out = Figures(Provider(args));
    EXPECT_EQ(reference.subvols, out.subvols);
    EXPECT_EQ(reference.total, out.total);
    EXPECT_TRUE(ProgressKeptItsWord(out.progress));
    ASSERT_FALSE(out.progress.empty());
    EXPECT_EQ(reference.progress.back().bytes, out.progress.back().bytes) << "the same work";
  }

  // Without -m, by path and by root ID.
  const Output exclusive = Figures(Provider(SizeArgs({"-v"}, snaps)));
  ASSERT_EQ(ids, exclusive.Ids());
  EXPECT_EQ(exclusive.subvols, Figures(Provider(SizeArgs({"-v"}, IdArgs("/volume1", ids)))).subvols);
  EXPECT_TRUE(exclusive.progress.empty()) << "no progress without -p";

  // What the first subvolume shares with no one else is its exclusive
  // figure; a marginal figure is never below the exclusive one; deleting
  // them all frees the same whatever the order; one subvolume alone has one
  // figure.
  EXPECT_EQ(exclusive.Bytes()[0], reference.Bytes()[0]);
  for (size_t i = 0; i < snaps.size(); ++i) EXPECT_GE(reference.Bytes()[i], exclusive.Bytes()[i]) << snaps[i];
  EXPECT_GT(reference.total, exclusive.total + 120000) << "data shared among the snapshots only";
  const std::vector<std::string> reversed(snaps.rbegin(), snaps.rend());
  const Output reversedMarginal = Figures(Provider(SizeArgs({"-vm"}, reversed)));
  EXPECT_EQ(reference.total, reversedMarginal.total);
  EXPECT_EQ(Figures(Provider(SizeArgs({"-v"}, {snaps[3]}))).subvols,
            Figures(Provider(SizeArgs({"-vm"}, {snaps[3]}))).subvols);

  // -p without -v prints progress, not figures.
  const CommandResult progressOnly = Provider(SizeArgs({"-p"}, snaps));
  EXPECT_EQ(0, progressOnly.status) << progressOnly.err;
  const Output quiet = Parse(progressOnly.out);
  EXPECT_TRUE(quiet.subvols.empty()) << progressOnly.out;
  EXPECT_EQ(std::vector<std::string>{}, quiet.strays);
  EXPECT_TRUE(ProgressKeptItsWord(quiet.progress));
}

// ---------------------------------------------------------------------------
// Long runs: progress along the way, and SIGTERM.

TEST(SizeProvider, ARunSlowedByItsDiskReportsProgressAlongTheWayAtAModestRate) {
  BtrfsImage volume("/volume1", 512ull << 20);
  const ChurnDataset data = BuildChurnDataset("/volume1", 2000);
  ReadThrottle throttle(LoopDevice(volume.ImagePath()), 1u << 20);

  const auto start = std::chrono::steady_clock::now();
  const CommandResult run = ThrottledProvider(throttle, SizeArgs({"-vpm"}, data.snapshots));
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  const Output out = Figures(run);
  ASSERT_GT(seconds, 1.5) << "the throttle should have made the run last";
  EXPECT_TRUE(ProgressKeptItsWord(out.progress));
  const uint64_t finalEstimate = out.progress.back().bytes;
  EXPECT_TRUE(std::any_of(out.progress.begin(), out.progress.end(), [&](const Progress& p) {
    return !p.estimate && p.bytes > 0 && p.bytes < finalEstimate;
  })) << run.out;
  EXPECT_LE(out.progress.size(), 3 + 5 * seconds) << "about four lines a second at most, over " << seconds << " s\n"
                                                  << run.out;
}

TEST(SizeProvider, SigtermEndsARunningProviderAtOnceAndLeavesNothingBehind) {
  BecomeSubreaper();
  BtrfsImage volume("/volume1", 512ull << 20);
  const ChurnDataset data = BuildChurnDataset("/volume1", 2000);
  // Slow enough that the whole run would take many seconds.
  ReadThrottle throttle(LoopDevice(volume.ImagePath()), 256u << 10);

  int out[2];
  ASSERT_EQ(0, pipe2(out, O_CLOEXEC));
  const std::string procs = throttle.Procs();
  std::vector<std::string> args = {kProvider, "subvolume", "size", "-vpm"};
  args.insert(args.end(), data.snapshots.begin(), data.snapshots.end());
  struct Reaped {  // killed and reaped when the test stops early
    pid_t pid;
    ~Reaped() {
      if (pid > 0 && kill(pid, SIGKILL) == 0) WaitForExit(pid, 60000);
    }
  } child{fork()};
  const pid_t pid = child.pid;
  ASSERT_LE(0, pid);
  if (pid == 0) {
    dup2(out[1], 1);
    const int procsFd = open(procs.c_str(), O_WRONLY);
    if (procsFd < 0 || write(procsFd, "0\n", 2) != 2) _exit(126);
    close(procsFd);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);

  // Once the first progress line is out, the run is under way.
  std::string printed;
  char buffer[4096];
  while (printed.find('\n') == std::string::npos && WaitReadable(out[0], 30000)) {
    const ssize_t n = read(out[0], buffer, sizeof(buffer));
    if (n <= 0) break;
    printed.append(buffer, static_cast<size_t>(n));
  }
  ASSERT_EQ(0u, printed.rfind("exclusive ", 0)) << printed;
  const auto signalled = std::chrono::steady_clock::now();
  ASSERT_EQ(0, kill(pid, SIGTERM));
  int status = WaitForExit(pid, 6000);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - signalled).count();
  if (status == -1) {
    kill(pid, SIGKILL);
    status = WaitForExit(pid, 60000);
    ADD_FAILURE() << "still running 6 s after SIGTERM";
  }
  child.pid = -1;
  EXPECT_EQ(128 + SIGTERM, status) << "ended by the signal itself, after " << seconds << " s";
  ssize_t n;
  while ((n = read(out[0], buffer, sizeof(buffer))) > 0) printed.append(buffer, static_cast<size_t>(n));
  close(out[0]);
  const Output partial = Parse(printed);
  EXPECT_TRUE(partial.subvols.empty() && !partial.hasTotal) << "it did not finish first:\n" << printed;

  for (int i = 0; i < 300 && HasChildren(); ++i) WaitForExit(-1, 10);
  EXPECT_FALSE(HasChildren()) << "a process of the provider was left behind";
}

// ---------------------------------------------------------------------------
// Refusals: a message on stderr, a non-zero status and nothing on stdout.

constexpr int kUsage = 2;
constexpr int kFailure = -1;  // any non-zero status but a time-out's

void ExpectRefused(const std::vector<std::string>& args, int status, const std::string& mentioned) {
  SCOPED_TRACE(testing::PrintToString(args));
  const CommandResult run = Provider(args);
  if (status == kFailure) {
    EXPECT_NE(0, run.status);
    EXPECT_NE(137, run.status) << "killed after hanging";
  } else {
    EXPECT_EQ(status, run.status) << run.err;
  }
  EXPECT_EQ("", run.out);
  EXPECT_NE("", run.err);
  EXPECT_NE(std::string::npos, run.err.find(mentioned)) << run.err;
}

TEST(SizeProviderRefusals, UsageErrorsExitWithTwoAndNameWhatIsWrong) {
  ExpectRefused({}, kUsage, "no command");
  ExpectRefused({"frobnicate"}, kUsage, "unknown command 'frobnicate'");
  ExpectRefused({"subvolume"}, kUsage, "size");
  ExpectRefused({"subvolume", "list", "/"}, kUsage, "unknown command 'subvolume list'");
  ExpectRefused({"subvolume", "size"}, kUsage, "no subvolume");
  ExpectRefused({"subvolume", "size", "-v"}, kUsage, "no subvolume");
  ExpectRefused({"subvolume", "size", "-x", "/"}, kUsage, "-x");
  ExpectRefused({"subvolume", "size", "-vq", "/"}, kUsage, "'-q' in '-vq'");
  ExpectRefused({"subvolume", "size", "--verbose", "/"}, kUsage, "--verbose");
  ExpectRefused({"subvolume", "size", "-r"}, kUsage, "-r needs");
  ExpectRefused({"subvolume", "size", "-vpm", "-r", "/"}, kUsage, "-r needs");
  for (const char* id : {"abc", "12x", "-5", "+5", "0256", "00", "99999999999999999999", "99999999999999999999999"}) {
    ExpectRefused({"subvolume", "size", "-r", "/", "257", id}, kUsage, std::string("'") + id + "' is not a root ID");
  }
  for (const char* seconds : {"0", "-1", "1.5", "86401", "", "x"}) {
    ExpectRefused({"subvolume", "size", "--deadline", seconds, "/"}, kUsage, "--deadline");
    ExpectRefused({"subvolume", "size", std::string("--deadline=") + seconds, "/"}, kUsage, "--deadline");
  }
  ExpectRefused({"subvolume", "size", "-v", "--deadline"}, kUsage, "--deadline");
  ExpectRefused({"subvolume", "size", "-v", "--space-map"}, kUsage, "--space-map needs a file name");
  ExpectRefused({"subvolume", "size", "-v", "--space-map=", "/"}, kUsage, "--space-map needs a file name");
  for (const char* rows : {"x", "-1", "01", "4294967296"}) {
    ExpectRefused({"subvolume", "size", "--space-map-file-rows", rows, "/"}, kUsage, "--space-map-file-rows");
  }

  for (const std::vector<std::string>& help : {std::vector<std::string>{"--help"}, {"subvolume", "size", "--help"}}) {
    const CommandResult shown = Provider(help);
    EXPECT_EQ(0, shown.status);
    EXPECT_NE(std::string::npos, shown.out.find("subvolume size")) << shown.out;
  }
  EXPECT_NE(std::string::npos, Provider({"subvolume", "size", "--help"}).out.find("--deadline"));
}

TEST(SizeProviderRefusals, WhatIsNoMeasurableSubvolumeOfOneBtrfsIsRefused) {
  BtrfsImage volume1("/volume1", BtrfsImage::kDefaultSize, {"--csum", "sha256"});
  BtrfsImage volume2("/volume2");
  const std::string share = volume1.CreateSubvolume("share");
  MustRun({"mkdir", "-p", "/volume1/@snapshots/share", share + "/dir"});
  volume1.Snapshot(share, "/volume1/@snapshots/share/s1");
  volume1.Snapshot(share, "/volume1/@snapshots/share/s2");
  ASSERT_EQ(0, symlink("/volume1/@snapshots/share/s1", "/volume1/latest"));
  const std::string other = volume2.CreateSubvolume("other");
  ASSERT_EQ(0, mount("tmpfs", "/volume3", "tmpfs", 0, nullptr));
  ASSERT_EQ(0, mkdir("/volume3/dir", 0755));
  const std::string s1 = "/volume1/@snapshots/share/s1";
  const std::string s1Id = std::to_string(RootId(s1));

  // The same subvolumes are fine, so each refusal is about what it changes.
  EXPECT_EQ(2u, Figures(Provider({"subvolume", "size", "-v", s1, "/volume1/@snapshots/share/s2"})).subvols.size());

  ExpectRefused({"subvolume", "size", "-v", "/volume3/dir"}, kFailure, "/volume3/dir");
  ExpectRefused({"subvolume", "size", "-v", "-r", "/volume3", "5"}, kFailure, "/volume3");
  ExpectRefused({"subvolume", "size", "-v", s1, "/volume3/dir"}, kFailure, "/volume3/dir");
  ExpectRefused({"subvolume", "size", "-v", "/volume1/missing"}, kFailure, "/volume1/missing");
  ExpectRefused({"subvolume", "size", "-v", share + "/dir"}, kFailure, share + "/dir");
  ExpectRefused({"subvolume", "size", "-v", "-r", "/volume1", "99999"}, kFailure, "99999");
  ExpectRefused({"subvolume", "size", "-v", "-r", "/volume1", "2"}, kFailure, "2");  // the extent tree
  ExpectRefused({"subvolume", "size", "-v", "-r", "/volume1", "0"}, kFailure, "0");
  ExpectRefused({"subvolume", "size", "-v", s1, other}, kFailure, "");
  ExpectRefused({"subvolume", "size", "-v", s1, share, s1}, kFailure, "");
  ExpectRefused({"subvolume", "size", "-v", s1, "/volume1/latest"}, kFailure, "");
  ExpectRefused({"subvolume", "size", "-vpm", "-r", "/volume1", s1Id, "5", s1Id}, kFailure, s1Id);
  // A map that cannot be written is said, and costs only the map: the
  // figures come all the same, with their own status.
  const CommandResult unmapped = Provider({"subvolume", "size", "-v", "--space-map", "/volume1/no-such-dir/map", s1});
  EXPECT_EQ(4, unmapped.status) << unmapped.err;
  EXPECT_NE(std::string::npos, unmapped.err.find("cannot write the space map /volume1/no-such-dir/map")) << unmapped.err;
  EXPECT_EQ(Provider({"subvolume", "size", "-v", s1}).out, unmapped.out);
  umount2("/volume3", MNT_DETACH);

  // Output that cannot be written is no success: a full device, a closed
  // standard output, a reader that went away, for figures, progress and help
  // alike.
  for (const char* redirect : {">/dev/full", ">&-", "closed pipe"}) {
    for (const std::vector<std::string>& args : {SizeArgs({"-v"}, {s1}), SizeArgs({"-p"}, {s1}), {"--help"}}) {
      SCOPED_TRACE(redirect + testing::PrintToString(args));
      CommandResult run;
      if (std::string(redirect) == "closed pipe") {
        run = ProviderIntoAClosedPipe(args);
      } else {
        std::vector<std::string> argv = {"sh", "-c", std::string("exec \"$@\" ") + redirect, "sh", kProvider};
        argv.insert(argv.end(), args.begin(), args.end());
        run = RunCommand(argv);
      }
      EXPECT_EQ(1, run.status);
      EXPECT_NE(std::string::npos, run.err.find("cannot write to standard output")) << run.err;
    }
  }
}

// ---------------------------------------------------------------------------
// Damaged tree blocks.

// Offsets in a tree block header.
constexpr size_t kCsumEnd = 32, kFsid = 32, kGeneration = 80, kNritems = 96, kLevel = 100, kHeaderSize = 101;
constexpr size_t kItemOffset = 17;  // in an item, after its key

template <typename T>
void Put(std::string& block, size_t at, T value) {
  memcpy(block.data() + at, &value, sizeof(value));  // little-endian host, as on disk
}
template <typename T>
T Get(const std::string& block, size_t at) {
  T value;
  memcpy(&value, block.data() + at, sizeof(value));
  return value;
}

void Reseal(std::string& block) {
  Put<uint32_t>(block, 0,
                btrfs::Crc32c(reinterpret_cast<const uint8_t*>(block.data()) + kCsumEnd, block.size() - kCsumEnd));
}

class SizeProviderDamagedBlocks : public testing::Test {
 protected:
  static constexpr uint64_t kNodeSize = 16384;

  void SetUp() override {
    data_ = BuildChurnDataset("/volume1", 600);
    s1Id_ = RootId(data_.snapshots[0]);
    // A leaf only s1 reaches: nothing else would make the provider read it.
    std::set<uint64_t> elsewhere;
    for (uint64_t id : AllRootIds("/volume1")) {
      if (id == s1Id_) continue;
      for (const auto& block : TreeBlocks(volume_.ImagePath(), id)) elsewhere.insert(block.bytenr);
    }
    std::vector<uint64_t> own;
    for (const auto& block : TreeBlocks(volume_.ImagePath(), s1Id_)) {
      if (block.level > 0 && root_ == 0) root_ = block.bytenr;
      if (block.level == 0 && elsewhere.count(block.bytenr) == 0) own.push_back(block.bytenr);
    }
    ASSERT_NE(0u, root_) << "s1's tree should have more than one level";
    ASSERT_GE(own.size(), 2u) << "s1 should have leaves of its own";
    leaf_ = own[0];
    otherLeaf_ = own[1];
    for (uint64_t block : {leaf_, otherLeaf_, root_}) {
      copies_[block] = PhysicalCopies(volume_.ImagePath(), block);
      ASSERT_EQ(2u, copies_[block].size()) << "metadata is kept twice";
      for (uint64_t at : copies_[block]) saved_[at] = ReadAt(at);
    }
    baseline_ = Provider(SizeArgs({"-vm"}, data_.snapshots));
    ASSERT_EQ(0, baseline_.status) << baseline_.err;
  }

  void TearDown() override {
    // The running file system must never meet the damage.
    for (const auto& [at, bytes] : saved_) WriteAt(at, bytes);
  }

  std::string ReadAt(uint64_t at) {
    std::string bytes(kNodeSize, '\0');
    const int fd = open(volume_.ImagePath().c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(static_cast<ssize_t>(kNodeSize), pread(fd, bytes.data(), kNodeSize, static_cast<off_t>(at)));
    close(fd);
    return bytes;
  }
  void WriteAt(uint64_t at, const std::string& bytes) {
    const int fd = open(volume_.ImagePath().c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(at)));
    fdatasync(fd);
    close(fd);
  }
  // Puts `bytes` in place of every copy of `block`.
  void Replace(uint64_t block, const std::string& bytes) {
    for (uint64_t at : copies_.at(block)) WriteAt(at, bytes);
  }
  void Restore(uint64_t block) {
    for (uint64_t at : copies_.at(block)) WriteAt(at, saved_.at(at));
  }
  const std::string& Original(uint64_t block) { return saved_.at(copies_.at(block)[0]); }

  BtrfsImage volume_{"/volume1", 512ull << 20};
  ChurnDataset data_;
  uint64_t s1Id_ = 0;
  uint64_t root_ = 0, leaf_ = 0, otherLeaf_ = 0;
  std::map<uint64_t, std::vector<uint64_t>> copies_;
  std::map<uint64_t, std::string> saved_;
  CommandResult baseline_;
};

TEST_F(SizeProviderDamagedBlocks, OneDamagedCopyIsPassedOverForTheOther) {
  for (int bad = 0; bad < 2; ++bad) {
    SCOPED_TRACE("damaged copy " + std::to_string(bad + 1));
    std::string damaged = saved_.at(copies_.at(leaf_)[bad]);
    for (size_t i = 1000; i < 1064; ++i) damaged[i] = static_cast<char>(~damaged[i]);
    WriteAt(copies_.at(leaf_)[bad], damaged);
    const CommandResult run = Provider(SizeArgs({"-vm"}, data_.snapshots));
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ(baseline_.out, run.out);
    Restore(leaf_);
  }
}

TEST_F(SizeProviderDamagedBlocks, EveryKindOfBadBlockIsReportedWithItsAddressAndNoFigures) {
  // Sanity of the crafting: the saved leaf's checksum is what Reseal writes.
  std::string resealed = Original(leaf_);
  Reseal(resealed);
  ASSERT_EQ(Original(leaf_), resealed) << "not a crc32c file system?";
  ASSERT_EQ(0, Get<uint8_t>(Original(leaf_), kLevel));
  ASSERT_GT(Get<uint32_t>(Original(leaf_), kNritems), 0u);

  struct Damage {
    std::string what;
    uint64_t block;
    std::function<void(std::string&)> change;
    bool reseal;
  };
  const std::vector<Damage> damages = {
      {"flipped bytes in a leaf", leaf_, [](std::string& b) { for (size_t i = 4000; i < 4100; ++i) b[i] ^= 0x5A; }, false},
      {"flipped bytes in the tree's root node", root_, [](std::string& b) { for (size_t i = 200; i < 260; ++i) b[i] ^= 0x5A; }, false},
      {"another leaf at this address", leaf_, [&](std::string& b) { b = Original(otherLeaf_); }, false},
      {"a newer generation than its parent recorded", leaf_,
       [](std::string& b) { Put<uint64_t>(b, kGeneration, Get<uint64_t>(b, kGeneration) + 1); }, true},
      {"a leaf claiming to be a node", leaf_, [](std::string& b) { Put<uint8_t>(b, kLevel, 1); }, true},
      {"another file system's ID", leaf_, [](std::string& b) { b[kFsid + 3] ^= 0x01; }, true},
      {"more items than the block holds", leaf_, [](std::string& b) { Put<uint32_t>(b, kNritems, 0xFFFFFFFFu); }, true},
      {"an item whose data lies beyond the block", leaf_,
       [](std::string& b) { Put<uint32_t>(b, kHeaderSize + kItemOffset, static_cast<uint32_t>(kNodeSize)); }, true},
  };
  for (const Damage& damage : damages) {
    SCOPED_TRACE(damage.what);
    std::string bytes = Original(damage.block);
    damage.change(bytes);
    if (damage.reseal) Reseal(bytes);
    Replace(damage.block, bytes);
    for (const char* flags : {"-vpm", "-v"}) {
      const CommandResult run = Provider(SizeArgs({flags}, data_.snapshots));
      EXPECT_NE(0, run.status) << flags << ": " << run.out;
      EXPECT_NE(137, run.status) << flags << ": killed after hanging";
      const Output out = Parse(run.out);
      EXPECT_TRUE(out.subvols.empty() && !out.hasTotal && out.strays.empty()) << flags << ": " << run.out;
      if (std::string(flags) == "-v") {
        EXPECT_EQ("", run.out);
      }
      char hex[32];
      snprintf(hex, sizeof(hex), "%llx", static_cast<unsigned long long>(damage.block));
      EXPECT_TRUE(run.err.find(std::to_string(damage.block)) != std::string::npos ||
                  run.err.find(hex) != std::string::npos)
          << flags << ": the message should name block " << damage.block << ": " << run.err;
    }
    Restore(damage.block);
  }
  // Undamaged again, the same figures as before: the failures were the damage.
  const CommandResult again = Provider(SizeArgs({"-vm"}, data_.snapshots));
  EXPECT_EQ(0, again.status) << again.err;
  EXPECT_EQ(baseline_.out, again.out);
}

}  // namespace
}  // namespace vela::test
