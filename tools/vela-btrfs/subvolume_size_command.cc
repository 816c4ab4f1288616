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

#include "committed_file_system.h"
#include "disk_format.h"
#include "progress_printer.h"
#include "provider_error.h"
#include "usage_walker.h"

namespace vela::btrfs {

const char kSubvolumeSizeUsage[] =
    "usage: vela-btrfs subvolume size [-v] [-p] [-m] <subvolume-path>...\n"
    "       vela-btrfs subvolume size [-v] [-p] [-m] -r <mount-path> <root-id>...\n"
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
    "\n"
    "A last line \"total BYTES bytes\" gives the sum. Reads the committed metadata\n"
    "from the devices (needs root); changes nothing.\n";

namespace {

// A descriptor closed when it goes out of scope.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

constexpr int kAttempts = 4;

std::unique_ptr<Fd> OpenOnBtrfs(const std::string& path, int flags) {
  auto fd = std::make_unique<Fd>(open(path.c_str(), flags | O_RDONLY | O_CLOEXEC));
  if (fd->get() < 0) {
    if (errno == ENOTDIR) Fail(ProviderError::Kind::kRefused, "%s is not a subvolume", path.c_str());
    Fail(ProviderError::Kind::kRefused, "cannot open %s: %s", path.c_str(), strerror(errno));
  }
  struct statfs fs;
  if (fstatfs(fd->get(), &fs) != 0) {
    Fail(ProviderError::Kind::kSystem, "cannot stat the file system of %s: %s", path.c_str(), strerror(errno));
  }
  if (fs.f_type != static_cast<decltype(fs.f_type)>(BTRFS_SUPER_MAGIC)) {
    Fail(ProviderError::Kind::kRefused, "%s is not on a btrfs file system", path.c_str());
  }
  return fd;
}

std::string FsidOf(int fd, const std::string& path) {
  btrfs_ioctl_fs_info_args info{};
  if (ioctl(fd, BTRFS_IOC_FS_INFO, &info) != 0) {
    Fail(ProviderError::Kind::kSystem, "cannot read the file system ID of %s: %s", path.c_str(), strerror(errno));
  }
  return std::string(reinterpret_cast<const char*>(info.fsid), sizeof info.fsid);
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

uint64_t ParseRootId(const std::string& text) {
  if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos) {
    Fail(ProviderError::Kind::kUsage, "'%s' is not a root ID", text.c_str());
  }
  errno = 0;
  const unsigned long long value = strtoull(text.c_str(), nullptr, 10);
  if (errno == ERANGE || !IsSubvolumeTree(value)) {
    Fail(ProviderError::Kind::kRefused, "%s is not the root ID of a subvolume", text.c_str());
  }
  return value;
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
    if (arg.size() < 2 || arg[0] != '-') break;
    for (size_t k = 1; k < arg.size(); ++k) {
      switch (arg[k]) {
        case 'v': request.verbose = true; break;
        case 'p': request.progress = true; break;
        case 'm': request.marginal = true; break;
        case 'r': request.byRootId = true; break;
        default: Fail(ProviderError::Kind::kUsage, "unknown option '%s'", arg.c_str());
      }
    }
  }
  std::vector<std::string> rest(args.begin() + static_cast<std::ptrdiff_t>(i), args.end());
  if (request.byRootId) {
    if (rest.size() < 2) Fail(ProviderError::Kind::kUsage, "-r needs a mount path and at least one root ID");
    request.mountPath = rest.front();
    rest.erase(rest.begin());
    for (const std::string& id : rest) ParseRootId(id);  // refuse bad IDs before any work
  } else if (rest.empty()) {
    Fail(ProviderError::Kind::kUsage, "no subvolume given");
  }
  request.operands = rest;
  return request;
}

void RunSubvolumeSize(const SubvolumeSizeRequest& request, FILE* out) {
  std::vector<uint64_t> ids;
  std::unique_ptr<Fd> fsFd;
  if (request.byRootId) {
    fsFd = OpenOnBtrfs(request.mountPath, 0);
    for (const std::string& text : request.operands) ids.push_back(ParseRootId(text));
  } else {
    std::string fsid;
    for (const std::string& path : request.operands) {
      std::unique_ptr<Fd> fd = OpenOnBtrfs(path, O_DIRECTORY);
      ids.push_back(RootIdOfSubvolume(fd->get(), path));
      const std::string thisFsid = FsidOf(fd->get(), path);
      if (!fsFd) {
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

  ProgressPrinter progress(request.progress, out);
  const uint64_t metadataInUse = MetadataInUse(fsFd->get());
  UsageFigures figures;
  // A block that fails its checks may be one the running file system freed
  // and reused since its last commit: read the newer commit and start over.
  // The same failure in an unchanged commit is corruption.
  uint64_t failedGeneration = 0;
  for (int attempt = 1;; ++attempt) {
    std::unique_ptr<CommittedFileSystem> fs;
    try {
      fs = std::make_unique<CommittedFileSystem>(fsFd->get());
      progress.RaiseEstimate(progress.Processed() + metadataInUse);
      figures = MeasureUsage(*fs, ids, progress);
      break;
    } catch (const ProviderError& error) {
      if (error.kind() != ProviderError::Kind::kBadBlock || attempt == kAttempts) throw;
      const uint64_t generation = fs ? fs->Generation() : 0;
      if (generation != 0 && generation == failedGeneration) throw;
      failedGeneration = generation;
    }
  }
  progress.Finish();

  uint64_t total = 0;
  for (size_t i = 0; i < ids.size(); ++i) {
    const uint64_t bytes = request.marginal ? figures.marginal[i] : figures.exclusive[i];
    total += bytes;
    if (request.verbose) {
      fprintf(out, "subvol(%llu) %llu bytes\n", static_cast<unsigned long long>(ids[i]),
              static_cast<unsigned long long>(bytes));
    }
  }
  fprintf(out, "total %llu bytes\n", static_cast<unsigned long long>(total));
  fflush(out);
}

}  // namespace vela::btrfs
