#include "syslog_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace vela::test {

namespace {

const char* CapturePath() {
  const char* path = getenv("VELA_TEST_SYSLOG");
  return path != nullptr && *path != '\0' ? path : nullptr;
}

// One record per line: "<priority> <text>", with backslash and newline
// escaped so that texts ending in "\n" survive.
std::string Encode(int priority, const std::string& text) {
  std::string line = std::to_string(priority) + " ";
  for (char c : text) {
    if (c == '\\') {
      line += "\\\\";
    } else if (c == '\n') {
      line += "\\n";
    } else {
      line += c;
    }
  }
  return line + "\n";
}

void Append(int priority, const char* format, va_list ap) {
  char buffer[8192];
  vsnprintf(buffer, sizeof(buffer), format, ap);
  const std::string line = Encode(priority, buffer);
  const char* path = CapturePath();
  if (path == nullptr) {
    fputs(line.c_str(), stderr);
    return;
  }
  // O_APPEND with a single write keeps lines of concurrent processes whole.
  const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  const ssize_t written = write(fd, line.data(), line.size());
  (void)written;  // a test log that cannot be written has nobody to tell
  close(fd);
}

}  // namespace

std::vector<LogRecord> CapturedSyslog() {
  std::vector<LogRecord> records;
  const char* path = CapturePath();
  if (path == nullptr) return records;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    const auto space = line.find(' ');
    if (space == std::string::npos) continue;
    LogRecord record{atoi(line.substr(0, space).c_str()), ""};
    for (size_t i = space + 1; i < line.size(); ++i) {
      if (line[i] == '\\' && i + 1 < line.size()) {
        ++i;
        record.text += line[i] == 'n' ? '\n' : line[i];
      } else {
        record.text += line[i];
      }
    }
    records.push_back(std::move(record));
  }
  return records;
}

void ClearSyslog() {
  if (const char* path = CapturePath()) truncate(path, 0);
}

std::vector<LogRecord> FindSyslog(int priority, const std::string& text) {
  std::vector<LogRecord> found;
  for (auto& record : CapturedSyslog()) {
    if (record.priority == priority && record.text.find(text) != std::string::npos) {
      found.push_back(record);
    }
  }
  return found;
}

std::string DumpSyslog() {
  std::ostringstream out;
  for (const auto& record : CapturedSyslog()) out << record.priority << " " << record.text << "\n";
  return out.str();
}

}  // namespace vela::test

// The interposed entry points, exported so that shared libraries and
// dlopen()ed modules bind to them rather than to the C library's.
#define VELA_TEST_EXPORT __attribute__((visibility("default")))

extern "C" VELA_TEST_EXPORT void vsyslog(int priority, const char* format, va_list ap) {
  vela::test::Append(priority, format, ap);
}

extern "C" VELA_TEST_EXPORT void syslog(int priority, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  vela::test::Append(priority, format, ap);
  va_end(ap);
}

// Fortified builds call these instead.
extern "C" VELA_TEST_EXPORT void __vsyslog_chk(int priority, int, const char* format, va_list ap) {
  vela::test::Append(priority, format, ap);
}

extern "C" VELA_TEST_EXPORT void __syslog_chk(int priority, int, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  vela::test::Append(priority, format, ap);
  va_end(ap);
}
