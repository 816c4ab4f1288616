#include "share_catalogue.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <tuple>

#include "snapshot_names.h"
#include "snapshot_tool.h"

namespace vela::platform {

namespace {

// Directory entries hold at most 255 bytes; a share name is one.
constexpr size_t kMaxNameBytes = 255;

size_t Depth(const std::string& path) { return static_cast<size_t>(std::count(path.begin(), path.end(), '/')); }

std::string QualifiedName(const std::string& own, int volume, uint64_t id, int tildes) {
  const std::string suffix = std::string(static_cast<size_t>(tildes), '~') + "v" + std::to_string(volume) + "-" +
                             std::to_string(id);
  return own.substr(0, kMaxNameBytes - suffix.size()) + suffix;
}

}  // namespace

bool ShareCatalogue::ReadAll() { return Read(0); }

bool ShareCatalogue::ReadOne(int number) {
  if (!Read(number)) return false;
  if (volumes_.empty()) {
    errno = ENOENT;
    return false;
  }
  return true;
}

bool ShareCatalogue::Read(int only) {
  std::vector<MountedVolume> mounted;
  std::vector<Mount> mounts;
  if (!ReadMountedVolumes(&mounted, &mounts)) return false;
  volumes_.clear();
  shares_.clear();
  for (const MountedVolume& volume : mounted) {
    if (!volume.Btrfs() || (only != 0 && volume.number != only)) continue;
    VolumeCatalogue catalogue;
    if (ReadVolumeCatalogue(volume.number, volume.path, volume.mount, mounts, &catalogue)) {
      volumes_.push_back(std::move(catalogue));
    }
  }
  if (only == 0) NameShares();
  return true;
}

void ShareCatalogue::NameShares() {
  struct Candidate {
    std::tuple<int, size_t, uint64_t> rank;  // volume, depth, ID: who keeps a shared name
    std::string own;
    size_t volume, subvolume;
  };
  std::vector<Candidate> candidates;
  for (size_t v = 0; v < volumes_.size(); ++v) {
    for (size_t s = 0; s < volumes_[v].subvolumes.size(); ++s) {
      const Subvolume& sub = volumes_[v].subvolumes[s];
      if (sub.role != SubvolumeRole::kShare) continue;
      candidates.push_back({{volumes_[v].volume, Depth(sub.path), sub.id}, SubvolumeName(sub), v, s});
    }
  }
  std::sort(candidates.begin(), candidates.end(),
            [](const Candidate& a, const Candidate& b) { return a.rank < b.rank; });
  // Own names first, so that a qualified name never takes one.
  std::map<std::string, int> ownCount;
  for (const Candidate& c : candidates) ++ownCount[c.own];
  std::set<std::string> taken;
  std::vector<bool> named(candidates.size(), false);
  for (size_t i = 0; i < candidates.size(); ++i) {
    if (taken.insert(candidates[i].own).second) {
      shares_.push_back({candidates[i].own, candidates[i].volume, candidates[i].subvolume});
      named[i] = true;
    }
  }
  for (size_t i = 0; i < candidates.size(); ++i) {
    if (named[i]) continue;
    const Candidate& c = candidates[i];
    std::string name;
    for (int tildes = 1; name.empty() || taken.count(name) != 0 || ownCount.count(name) != 0; ++tildes) {
      name = QualifiedName(c.own, std::get<0>(c.rank), std::get<2>(c.rank), tildes);
    }
    taken.insert(name);
    shares_.push_back({name, c.volume, c.subvolume});
  }
  std::sort(shares_.begin(), shares_.end(), [this](const NamedShare& a, const NamedShare& b) {
    return std::make_pair(volumes_[a.volume].volume, a.name) < std::make_pair(volumes_[b.volume].volume, b.name);
  });
}

const NamedShare* ShareCatalogue::Find(const std::string& name) const {
  for (const NamedShare& share : shares_) {
    if (share.name == name) return &share;
  }
  return nullptr;
}

bool ShareCatalogue::FindByUuid(int number, const uint8_t* uuid, size_t* volume, size_t* subvolume) const {
  for (size_t v = 0; v < volumes_.size(); ++v) {
    if (volumes_[v].volume != number) continue;
    for (size_t s = 0; s < volumes_[v].subvolumes.size(); ++s) {
      const Subvolume& sub = volumes_[v].subvolumes[s];
      if (sub.role == SubvolumeRole::kShare && std::equal(uuid, uuid + 16, sub.uuid)) {
        *volume = v;
        *subvolume = s;
        return true;
      }
    }
  }
  return false;
}

std::vector<ListedSnapshot> ShareCatalogue::Snapshots(size_t volume, size_t subvolume) const {
  const VolumeCatalogue& catalogue = volumes_[volume];
  std::vector<const Subvolume*> found;
  for (const Subvolume& sub : catalogue.subvolumes) {
    if (sub.role == SubvolumeRole::kSnapshot && sub.share == subvolume) found.push_back(&sub);
  }
  std::sort(found.begin(), found.end(), [](const Subvolume* a, const Subvolume* b) {
    return std::make_tuple(a->otime.tv_sec, a->otime.tv_nsec, a->id) <
           std::make_tuple(b->otime.tv_sec, b->otime.tv_nsec, b->id);
  });
  std::vector<ListedSnapshot> snapshots;
  for (size_t i = 0; i < found.size(); ++i) {
    const Subvolume& sub = *found[i];
    const bool sameSecond = i > 0 && found[i - 1]->otime.tv_sec == sub.otime.tv_sec;
    snapshots.push_back({ListedSnapName(sub.otime.tv_sec, sub.id, sameSecond), sub.otime, sub.id, sub.readOnly,
                         SnapshotToolOf(sub.path), catalogue.mountPath + "/" + sub.path});
  }
  return snapshots;
}

}  // namespace vela::platform
