// Errors of the size provider. Every failure ends the run with a message on
// standard error; the kind decides whether reading again can help.
#ifndef VELA_TOOLS_VELA_BTRFS_PROVIDER_ERROR_H_
#define VELA_TOOLS_VELA_BTRFS_PROVIDER_ERROR_H_

#include <stdexcept>
#include <string>

namespace vela::btrfs {

class ProviderError : public std::runtime_error {
 public:
  enum class Kind {
    kUsage,    // bad command line
    kRefused,  // a wrong argument or an unsupported file system
    kSystem,   // a system call failed
    kBadBlock, // a tree block read from disk is not what its parent promised
    kKeptChanging,  // every commit read was overtaken by newer ones until the deadline
  };
  ProviderError(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

// Formats like printf into a std::string, for messages that print the
// values involved.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

[[noreturn]] void Fail(ProviderError::Kind kind, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace vela::btrfs

#endif  // VELA_TOOLS_VELA_BTRFS_PROVIDER_ERROR_H_
