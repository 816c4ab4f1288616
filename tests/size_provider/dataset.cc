#include "dataset.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "support/command.h"
#include "support/scratch_dir.h"

namespace vela::test {

namespace {

// Runs with $1 = mount point, $2 = number of small files. Every snapshot
// follows a change of a different kind, so that each one holds data and tree
// blocks that it shares with different neighbours.
constexpr char kChurnScript[] = R"(set -eu
M=$1
S=$M/share
N=$M/@snapshots/share
btrfs -q subvolume create "$S"
btrfs -q subvolume create "$M/other"
mkdir -p "$N" "$S/small" "$S/zip"
btrfs property set "$S/zip" compression zstd
snap() { btrfs -q subvolume snapshot -r "$S" "$N/$1"; }
i=0
while [ $i -lt "$2" ]; do echo "small file $i" > "$S/small/f$i"; i=$((i + 1)); done
for f in 1 2 3 4 5 6; do head -c 300000 /dev/urandom > "$S/big$f"; done
head -c 2000000 /dev/urandom > "$S/large"
seq 1 200000 > "$S/zip/text1"
fallocate -l 1M "$S/prealloc"
snap s1
# Rewritten blocks in the middle of a large extent, an append, a deletion,
# and a seventh of the small files gone (most leaves change).
dd if=/dev/urandom of="$S/large" bs=4096 seek=100 count=30 conv=notrunc status=none
head -c 50000 /dev/urandom >> "$S/big1"
rm "$S/big2"
i=0
while [ $i -lt "$2" ]; do [ $((i % 7)) -ne 0 ] || rm "$S/small/f$i"; i=$((i + 1)); done
snap s2
# Reflinks inside the share and into the other share; a truncation that
# keeps the whole extent; a write into the preallocated extent; more
# compressed data.
cp --reflink=always "$S/big3" "$S/big3.copy"
cp --reflink=always "$S/big4" "$M/other/big4"
truncate -s 100000 "$S/big5"
dd if=/dev/urandom of="$S/prealloc" bs=4096 seek=10 count=5 conv=notrunc status=none
seq 1 100000 | sed 's/$/ x/' > "$S/zip/text2"
snap s3
rm "$S/big3" "$S/zip/text1"
head -c 120000 /dev/urandom > "$S/new1"
i=0
while [ $i -lt 500 ]; do echo "more $i" > "$S/small/g$i"; i=$((i + 1)); done
snap s4
# The reflinked copy is partly rewritten; a file emptied; a writable
# snapshot of the oldest snapshot changes a little (it shares s1's tree).
dd if=/dev/urandom of="$S/big3.copy" bs=4096 seek=5 count=10 conv=notrunc status=none
truncate -s 0 "$S/big6"
btrfs -q subvolume snapshot "$N/s1" "$M/restored"
rm "$M/restored/big1"
echo changed >> "$M/restored/small/f1"
snap s5
# Data back from a snapshot into the share, and into the top level.
rm "$S/big3.copy" "$S/large"
cp --reflink=always "$N/s1/big2" "$S/big2.back"
cp --reflink=always "$N/s2/big1" "$M/top-copy"
snap s6
head -c 70000 /dev/urandom > "$S/new2"
i=0
while [ $i -lt "$2" ]; do
  if [ $((i % 5)) -eq 0 ] && [ -e "$S/small/f$i" ]; then echo changed >> "$S/small/f$i"; fi
  i=$((i + 1))
done
snap s7
snap doomed
rm "$S/new2" "$S/small/f1"
snap s8
btrfs filesystem sync "$M"
)";

uint64_t ParseU64(const std::string& text, const std::string& what) {
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = strtoull(text.c_str(), &end, 10);
  if (text.empty() || errno != 0 || *end != '\0') throw std::runtime_error("not a number in " + what + ": " + text);
  return value;
}

}  // namespace

ChurnDataset BuildChurnDataset(const std::string& mount, int smallFiles) {
  MustRun({"sh", "-c", kChurnScript, "churn", mount, std::to_string(smallFiles)});
  ChurnDataset dataset;
  dataset.share = mount + "/share";
  dataset.other = mount + "/other";
  dataset.restored = mount + "/restored";
  const std::string snaps = mount + "/@snapshots/share/";
  for (int i = 1; i <= 8; ++i) dataset.snapshots.push_back(snaps + "s" + std::to_string(i));
  dataset.doomed = snaps + "doomed";
  return dataset;
}

uint64_t RootId(const std::string& path) {
  std::string out = MustRun({"btrfs", "inspect-internal", "rootid", path});
  while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
  return ParseU64(out, "rootid of " + path);
}

