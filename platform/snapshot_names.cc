#include "snapshot_names.h"

#include <cstdio>
#include <cstring>

namespace vela::platform {

namespace {

bool ParseDigits(const char* text, int count, int* value) {
  *value = 0;
  for (int i = 0; i < count; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
    *value = *value * 10 + (text[i] - '0');
  }
  return true;
}

bool IsLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int DaysInMonth(int year, int month) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// The "_ID" after a name shared with an older snapshot of the same second:
// decimal, no leading zero, at most 20 digits.
bool IsSameSecondSuffix(const char* text) {
  if (*text == '\0') return true;
  if (text[0] != '_' || text[1] < '1' || text[1] > '9') return false;
  const size_t digits = strspn(text + 1, "0123456789");
  return digits <= 20 && text[1 + digits] == '\0';
}

// "YYYY.MM.DD-HH.MM.SS" and then nothing or the same-second suffix, as UTC.
bool ParseUtcStamp(const char* text, time_t* time) {
  if (strlen(text) < 19 || text[4] != '.' || text[7] != '.' || text[10] != '-' || text[13] != '.' ||
      text[16] != '.' || !IsSameSecondSuffix(text + 19)) {
    return false;
  }
  int year, month, day, hour, minute, second;
  if (!ParseDigits(text, 4, &year) || !ParseDigits(text + 5, 2, &month) || !ParseDigits(text + 8, 2, &day) ||
      !ParseDigits(text + 11, 2, &hour) || !ParseDigits(text + 14, 2, &minute) ||
      !ParseDigits(text + 17, 2, &second)) {
    return false;
  }
  if (month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month) || hour > 23 || minute > 59 ||
      second > 59) {
    return false;
  }
  struct tm broken = {};
  broken.tm_year = year - 1900;
  broken.tm_mon = month - 1;
  broken.tm_mday = day;
  broken.tm_hour = hour;
  broken.tm_min = minute;
  broken.tm_sec = second;
  *time = timegm(&broken);
  return true;
}

}  // namespace

bool ParseSnapName(const char* name, time_t* time) {
  if (name == nullptr || strncmp(name, "GMT", 3) != 0) return false;
  const char* p = name + 3;
  if (p[0] != '+' && p[0] != '-') return false;
  const int sign = p[0] == '+' ? 1 : -1;
  int hours = 0, minutes = 0;
  const char* stamp;
  if (p[0] == '-' && ParseDigits(p + 1, 4, &hours) && p[5] == '.') {
    hours = 0;  // the UTC form: the digits were the year
    stamp = p + 1;
  } else if (ParseDigits(p + 1, 2, &hours) && p[3] == '-') {
    stamp = p + 4;
  } else if (ParseDigits(p + 1, 2, &hours) && ParseDigits(p + 3, 2, &minutes) && p[5] == '-' && minutes != 0) {
    stamp = p + 6;
  } else {
    return false;
  }
  // Zones in use lie between UTC-12 and UTC+14.
  if (hours > 14 || minutes > 59) return false;
  time_t local;
  if (!ParseUtcStamp(stamp, &local)) return false;
  *time = local - sign * (hours * 3600 + minutes * 60);
  return true;
}

bool MakeSnapName(time_t t, bool localTime, char* buf, size_t size) {
  struct tm broken;
  char format[64] = "GMT-%Y.%m.%d-%H.%M.%S";
  if (localTime) {
    tzset();
    if (localtime_r(&t, &broken) == nullptr) return false;
    char zone[16] = {};
    strftime(zone, sizeof(zone), "%z", &broken);
    // Whole-hour offsets are written with the hours only: +0800 -> +08.
    if (strlen(zone) == 5 && zone[3] == '0' && zone[4] == '0') zone[3] = '\0';
    snprintf(format, sizeof(format), "GMT%s-%%Y.%%m.%%d-%%H.%%M.%%S", zone);
  } else if (gmtime_r(&t, &broken) == nullptr) {
    return false;
  }
  if (strftime(buf, size, format, &broken) == 0 && size > 0) buf[0] = '\0';
  return true;
}

std::string ListedSnapName(time_t t, uint64_t subvolId, bool sameSecondAsOlder) {
  char name[64] = "";
  MakeSnapName(t, false, name, sizeof(name));
  return sameSecondAsOlder ? std::string(name) + "_" + std::to_string(subvolId) : std::string(name);
}

}  // namespace vela::platform
