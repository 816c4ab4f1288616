// The size provider's folding of references, against a map that folds them
// one by one: every buffer size, duplicates within and across merges.
#include "sorted_refs.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <utility>

namespace vela::test {
namespace {

struct Ref {
  uint64_t bytenr;
  uint64_t count;  // how many references were folded into this one
};

TEST(SortedRefs, FoldsEveryReferenceToAnAddressIntoOneInAddressOrderWhateverTheBufferSize) {
  std::mt19937_64 random(7);
  for (size_t bufferSize : {1, 2, 3, 7, 64, 100000}) {
    SCOPED_TRACE(bufferSize);
    auto fold = [](Ref& into, const Ref& other) { into.count += other.count; };
    btrfs::SortedRefs<Ref, decltype(fold)> refs(fold, bufferSize);
    std::map<uint64_t, uint64_t> expected;
    for (int i = 0; i < 5000; ++i) {
      // Few distinct addresses, so that most references fold.
      const uint64_t bytenr = (random() % 700) * 4096;
      refs.Add(Ref{bytenr, 1});
      ++expected[bytenr];
    }
    refs.Flush();
    ASSERT_EQ(expected.size(), refs.size());
    size_t i = 0;
    for (const auto& [bytenr, count] : expected) {
      EXPECT_EQ(bytenr, refs.data()[i].bytenr);
      EXPECT_EQ(count, refs.data()[i].count) << "at " << bytenr;
      ++i;
    }
  }
}

}  // namespace
}  // namespace vela::test
