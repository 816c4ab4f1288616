// Progress lines for the caller: "exclusive N bytes" is the estimate of the
// whole work, "processed N bytes" the work done. Processed never falls and
// never passes the last estimate printed; the last line has them equal.
// Lines come at most every kInterval: each one costs the calculator two
// locked file rewrites.
#ifndef VELA_TOOLS_VELA_BTRFS_PROGRESS_PRINTER_H_
#define VELA_TOOLS_VELA_BTRFS_PROGRESS_PRINTER_H_

#include <chrono>
#include <cstdint>

#include "line_writer.h"

namespace vela::btrfs {

class ProgressPrinter {
 public:
  static constexpr std::chrono::milliseconds kInterval{250};

  // Prints nothing when `enabled` is false. Printing throws ProviderError
  // when the output fails.
  ProgressPrinter(bool enabled, LineWriter& out) : enabled_(enabled), out_(out) {}

  // Announces a new estimate of the total (raised to the work already done).
  void Estimate(uint64_t total);
  // Raises the estimate to at least `total`; a larger one stays.
  void RaiseEstimate(uint64_t total);
  // Records `bytes` more work done.
  void Advance(uint64_t bytes);
  // The work is complete: the estimate becomes what was done.
  void Finish();

  uint64_t Processed() const { return processed_; }

 private:
  void PrintEstimate();
  void PrintProcessed();

  bool enabled_;
  LineWriter& out_;
  bool estimated_ = false;
  uint64_t estimate_ = 0;
  uint64_t processed_ = 0;
  uint64_t printedProcessed_ = UINT64_MAX;
  std::chrono::steady_clock::time_point lastPrint_{};
};

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_PROGRESS_PRINTER_H_
