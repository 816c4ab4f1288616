#include "scratch_dir.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vela::test {

ScratchDir::ScratchDir() : ScratchDir(getenv("TMPDIR") != nullptr && *getenv("TMPDIR") != '\0' ? getenv("TMPDIR") : "/tmp") {}

ScratchDir::ScratchDir(const std::string& parent) {
  std::string pattern = parent + "/vela.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error(std::string("mkdtemp: ") + strerror(errno));
  }
  path_ = pattern;
}

ScratchDir::~ScratchDir() { RemoveTree(path_); }

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot open " + path);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  out.close();
  if (!out) throw std::runtime_error("cannot write " + path);
}

void RemoveTree(const std::string& path) {
  std::error_code ignored;  // clean-up of test leftovers is best effort
  std::filesystem::remove_all(path, ignored);
}

}  // namespace vela::test
