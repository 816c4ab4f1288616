// A fresh directory under $TMPDIR (or under `parent`), removed with
// everything in it when the object goes away.
#ifndef VELA_TESTS_SUPPORT_SCRATCH_DIR_H_
#define VELA_TESTS_SUPPORT_SCRATCH_DIR_H_

#include <string>

namespace vela::test {

class ScratchDir {
 public:
  ScratchDir();
  // Under `parent` instead: for a directory whose parents nobody but root
  // may write to ($TMPDIR is open to all).
  explicit ScratchDir(const std::string& parent);
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& Path() const { return path_; }
  // Path() + "/" + name.
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Reads a whole file; throws std::runtime_error when it cannot be opened.
std::string ReadFile(const std::string& path);
// Writes a whole file (created 0644 or truncated); throws on failure.
void WriteFile(const std::string& path, const std::string& content);
// Removes a file or a directory tree; a missing path is not an error.
void RemoveTree(const std::string& path);

}  // namespace vela::test

#endif  // VELA_TESTS_SUPPORT_SCRATCH_DIR_H_
