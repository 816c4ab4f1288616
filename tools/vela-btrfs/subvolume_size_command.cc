#include "subvolume_size_command.h"

#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <set>
#include <thread>

#include "committed_file_system.h"
#include "device_set.h"
#include "disk_format.h"
#include "line_writer.h"
#include "progress_printer.h"
#include "provider_error.h"
#include "space_map_collector.h"
#include "base/numbers.h"
#include "base/unique_fd.h"
#include "usage_walker.h"

namespace vela::btrfs {

using vela::base::UniqueFd;

const char kSubvolumeSizeUsage[] =
    "usage: vela-btrfs subvolume size [-v] [-p] [-m] [--deadline SECONDS] [--space-map FILE] <subvolume-path>...\n"
    "       vela-btrfs subvolume size [-v] [-p] [-m] [--deadline SECONDS] [--space-map FILE] -r <mount-path> <root-id>...\n"
    "\n"
    "Prints how many bytes the given subvolumes take: data extents (their whole\n"
    "on-disk size) and metadata tree blocks.\n"
    "\n"
    "  -v  one line \"subvol(ROOTID) BYTES bytes\" per subvolume, in the given order\n"
    "  -p  progress lines \"exclusive BYTES bytes\" (estimate of the work) and\n"
    "      \"processed BYTES bytes\" (work done)\n"
    "  -m  marginal figures: bytes of a subvolume that no other subvolume references\n"
    "      except those given before it; the running sum over the first k lines\n"
    "      is what deleting those k subvolumes together frees. Without -m each\n"
    "      figure is what the subvolume alone references (exclusive).\n"
    "  -r  the first operand is a path on the file system, the others root IDs\n"
    "      (decimal, without leading zeros)\n"
    "  --deadline SECONDS\n"
    "      when the file system changes under the reading, it starts over on the\n"
    "      newest commit until this many seconds have passed since the start\n"
    "      (default 60)\n"
    "  --space-map FILE\n"
    "      also writes, from the same reading, the space map of the given\n"
    "      subvolumes in the given order: bytes per set of them referencing a\n"
    "      data extent or tree block, and the files behind the data (an SQLite\n"
    "      database, mode 0600, replaced atomically). The lines printed stay\n"
    "      the same.\n"
    "  --space-map-file-rows N\n"
    "      keeps at most N rows of files in the map, the largest, and marks its\n"
    "      file lists incomplete beyond them (default 1000000)\n"
    "\n"
    "A last line \"total BYTES bytes\" gives the sum. Reads the committed metadata\n"
    "from the devices (needs root); changes nothing.\n"
    "\n"
    "Exit status: 0 done; 1 failed (a damaged file system, an unsupported one, a\n"
    "wrong subvolume, output that cannot be written); 2 usage error; 3 the file\n"
    "system kept changing until the deadline; 4 every figure printed, but the\n"
    "space map could not be written.\n";

namespace {

using Clock = std::chrono::steady_clock;

// A deadline of more than a day is a mistake, not a wish.
constexpr uint64_t kMaxDeadlineSeconds = 86400;

UniqueFd OpenOnBtrfs(const std::string& path, int flags) {
  UniqueFd fd(open(path.c_str(), flags | O_RDONLY | O_CLOEXEC));
  if (!fd.Valid()) {
    if (errno == ENOTDIR) Fail(ProviderError::Kind::kRefused, "%s is not a subvolume", path.c_str());
    Fail(ProviderError::Kind::kRefused, "cannot open %s: %s", path.c_str(), strerror(errno));
  }
  struct statfs fs;
  if (fstatfs(fd.Get(), &fs) != 0) {
    Fail(ProviderError::Kind::kSystem, "cannot stat the file system of %s: %s", path.c_str(), strerror(errno));
  }
  if (fs.f_type != static_cast<decltype(fs.f_type)>(BTRFS_SUPER_MAGIC)) {
    Fail(ProviderError::Kind::kRefused, "%s is not on a btrfs file system", path.c_str());
  }
  return fd;
}

struct Fsid {
  uint8_t bytes[kFsidSize];
  bool operator!=(const Fsid& other) const { return memcmp(bytes, other.bytes, kFsidSize) != 0; }
};

Fsid FsidOf(int fd, const std::string& path) {
  btrfs_ioctl_fs_info_args info{};
  if (ioctl(fd, BTRFS_IOC_FS_INFO, &info) != 0) {
    Fail(ProviderError::Kind::kSystem, "cannot read the file system ID of %s: %s", path.c_str(), strerror(errno));
  }
  Fsid fsid;
  static_assert(sizeof info.fsid == kFsidSize, "file system IDs are 16 bytes");
  memcpy(fsid.bytes, info.fsid, kFsidSize);
  return fsid;
}

uint64_t RootIdOfSubvolume(int fd, const std::string& path) {
  struct stat st;
  if (fstat(fd, &st) != 0) Fail(ProviderError::Kind::kSystem, "cannot stat %s: %s", path.c_str(), strerror(errno));
  if (st.st_ino != BTRFS_FIRST_FREE_OBJECTID || !S_ISDIR(st.st_mode)) {
    Fail(ProviderError::Kind::kRefused, "%s is not a subvolume", path.c_str());
  }
  btrfs_ioctl_ino_lookup_args lookup{};
  lookup.treeid = 0;
  lookup.objectid = BTRFS_FIRST_FREE_OBJECTID;
  if (ioctl(fd, BTRFS_IOC_INO_LOOKUP, &lookup) != 0) {
    Fail(ProviderError::Kind::kSystem, "cannot look up the root ID of %s: %s", path.c_str(), strerror(errno));
  }
  return lookup.treeid;
}

// Root IDs are written one way only: decimal digits without a sign or
// leading zeros, so that "0256" is not taken for a subvolume it does not
// name.
uint64_t RootIdOperand(const std::string& text) {
  uint64_t value = 0;
  if (!base::ParseCanonicalDecimal(text, value)) Fail(ProviderError::Kind::kUsage, "'%s' is not a root ID", text.c_str());
  if (!IsSubvolumeTree(value)) {
    Fail(ProviderError::Kind::kRefused, "%s is not the root ID of a subvolume", text.c_str());
  }
  return value;
}

std::chrono::seconds ParseDeadline(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = strtoull(text.c_str(), &end, 10);
  if (text.empty() || text[0] < '1' || text[0] > '9' || *end != '\0' || errno == ERANGE || value > kMaxDeadlineSeconds) {
    Fail(ProviderError::Kind::kUsage, "--deadline takes a number of seconds from 1 to %llu, not '%s'",
         static_cast<unsigned long long>(kMaxDeadlineSeconds), text.c_str());
  }
  return std::chrono::seconds(value);
}

// A long option with a value, "--name VALUE" or "--name=VALUE", at
// args[i]: true with the value (and i at the last argument used), false
// when args[i] is not that option.
bool LongOption(const std::vector<std::string>& args, size_t& i, const char* name, const char* needs,
                std::string* value) {
  const std::string& arg = args[i];
  const size_t length = strlen(name);
  if (arg == name) {
    if (i + 1 == args.size()) Fail(ProviderError::Kind::kUsage, "%s needs %s", name, needs);
    *value = args[++i];
    return true;
  }
  if (arg.compare(0, length, name) == 0 && arg.size() > length && arg[length] == '=') {
    *value = arg.substr(length + 1);
    return true;
  }
  return false;
}

// Logical bytes of metadata in use: every tree block of every tree, so no
// less than the subvolume trees' distinct blocks. The first estimate of the
// work, before the trees tell the exact amount.
uint64_t MetadataInUse(int fd) {
  btrfs_ioctl_space_args probe{};
  if (ioctl(fd, BTRFS_IOC_SPACE_INFO, &probe) != 0 || probe.total_spaces == 0) return 0;
  const size_t slots = probe.total_spaces;
  std::vector<uint8_t> memory(sizeof(btrfs_ioctl_space_args) + slots * sizeof(btrfs_ioctl_space_info));
  auto* args = reinterpret_cast<btrfs_ioctl_space_args*>(memory.data());
  args->space_slots = slots;
  if (ioctl(fd, BTRFS_IOC_SPACE_INFO, args) != 0) return 0;  // only an estimate: the walk corrects it
  uint64_t used = 0;
  for (uint64_t i = 0; i < args->total_spaces && i < slots; ++i) {
    if (args->spaces[i].flags & BTRFS_BLOCK_GROUP_METADATA) used += args->spaces[i].used_bytes;
  }
  return used;
}

// Commits the file system's pending changes, so that recent snapshots and
// writes are in what is read.
void Commit(int fsFd) {
  if (ioctl(fsFd, BTRFS_IOC_SYNC) == 0) return;
  // Without the file system's own commit, a plain sync commits as well.
  if (syncfs(fsFd) != 0) Fail(ProviderError::Kind::kSystem, "cannot commit the file system: %s", strerror(errno));
}

// Measures the newest commit. A block that fails its checks may be one the
// running file system freed and reused after the commit that was read: then
// the newest commit has moved on, and reading starts over there. A failure
// is damage when the commit it was read from is still the newest, or when
// the same block fails the same way on two commits in a row (a block both
// reference with the same generation is one that no commit rewrote).
UsageFigures MeasureNewestCommit(int fsFd, const Fsid& fsid, const std::vector<uint64_t>& ids,
                                 std::chrono::seconds allowed, ProgressPrinter& progress, UsageObserver* observer,
                                 uint64_t* generationRead) {
  const Clock::time_point deadline = Clock::now() + allowed;
  const uint64_t metadataInUse = MetadataInUse(fsFd);
  std::string lastFailure;
  for (int attempt = 1;; ++attempt) {
    Commit(fsFd);
    const DeviceSet devices = DeviceSet::OfMountedFileSystem(fsFd);
    // The commit about to be read, until the file system tells which it read.
    uint64_t generation = CommittedFileSystem::NewestCommit(devices, fsid.bytes);
    uint64_t newest = 0;
    try {
      const CommittedFileSystem fs(devices, fsid.bytes);
      generation = fs.Generation();
      progress.RaiseEstimate(progress.Processed() + metadataInUse);
      UsageFigures figures = MeasureUsage(fs, ids, progress, observer);
      *generationRead = generation;
      return figures;
    } catch (const ProviderError& error) {
      if (error.kind() != ProviderError::Kind::kBadBlock) throw;
      newest = CommittedFileSystem::NewestCommit(devices, fsid.bytes);
      if ((newest != 0 && newest == generation) || lastFailure == error.what()) throw;
      lastFailure = error.what();
    }
    // A short pause, longer after each failure: a file system busy now may
    // be quiet in a moment. Whether another reading fits is decided before
    // the note, so that the note never promises one that does not come.
    const std::chrono::milliseconds pause(25 << std::min(attempt, 4));
    if (Clock::now() + pause >= deadline) {
      Fail(ProviderError::Kind::kKeptChanging,
           "the file system kept changing: no commit could be read whole within %lld s (%d %s; the last: %s)",
           static_cast<long long>(allowed.count()), attempt, attempt == 1 ? "reading" : "readings",
           lastFailure.c_str());
    }
    // Not an error: a note for whoever wonders why the run takes longer.
    fprintf(stderr, "vela-btrfs: the file system moved on from commit %llu to %llu while it was read (%s); reading again\n",
            static_cast<unsigned long long>(generation), static_cast<unsigned long long>(newest), lastFailure.c_str());
    std::this_thread::sleep_for(pause);
  }
}

}  // namespace

SubvolumeSizeRequest ParseSubvolumeSizeArguments(const std::vector<std::string>& args) {
  SubvolumeSizeRequest request;
  size_t i = 0;
  for (; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (arg == "--") {
      ++i;
      break;
    }
    std::string value;
    if (LongOption(args, i, "--deadline", "a number of seconds", &value)) {
      request.deadline = ParseDeadline(value);
      continue;
    }
    if (LongOption(args, i, "--space-map", "a file name", &value)) {
      if (value.empty()) Fail(ProviderError::Kind::kUsage, "--space-map needs a file name");
      request.spaceMap = value;
      continue;
    }
    if (LongOption(args, i, "--space-map-file-rows", "a number of rows", &value)) {
      if (!base::ParseCanonicalDecimal(value, request.spaceMapFileRows) || request.spaceMapFileRows > UINT32_MAX) {
        Fail(ProviderError::Kind::kUsage, "--space-map-file-rows takes a number of rows from 0 to %u, not '%s'",
             UINT32_MAX, value.c_str());
      }
      continue;
    }
    if (arg.size() < 2 || arg[0] != '-') break;
    if (arg[1] == '-') Fail(ProviderError::Kind::kUsage, "unknown option '%s'", arg.c_str());
    for (size_t k = 1; k < arg.size(); ++k) {
      switch (arg[k]) {
        case 'v': request.verbose = true; break;
        case 'p': request.progress = true; break;
        case 'm': request.marginal = true; break;
        case 'r': request.byRootId = true; break;
        default: Fail(ProviderError::Kind::kUsage, "unknown option '-%c' in '%s'", arg[k], arg.c_str());
      }
    }
  }
  std::vector<std::string> rest(args.begin() + static_cast<std::ptrdiff_t>(i), args.end());
  if (request.byRootId) {
    if (rest.size() < 2) Fail(ProviderError::Kind::kUsage, "-r needs a mount path and at least one root ID");
    request.mountPath = rest.front();
    rest.erase(rest.begin());
    for (const std::string& id : rest) RootIdOperand(id);  // refuse bad IDs before any work
  } else if (rest.empty()) {
    Fail(ProviderError::Kind::kUsage, "no subvolume given");
  }
  request.operands = rest;
  return request;
}

bool RunSubvolumeSize(const SubvolumeSizeRequest& request, FILE* out) {
  std::vector<uint64_t> ids;
  UniqueFd fsFd;
  Fsid fsid{};
  if (request.byRootId) {
    fsFd = OpenOnBtrfs(request.mountPath, 0);
    fsid = FsidOf(fsFd.Get(), request.mountPath);
    for (const std::string& text : request.operands) ids.push_back(RootIdOperand(text));
  } else {
    for (const std::string& path : request.operands) {
      UniqueFd fd = OpenOnBtrfs(path, O_DIRECTORY);
      ids.push_back(RootIdOfSubvolume(fd.Get(), path));
      const Fsid thisFsid = FsidOf(fd.Get(), path);
      if (!fsFd.Valid()) {
        fsid = thisFsid;
        fsFd = std::move(fd);
      } else if (thisFsid != fsid) {
        Fail(ProviderError::Kind::kRefused, "%s is on another file system than %s", path.c_str(),
             request.operands.front().c_str());
      }
    }
  }
  std::set<uint64_t> seen;
  for (uint64_t id : ids) {
    if (!seen.insert(id).second) {
      Fail(ProviderError::Kind::kRefused, "subvolume %llu is given more than once", static_cast<unsigned long long>(id));
    }
  }

  LineWriter lines(out);
  ProgressPrinter progress(request.progress, lines);
  std::unique_ptr<SpaceMapCollector> collector;
  if (!request.spaceMap.empty()) collector = std::make_unique<SpaceMapCollector>(ids, request.spaceMapFileRows);
  uint64_t generation = 0;
  const UsageFigures figures =
      MeasureNewestCommit(fsFd.Get(), fsid, ids, request.deadline, progress, collector.get(), &generation);
  progress.Finish();
  // Before the figures, so that a caller who reads them knows by then
  // whether the map is there. A map that cannot be written (a full
  // directory, say) costs the caller the map, not the figures: they are
  // what the run is for, and the exit status tells the map is missing.
  bool mapWritten = true;
  if (collector != nullptr) {
    std::string error;
    // Readable by root only: it names the files of every snapshot.
    if (!space_map::WriteSpaceMap(request.spaceMap, collector->TakeContent(generation), 0600, &error)) {
      fprintf(stderr, "vela-btrfs: %s; the figures follow without it\n", error.c_str());
      mapWritten = false;
    }
  }

  uint64_t total = 0;
  for (size_t i = 0; i < ids.size(); ++i) {
    const uint64_t bytes = request.marginal ? figures.marginal[i] : figures.exclusive[i];
    total += bytes;
    if (request.verbose) {
      lines.Print("subvol(%llu) %llu bytes\n", static_cast<unsigned long long>(ids[i]),
                  static_cast<unsigned long long>(bytes));
    }
  }
  lines.Print("total %llu bytes\n", static_cast<unsigned long long>(total));
  return mapWritten;
}

}  // namespace vela::btrfs
