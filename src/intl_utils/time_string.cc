#include "velabtrfssnapusage/time_string.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "intl_utils/log.h"

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
  const time_t when = t;
  struct tm broken;
  if (localTime == TRUE) {
    tzset();
    if (localtime_r(&when, &broken) == nullptr) {
      VELA_SET_ERROR(VLIB_ERR_OPERATION_FAILED);
      return -1;
    }
    char zone[255] = {};
    strftime(zone, sizeof(zone), "%z", &broken);
    // Whole-hour offsets are written with the hours only: +0800 -> +08.
    if (strlen(zone) == 5 && zone[3] == '0' && zone[4] == '0') zone[3] = '\0';
    char format[255];
    snprintf(format, sizeof(format), "GMT%s-%%Y.%%m.%%d-%%H.%%M.%%S", zone);
    if (strftime(buf, size, format, &broken) == 0 && size > 0) buf[0] = '\0';
    return 0;
  }
  if (gmtime_r(&when, &broken) == nullptr) {
    VELA_SET_ERROR(VLIB_ERR_OPERATION_FAILED);
    return -1;
  }
  // A buffer too small leaves an empty name rather than undefined bytes.
  if (strftime(buf, size, "GMT-%Y.%m.%d-%H.%M.%S", &broken) == 0 && size > 0) buf[0] = '\0';
  return 0;
}

}  // namespace VelaBtrfsUsage::Utils
