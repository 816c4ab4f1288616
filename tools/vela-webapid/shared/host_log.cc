#include "shared/host_log.h"

#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <unordered_map>

namespace vela::webapid {

namespace {

using Clock = std::chrono::steady_clock;

// Per format: a burst, then this many lines per window.
constexpr int kBurst = 10;
constexpr int kPerWindow = 5;
constexpr auto kWindow = std::chrono::seconds(10);

struct Budget {
  Clock::time_point windowStart;
  int used = 0;
  long heldBack = 0;
  int limit = kBurst;  // a busy window leaves the next one only kPerWindow
};

bool gToStderr = false;
// Keyed by the format's address: every call site has its own budget.
std::unordered_map<const char*, Budget>* gBudgets = nullptr;

void Emit(int priority, const char* text) {
  syslog(priority, "%s", text);
  if (gToStderr) fprintf(stderr, "vela-webapid[%d]: %s\n", getpid(), text);
}

}  // namespace

void OpenHostLog(bool toStderr) {
  gToStderr = toStderr;
  if (gBudgets == nullptr) gBudgets = new std::unordered_map<const char*, Budget>;
  gBudgets->clear();
  openlog("vela-webapid", LOG_PID | LOG_NDELAY, LOG_DAEMON);
}

void HostLogV(int priority, const char* format, va_list args) {
  if (gBudgets == nullptr) gBudgets = new std::unordered_map<const char*, Budget>;
  const Clock::time_point now = Clock::now();
  Budget& budget = (*gBudgets)[format];
  if (now - budget.windowStart >= kWindow) {
    if (budget.heldBack > 0) {
      char note[256];
      snprintf(note, sizeof(note), "%ld more lines like \"%.160s\" were left out", budget.heldBack, format);
      Emit(LOG_NOTICE, note);
    }
    budget.limit = budget.used > kPerWindow ? kPerWindow : kBurst;
    budget.windowStart = now;
    budget.used = 0;
    budget.heldBack = 0;
  }
  if (budget.used >= budget.limit) {
    ++budget.heldBack;
    return;
  }
  ++budget.used;
  char text[1024];
  vsnprintf(text, sizeof(text), format, args);
  Emit(priority, text);
}

void HostLog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  HostLogV(priority, format, args);
  va_end(args);
}

}  // namespace vela::webapid
