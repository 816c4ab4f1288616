// The space map of a calculation: what deleting any set of the calculated
// snapshots frees, which files hold it, and which snapshots to delete to get
// a number of bytes back.
//
// Every data extent and tree block has a signature: the set of calculated
// subvolumes that reference it, and whether a subvolume outside the
// calculation does too. The map keeps the bytes of each signature (data and
// metadata apart); deleting a set D frees exactly the bytes of the
// signatures within D that nothing outside references. For data extents it
// also keeps the files behind them: per signature and file, the bytes of
// the extents the file references, and the file's path in the newest
// calculated snapshot that references them. Above a limit of such rows the
// largest are kept and the file lists are marked incomplete; the
// signatures stay exact.
//
// The map is an SQLite database (format version kSpaceMapFormatVersion),
// written whole under a temporary name beside its target and renamed over
// it; readers load it whole into memory and never touch the file again.
#ifndef VELA_SPACE_MAP_H_
#define VELA_SPACE_MAP_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vela/vlib_types.h"

namespace vela::space_map {

constexpr int kSpaceMapFormatVersion = 1;
// Signature-file rows kept at most unless the writer is told otherwise.
constexpr uint64_t kDefaultFileRowLimit = 1000000;

// Consecutive positions in the calculation, first to last inclusive.
struct Run {
  uint32_t first = 0;
  uint32_t last = 0;
};

struct Signature {
  std::vector<Run> runs;  // ascending, neither overlapping nor touching; not empty
  bool outside = false;   // also referenced by a subvolume outside the calculation
  uint64_t dataBytes = 0;
  uint64_t metadataBytes = 0;
};

// Bytes of the data extents of one signature that one file references.
// Files are numbered by the writer: one number per file (inode) of one
// line of snapshots.
struct FileBytes {
  uint32_t signature = 0;  // index into Content::signatures
  uint32_t file = 0;
  uint32_t position = 0;   // the newest calculated snapshot referencing them, one of the signature's
  uint64_t bytes = 0;
};

// The path of a file (relative to the subvolume's top) in the snapshot at
// a position.
struct FilePath {
  uint32_t file = 0;
  uint32_t position = 0;
  std::string path;
};

struct Content {
  std::vector<uint64_t> rootIds;  // the calculated subvolumes, in the calculation's order
  uint64_t generation = 0;        // the commit that was read
  std::vector<Signature> signatures;
  std::vector<FileBytes> fileBytes;  // one row per (signature, file)
  std::vector<FilePath> filePaths;   // one per (file, position) of fileBytes
  bool filesComplete = true;
};

// Writes `content` to `path` atomically with `mode` (owner root): a
// temporary file beside it, flushed to the disk, renamed over it. False
// with `error` set when the content is inconsistent or the writing fails;
// the old file, if any, is then whole.
VELA_PLATFORM_API bool WriteSpaceMap(const std::string& path, const Content& content, unsigned mode,
                                     std::string* error);

enum class Status {
  kOk,
  kMissing,           // no map at that path
  kUnreadable,        // the file cannot be read
  kCorrupt,           // not a space map, or one that contradicts itself
  kWrongVersion,      // a space map of another format version
  kUnknownSubvolume,  // a subvolume that is not one of the calculation's
};

struct SnapshotBytes {
  uint64_t rootId = 0;
  uint64_t aloneBytes = 0;  // freed if only it is deleted
  uint64_t addedBytes = 0;  // referenced by it and not by the one before it (the first: all it references)
  uint64_t accumBytes = 0;  // freed by deleting it and every one before it
};

struct FileShare {
  std::string path;     // in the snapshot below
  uint64_t rootId = 0;  // the newest snapshot of the set holding the file's freed data
  uint64_t bytes = 0;
};

struct Freed {
  uint64_t freedBytes = 0;
  uint64_t dataBytes = 0;
  uint64_t metadataBytes = 0;
  std::vector<FileShare> files;  // largest first
  bool filesComplete = true;
};

struct Proposal {
  std::vector<uint64_t> rootIds;  // in the calculation's order
  uint64_t freedBytes = 0;
  bool reached = false;  // freedBytes >= the bytes asked for
  bool exact = true;     // proven to need no fewer snapshots
};

struct Plan {
  Proposal oldestFirst;
  Proposal fewestSnapshots;
};

class VELA_PLATFORM_API SpaceMap {
 public:
  // Reads the map at `path` (a link in its place is refused). Sets `map`
  // on kOk, and `error` to a sentence otherwise. Never throws.
  static Status Open(const std::string& path, std::unique_ptr<SpaceMap>* map, std::string* error);
  ~SpaceMap();
  SpaceMap(const SpaceMap&) = delete;
  SpaceMap& operator=(const SpaceMap&) = delete;

  const std::vector<uint64_t>& RootIds() const;
  uint64_t Generation() const;
  bool FilesComplete() const;

  // One row per calculated snapshot, in the calculation's order.
  std::vector<SnapshotBytes> Snapshots() const;

  // What deleting the snapshots `rootIds` (any of the calculation's, in any
  // order) frees, with the `maxFiles` largest files. kUnknownSubvolume for
  // an ID outside the calculation; kCorrupt for file rows that contradict
  // the map.
  Status FreedBy(const std::vector<uint64_t>& rootIds, size_t maxFiles, Freed* freed, std::string* error) const;

  // Which snapshots to delete to free `bytes`, keeping the newest
  // `keepNewest`: the oldest first, and the fewest snapshots (exact when
  // every signature those may free is a run of consecutive snapshots,
  // otherwise the best found). When `bytes` cannot be freed, each proposal
  // frees the most that can be, with reached false.
  Plan PlanFor(uint64_t bytes, uint64_t keepNewest) const;

  // What an open map holds; known to its reader only.
  struct State;

 private:
  explicit SpaceMap(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace vela::space_map

#endif  // VELA_SPACE_MAP_H_