std::vector<uint64_t> AllRootIds(const std::string& mount) {
  std::vector<uint64_t> ids = {5};
  std::istringstream lines(MustRun({"btrfs", "subvolume", "list", mount}));
  std::string line;
  while (std::getline(lines, line)) {
    // "ID 257 gen 11 top level 5 path other"
    std::istringstream words(line);
    std::string id, value;
    if (words >> id >> value && id == "ID") ids.push_back(ParseU64(value, "subvolume list"));
  }
  return ids;
}

std::map<std::string, Qgroup> ReadQgroups(const std::string& mount) {
  const CommandResult shown = RunCommand({"btrfs", "qgroup", "show", "--raw", mount});
  if (shown.status != 0 || shown.err.find("inconsistent") != std::string::npos) {
    throw std::runtime_error("btrfs qgroup show: " + shown.err + shown.out);
  }
  // Rows are "0/257  319488  16384  other"; header and ruler lines do not
  // begin with a level/id pair.
  std::map<std::string, Qgroup> groups;
  std::istringstream lines(shown.out);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream words(line);
    std::string id, referenced, exclusive;
    if (!(words >> id >> referenced >> exclusive)) continue;
    const size_t slash = id.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == id.size() ||
        id.find_first_not_of("0123456789/") != std::string::npos) {
      continue;
    }
    groups[id] = {ParseU64(referenced, line), ParseU64(exclusive, line)};
  }
  if (groups.empty()) throw std::runtime_error("no quota group in: " + shown.out);
  return groups;
}

namespace {

// Groups "L/k" holding the subvolumes of each set, by name, then the rescan.
std::map<std::string, Qgroup> QuotaGroups(const std::string& mount,
                                          const std::map<std::string, std::vector<uint64_t>>& groups) {
  MustRun({"btrfs", "quota", "enable", mount});
  MustRun({"btrfs", "quota", "rescan", "-W", mount});
  for (const auto& [group, ids] : groups) {
    MustRun({"btrfs", "qgroup", "create", group, mount});
    for (uint64_t id : ids) MustRun({"btrfs", "qgroup", "assign", "--no-rescan", "0/" + std::to_string(id), group, mount});
  }
  MustRun({"btrfs", "quota", "rescan", "-w", mount});
  return ReadQgroups(mount);
}

}  // namespace

std::map<std::string, Qgroup> QuotaGroupsOfPrefixes(const std::string& mount,
                                                    const std::vector<std::vector<uint64_t>>& orders) {
  std::map<std::string, std::vector<uint64_t>> groups;
  for (size_t level = 1; level <= orders.size(); ++level) {
    const std::vector<uint64_t>& ids = orders[level - 1];
    for (size_t k = 1; k <= ids.size(); ++k) {
      groups[std::to_string(level) + "/" + std::to_string(k)].assign(ids.begin(), ids.begin() + k);
    }
  }
  return QuotaGroups(mount, groups);
}

std::map<std::string, Qgroup> QuotaGroupsOfSets(const std::string& mount, const std::vector<std::vector<uint64_t>>& sets) {
  std::map<std::string, std::vector<uint64_t>> groups;
  for (size_t k = 1; k <= sets.size(); ++k) groups["1/" + std::to_string(k)] = sets[k - 1];
  return QuotaGroups(mount, groups);
}

LoopDevices::~LoopDevices() {
  while (!devices_.empty()) Detach(devices_.back());
}

std::string LoopDevices::Attach(const std::string& image, uint64_t bytes) {
  if (bytes > 0) MustRun({"truncate", "-s", std::to_string(bytes), image});
  std::string device = MustRun({"losetup", "--find", "--show", image});
  while (!device.empty() && device.back() == '\n') device.pop_back();
  devices_.push_back(device);
  return device;
}

void LoopDevices::Detach(const std::string& device) {
  // A device the kernel still lists would stand in for the next file system
  // with the same ID; it is not an error when the kernel never listed it.
  RunCommand({"btrfs", "device", "scan", "--forget", device});
  RunCommand({"losetup", "-d", device});
  devices_.erase(std::remove(devices_.begin(), devices_.end(), device), devices_.end());
}

