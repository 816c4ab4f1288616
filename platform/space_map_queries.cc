#include "space_map_queries.h"

#include <algorithm>

namespace vela::platform::space_map_queries {

namespace {

// The fewest-snapshots program keeps a table of what every block of
// consecutive candidates frees: beyond this many candidates it would take
// too much memory, and beyond the budget of steps too long.
constexpr uint32_t kMaxProgramPositions = 1024;
constexpr uint64_t kProgramStepBudget = 20000000;
constexpr uint64_t kUnreachable = UINT64_MAX;

uint64_t BytesOf(const Signature& signature) { return signature.dataBytes + signature.metadataBytes; }

uint32_t Candidates(uint32_t positions, uint64_t keepNewest) {
  return keepNewest >= positions ? 0 : positions - static_cast<uint32_t>(keepNewest);
}

// What a plan aims at: the candidates are the positions below
// `candidates`; deleting all of them frees `most`, the most any proposal
// can, so a proposal aims at `target`.
struct Goal {
  uint32_t candidates = 0;
  uint64_t most = 0;
  uint64_t target = 0;
  bool reachable = false;
};

Goal GoalOf(const std::vector<Signature>& signatures, uint32_t positions, uint64_t bytes, uint64_t keepNewest) {
  Goal goal;
  goal.candidates = Candidates(positions, keepNewest);
  for (const Signature& signature : signatures) {
    if (!signature.outside && signature.runs.back().last < goal.candidates) goal.most += BytesOf(signature);
  }
  goal.target = std::min(bytes, goal.most);
  goal.reachable = bytes <= goal.most;
  return goal;
}

PositionProposal Judged(const std::vector<Signature>& signatures, uint32_t positions, std::vector<uint32_t> chosen) {
  std::vector<bool> deleted(positions, false);
  for (uint32_t position : chosen) deleted[position] = true;
  PositionProposal proposal;
  proposal.freedBytes = SumBytes(signatures, FreedSignatures(signatures, deleted));
  proposal.positions = std::move(chosen);
  return proposal;
}

}  // namespace

std::vector<space_map::SnapshotBytes> SnapshotRows(const std::vector<Signature>& signatures, uint32_t positions) {
  std::vector<space_map::SnapshotBytes> rows(positions);
  std::vector<uint64_t> marginal(positions, 0);
  for (const Signature& signature : signatures) {
    const uint64_t bytes = BytesOf(signature);
    // A position where a run starts references these bytes and the one
    // before it does not; the first position has no one before it.
    for (const space_map::Run& run : signature.runs) rows[run.first].addedBytes += bytes;
    if (signature.outside) continue;
    const space_map::Run& only = signature.runs.front();
    marginal[signature.runs.back().last] += bytes;
    if (signature.runs.size() == 1 && only.first == only.last) rows[only.first].aloneBytes += bytes;
  }
  uint64_t accum = 0;
  for (uint32_t i = 0; i < positions; ++i) rows[i].accumBytes = accum += marginal[i];
  return rows;
}

std::vector<uint32_t> FreedSignatures(const std::vector<Signature>& signatures, const std::vector<bool>& deleted) {
  // Deleted positions before each position: a run lies within the set when
  // every position of it counts.
  std::vector<uint32_t> before(deleted.size() + 1, 0);
  for (size_t i = 0; i < deleted.size(); ++i) before[i + 1] = before[i] + (deleted[i] ? 1 : 0);
  std::vector<uint32_t> freed;
  for (uint32_t id = 0; id < signatures.size(); ++id) {
    const Signature& signature = signatures[id];
    if (signature.outside) continue;
    const bool within = std::all_of(signature.runs.begin(), signature.runs.end(), [&](const space_map::Run& run) {
      return run.last < deleted.size() && before[run.last + 1] - before[run.first] == run.last - run.first + 1;
    });
    if (within) freed.push_back(id);
  }
  return freed;
}

uint64_t SumBytes(const std::vector<Signature>& signatures, const std::vector<uint32_t>& which) {
  uint64_t sum = 0;
  for (uint32_t id : which) sum += BytesOf(signatures[id]);
  return sum;
}

PositionProposal OldestFirst(const std::vector<Signature>& signatures, uint32_t positions, uint64_t bytes,
                             uint64_t keepNewest) {
  const Goal goal = GoalOf(signatures, positions, bytes, keepNewest);
  // What deleting the first i+1 positions frees beyond the first i.
  std::vector<uint64_t> marginal(goal.candidates, 0);
  for (const Signature& signature : signatures) {
    if (!signature.outside && signature.runs.back().last < goal.candidates) {
      marginal[signature.runs.back().last] += BytesOf(signature);
    }
  }
  PositionProposal proposal;
  for (uint32_t i = 0; i < goal.candidates && proposal.freedBytes < goal.target; ++i) {
    proposal.positions.push_back(i);
    proposal.freedBytes += marginal[i];
  }
  proposal.reached = goal.reachable;
  return proposal;
}

PositionProposal FewestSnapshots(const std::vector<Signature>& signatures, uint32_t positions, uint64_t bytes,
                                 uint64_t keepNewest) {
  const Goal goal = GoalOf(signatures, positions, bytes, keepNewest);
  const uint32_t m = goal.candidates;
  if (goal.target == 0) {
    PositionProposal none;
    none.reached = goal.reachable;
    return none;
  }
  bool allRuns = true;
  for (const Signature& signature : signatures) {
    if (!signature.outside && signature.runs.back().last < m && signature.runs.size() > 1) allRuns = false;
  }
  if (m <= kMaxProgramPositions) {
    // freedBy[a * m + b]: what deleting positions a..b frees through
    // signatures of one run; built up from shorter blocks.
    std::vector<uint64_t> freedBy(size_t{m} * m, 0);
    for (const Signature& signature : signatures) {
      const space_map::Run& run = signature.runs.front();
      if (!signature.outside && signature.runs.size() == 1 && run.last < m) {
        freedBy[size_t{run.first} * m + run.last] += BytesOf(signature);
      }
    }
    for (uint32_t length = 2; length <= m; ++length) {
      for (uint32_t a = 0; a + length <= m; ++a) {
        const uint32_t b = a + length - 1;
        freedBy[size_t{a} * m + b] += freedBy[size_t{a + 1} * m + b] + freedBy[size_t{a} * m + b - 1] -
                                      (length > 2 ? freedBy[size_t{a + 1} * m + b - 1] : 0);
      }
    }
    // best[k][i]: the most that k positions among the first i free, as
    // blocks of consecutive positions; step[k][i] the length of the block
    // ending at position i-1, 0 when i-1 is not taken. Ties keep the newer
    // position out.
    std::vector<std::vector<uint64_t>> best(1, std::vector<uint64_t>(m + 1, 0));
    std::vector<std::vector<uint32_t>> step(1, std::vector<uint32_t>(m + 1, 0));
    uint64_t steps = 0;
    for (uint32_t k = 1; k <= m && steps <= kProgramStepBudget; ++k) {
      best.emplace_back(m + 1, kUnreachable);
      step.emplace_back(m + 1, 0);
      for (uint32_t i = k; i <= m; ++i) {
        uint64_t value = i > k ? best[k][i - 1] : kUnreachable;
        uint32_t chosen = 0;
        for (uint32_t length = 1; length <= k; ++length) {
          const uint64_t candidate = best[k - length][i - length] + freedBy[size_t{i - length} * m + i - 1];
          if (value == kUnreachable || candidate > value) {
            value = candidate;
            chosen = length;
          }
        }
        best[k][i] = value;
        step[k][i] = chosen;
        steps += k;
      }
      std::vector<uint32_t> chosen;
      for (uint32_t i = m, left = k; left > 0;) {
        const uint32_t length = step[left][i];
        if (length == 0) {
          --i;
          continue;
        }
        for (uint32_t p = i - length; p < i; ++p) chosen.push_back(p);
        left -= length;
        i -= length;
      }
      std::sort(chosen.begin(), chosen.end());
      PositionProposal proposal = Judged(signatures, positions, std::move(chosen));
      if (proposal.freedBytes >= goal.target) {
        proposal.reached = goal.reachable;
        proposal.exact = allRuns;
        return proposal;
      }
    }
  }
  PositionProposal fallback = OldestFirst(signatures, positions, bytes, keepNewest);
  fallback.exact = false;
  return fallback;
}

}  // namespace vela::platform::space_map_queries
