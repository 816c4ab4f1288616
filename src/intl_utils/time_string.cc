#include "velabtrfssnapusage/time_string.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "intl_utils/log.h"
#include "vela/vela_share.h"

namespace VelaBtrfsUsage::Utils {

namespace {

constexpr char kLogSource[] = "intl_utils/utils";
constexpr char kStatusTimeFormat[] = "%Y.%m.%d-%H.%M.%S";

}  // namespace

bool TimeStringToTime_T(std::string timeString, long& t) {
  struct tm broken = {};
  if (strptime(timeString.c_str(), kStatusTimeFormat, &broken) == nullptr) {
    VELA_SET_ERROR(VLIB_ERR_OPERATION_FAILED);
    VELA_LOG(LOG_ERR, "Failed to convert cstring time [%s] to strcut tm, err=%s",
             timeString.c_str(), strerror(errno));
    return false;
  }
  // The string carries no zone mark: whether daylight saving time was in
  // force is left to the time library, as for any local wall-clock time.
  broken.tm_isdst = -1;
  t = mktime(&broken);
  if (t == -1) {
    VELA_SET_ERROR(VLIB_ERR_OPERATION_FAILED);
    return false;
  }
  return true;
}

bool Time_tToTimeString(const long& t, std::string& out) {
  tzset();
  const time_t when = t;
  struct tm broken;
  if (localtime_r(&when, &broken) == nullptr) {
    VELA_SET_ERROR(VLIB_ERR_OPERATION_FAILED);
    return false;
  }
  char text[1024] = {};
  strftime(text, sizeof(text), kStatusTimeFormat, &broken);
  out = text;
  return true;
}

bool NowTimeStringGet(std::string& out) {
  const long now = time(nullptr);
  if (now == -1) {
    VELA_SET_ERROR(VLIB_ERR_OPERATION_FAILED);
    return false;
  }
  return Time_tToTimeString(now, out);
}

int SnapNameGenerateByTime(char* buf, unsigned long size, long t, BOOL localTime) {
  if (buf == nullptr) {
    VELA_SET_ERROR(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  // Snapshot names are the platform's: made where they are read.
  return VELAShareSnapNameMake(t, localTime, buf, size);
}

}  // namespace VelaBtrfsUsage::Utils