std::vector<TreeBlockInfo> TreeBlocks(const std::string& image, uint64_t rootId) {
  std::vector<TreeBlockInfo> blocks;
  std::istringstream lines(
      MustRun({"btrfs", "inspect-internal", "dump-tree", "--hide-names", "-t", std::to_string(rootId), image}));
  std::string line;
  while (std::getline(lines, line)) {
    // "node 32178176 level 1 items 80 free space 413 generation 9 owner 258"
    // "leaf 30441472 items 156 free space 6781 generation 7 owner 256"
    // (each block also has a "flags" line, which has no "items").
    std::istringstream words(line);
    std::string kind, bytenr, word, level;
    if (!(words >> kind >> bytenr >> word) || (kind != "node" && kind != "leaf")) continue;
    if (kind == "leaf" && word == "items") {
      blocks.push_back({ParseU64(bytenr, line), 0});
    } else if (kind == "node" && word == "level" && words >> level) {
      blocks.push_back({ParseU64(bytenr, line), static_cast<int>(ParseU64(level, line))});
    }
  }
  if (blocks.empty()) throw std::runtime_error("no block in tree " + std::to_string(rootId));
  return blocks;
}

std::map<uint64_t, int> RootLevels(const std::string& image) {
  std::map<uint64_t, int> levels;
  std::istringstream lines(MustRun({"btrfs", "inspect-internal", "dump-tree", "-r", image}));
  std::string line;
  while (std::getline(lines, line)) {
    // "file tree key (258 ROOT_ITEM 9) 32444416 level 2"
    const std::string prefix = "file tree key (";
    const size_t start = line.find(prefix);
    const size_t level = line.rfind(" level ");
    if (start == std::string::npos || level == std::string::npos) continue;
    const size_t idEnd = line.find(' ', start + prefix.size());
    levels[ParseU64(line.substr(start + prefix.size(), idEnd - start - prefix.size()), line)] =
        static_cast<int>(ParseU64(line.substr(level + 7), line));
  }
  return levels;
}

std::vector<uint64_t> PhysicalCopies(const std::string& image, uint64_t logical) {
  std::vector<uint64_t> copies;
  std::istringstream lines(MustRun({"btrfs-map-logical", "-l", std::to_string(logical), image}));
  std::string line;
  while (std::getline(lines, line)) {
    // "mirror 1 logical 30654464 physical 39043072 device img"
    std::istringstream words(line);
    std::string mirror, n, logicalWord, logicalValue, physicalWord, physical;
    if (words >> mirror >> n >> logicalWord >> logicalValue >> physicalWord >> physical && mirror == "mirror" &&
        physicalWord == "physical" && ParseU64(logicalValue, line) == logical) {
      copies.push_back(ParseU64(physical, line));
    }
  }
  if (copies.empty()) throw std::runtime_error("no copy of block " + std::to_string(logical));
  return copies;
}

std::string LoopDevice(const std::string& image) {
  // "/dev/loop3: []: (/tmp/btrfs.a1b2c3)"
  const std::string out = MustRun({"losetup", "-j", image});
  const size_t colon = out.find(':');
  if (colon == std::string::npos || out.compare(0, 9, "/dev/loop") != 0) {
    throw std::runtime_error("no loop device for " + image + ": " + out);
  }
  return out.substr(0, colon);
}

ReadThrottle::ReadThrottle(const std::string& device, uint64_t bytesPerSecond) {
  // Control groups are not private to the sandbox: the name is unique to this
  // process, and the group goes away with the object.
  static int count = 0;
  const std::string hierarchy = "/sys/fs/cgroup/blkio";
  if (access((hierarchy + "/cgroup.procs").c_str(), W_OK) != 0) {
    throw std::runtime_error("no writable blkio control group hierarchy at " + hierarchy);
  }
  path_ = hierarchy + "/vela-test-" + std::to_string(getpid()) + "-" + std::to_string(++count);
  if (mkdir(path_.c_str(), 0755) != 0) throw std::runtime_error("mkdir " + path_ + ": " + strerror(errno));
  struct stat st;
  if (stat(device.c_str(), &st) != 0 || !S_ISBLK(st.st_mode)) {
    rmdir(path_.c_str());
    throw std::runtime_error(device + " is not a block device");
  }
  try {
    WriteFile(path_ + "/blkio.throttle.read_bps_device", std::to_string(major(st.st_rdev)) + ":" +
                                                            std::to_string(minor(st.st_rdev)) + " " +
                                                            std::to_string(bytesPerSecond) + "\n");
  } catch (...) {
    rmdir(path_.c_str());
    throw;
  }
}

ReadThrottle::~ReadThrottle() {
  // A process that just ended may still be leaving the group.
  for (int i = 0; i < 200 && rmdir(path_.c_str()) != 0 && errno == EBUSY; ++i) usleep(10000);
}

}  // namespace vela::test
