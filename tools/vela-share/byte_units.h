// Byte counts as administrators read and write them: "3.2 GiB", "50G".
#ifndef VELA_TOOLS_VELA_SHARE_BYTE_UNITS_H_
#define VELA_TOOLS_VELA_SHARE_BYTE_UNITS_H_

#include <cstdint>
#include <string>

namespace vela::share_tool {

// "512 B", "16.0 KiB", "3.2 GiB": powers of 1024, one decimal.
std::string HumanBytes(uint64_t bytes);
// A size: a number, whole or with decimals, and an optional unit B, K, M,
// G, T, P (powers of 1024; "KiB", "GiB", ... and lower case too). False for
// anything else, or more than 2^64 - 1 bytes.
bool ParseSize(const std::string& text, uint64_t& bytes);

}  // namespace vela::share_tool

#endif  // VELA_TOOLS_VELA_SHARE_BYTE_UNITS_H_
