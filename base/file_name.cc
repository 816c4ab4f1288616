#include "base/file_name.h"

#include <limits.h>

#include <cstdint>
#include <cstdio>

namespace vela::base {

namespace {

// FNV-1a: stable across runs and builds, as a file's name must be.
uint64_t NameHash(const std::string& name) {
  uint64_t hash = 14695981039346656037ull;
  for (unsigned char c : name) {
    hash ^= c;
    hash *= 1099511628211ull;
  }
  return hash;
}

}  // namespace

std::string FitFileName(const std::string& prefix, const std::string& name, const std::string& suffix) {
  if (prefix.size() + name.size() + suffix.size() <= NAME_MAX) return prefix + name + suffix;
  char hash[24];
  snprintf(hash, sizeof(hash), "~%016llx", static_cast<unsigned long long>(NameHash(name)));
  const std::string tail = hash + suffix;
  const size_t keep = NAME_MAX - prefix.size() - tail.size();
  return prefix + name.substr(0, keep) + tail;
}

}  // namespace vela::base
