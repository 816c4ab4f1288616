// Private to the platform library: the space map's answers computed from
// its signatures alone, for `positions` calculated subvolumes. Signatures
// must be valid (runs ascending and below `positions`) and their bytes must
// not overflow when all are summed; the reader checks both.
#ifndef VELA_PLATFORM_SPACE_MAP_QUERIES_H_
#define VELA_PLATFORM_SPACE_MAP_QUERIES_H_

#include <cstdint>
#include <vector>

#include "vela/space_map.h"

namespace vela::platform::space_map_queries {

using space_map::Signature;

// Per position: alone, added and accumulated bytes (root IDs left 0).
std::vector<space_map::SnapshotBytes> SnapshotRows(const std::vector<Signature>& signatures, uint32_t positions);

// The signatures that deleting the positions marked in `deleted` frees:
// those within the set that nothing outside references.
std::vector<uint32_t> FreedSignatures(const std::vector<Signature>& signatures, const std::vector<bool>& deleted);

uint64_t SumBytes(const std::vector<Signature>& signatures, const std::vector<uint32_t>& which);

// A proposal by positions; the reader turns them into root IDs.
struct PositionProposal {
  std::vector<uint32_t> positions;  // ascending
  uint64_t freedBytes = 0;
  bool reached = false;
  bool exact = true;
};

// The oldest positions first: the shortest prefix of the candidates (all
// but the newest `keepNewest`) that frees `bytes`, or frees the most.
PositionProposal OldestFirst(const std::vector<Signature>& signatures, uint32_t positions, uint64_t bytes,
                             uint64_t keepNewest);

// The fewest candidates that free `bytes` (or the most that can be freed).
// Exact when every signature the candidates could free is one run: then a
// set's freed bytes are the sums over its blocks of consecutive positions
// of what each block frees, and choosing disjoint blocks is a dynamic
// program. Otherwise that program's sets, judged by all signatures, give
// the proposal, which is then not proven the fewest; so also when the
// program would take too long, in which case the oldest first stand in.
PositionProposal FewestSnapshots(const std::vector<Signature>& signatures, uint32_t positions, uint64_t bytes,
                                 uint64_t keepNewest);

}  // namespace vela::platform::space_map_queries

#endif  // VELA_PLATFORM_SPACE_MAP_QUERIES_H_
