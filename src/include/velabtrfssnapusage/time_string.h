// Status time strings ("%Y.%m.%d-%H.%M.%S", local time, no zone mark) and
// snapshot names ("GMT" + zone + "-%Y.%m.%d-%H.%M.%S").
#ifndef VELABTRFSSNAPUSAGE_TIME_STRING_H_
#define VELABTRFSSNAPUSAGE_TIME_STRING_H_

#include <string>

#include "vela/vlib_types.h"
#include "velabtrfssnapusage/export.h"

namespace VelaBtrfsUsage::Utils {

// Parses a status time string as local time. False (platform error 0x2A00)
// when it does not parse or does not convert.
VELA_EXPORT bool TimeStringToTime_T(std::string timeString, long& t);
// The status time string of `t` in local time.
VELA_EXPORT bool Time_tToTimeString(const long& t, std::string& out);
// The status time string of now.
VELA_EXPORT bool NowTimeStringGet(std::string& out);
// Writes the snapshot name of `t` into `buf`: with localTime exactly TRUE
// the local form ("GMT+08-2024.03.05-17.04.09", "GMT+0530-..."), with any
// other value the UTC form ("GMT-2024.03.05-09.04.09"). 0, or -1.
VELA_EXPORT int SnapNameGenerateByTime(char* buf, unsigned long size, long t, BOOL localTime);

}  // namespace VelaBtrfsUsage::Utils

#endif  // VELABTRFSSNAPUSAGE_TIME_STRING_H_
