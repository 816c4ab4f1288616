// Numbers read back from files and from other programs' output: accepted
// only in their one written form, so that a damaged text never passes as a
// different number.
#ifndef VELABTRFSSNAPUSAGE_BASE_NUMBERS_H_
#define VELABTRFSSNAPUSAGE_BASE_NUMBERS_H_

#include <cstdint>
#include <string_view>

namespace vela::base {

// Decimal digits without a sign, blanks or leading zeros ("0" itself is
// fine), up to 2^64 - 1: the form "%llu" writes.
bool ParseCanonicalDecimal(std::string_view text, uint64_t& value);
// A btrfs root ID: a canonical decimal from 1 up. "0256" and "+5" are not
// root IDs.
bool ParseRootId(std::string_view text, uint64_t& id);
// An unsigned 64-bit number written as C writes integer constants: "0x"
// then hexadecimal, a leading 0 then octal, else decimal. The whole text
// must be the number: no sign, no blanks, nothing after it, no overflow.
bool ParseUnsignedAnyBase(std::string_view text, uint64_t& value);

}  // namespace vela::base

#endif  // VELABTRFSSNAPUSAGE_BASE_NUMBERS_H_
