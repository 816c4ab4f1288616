#include "progress_printer.h"

#include <algorithm>

namespace vela::btrfs {

void ProgressPrinter::PrintEstimate() {
  if (!enabled_) return;
  out_.Print("exclusive %llu bytes\n", static_cast<unsigned long long>(estimate_));
}

void ProgressPrinter::PrintProcessed() {
  lastPrint_ = std::chrono::steady_clock::now();
  printedProcessed_ = processed_;
  if (!enabled_) return;
  out_.Print("processed %llu bytes\n", static_cast<unsigned long long>(processed_));
}

void ProgressPrinter::Estimate(uint64_t total) {
  total = std::max(total, processed_);
  if (estimated_ && total == estimate_) return;
  estimated_ = true;
  estimate_ = total;
  PrintEstimate();
}

void ProgressPrinter::RaiseEstimate(uint64_t total) {
  if (!estimated_ || total > estimate_) Estimate(total);
}

void ProgressPrinter::Advance(uint64_t bytes) {
  processed_ += bytes;
  if (!estimated_ || processed_ > estimate_) Estimate(processed_);
  if (std::chrono::steady_clock::now() - lastPrint_ >= kInterval) PrintProcessed();
}

void ProgressPrinter::Finish() {
  Estimate(processed_);
  if (printedProcessed_ != processed_) PrintProcessed();
}

}  // namespace vela::btrfs
