// Syslog capture for tests. Test executables define syslog() themselves
// (syslog_capture.cc), so every line the libraries and the module log, in
// the test process and in the processes it forks, is appended to the file
// named by VELA_TEST_SYSLOG instead of reaching the machine's log.
#ifndef VELA_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
#define VELA_TESTS_SUPPORT_SYSLOG_CAPTURE_H_

#include <string>
#include <vector>

namespace vela::test {

struct LogRecord {
  int priority;      // as passed to syslog: facility | level
  std::string text;  // the formatted message
};

// Every record captured so far, oldest first, from all processes.
std::vector<LogRecord> CapturedSyslog();
// Forgets everything captured so far.
void ClearSyslog();
// Records whose priority equals `priority` and whose text contains `text`.
std::vector<LogRecord> FindSyslog(int priority, const std::string& text);
// All captured records, one per line, for failure messages.
std::string DumpSyslog();

}  // namespace vela::test

#endif  // VELA_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
