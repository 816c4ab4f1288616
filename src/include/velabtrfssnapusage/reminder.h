// The reminder setting: whether the user interface reminds the user about
// snapshot usage. Kept in "/usr/local/velabtrfssnapusage/reminder_record".
#ifndef VELABTRFSSNAPUSAGE_REMINDER_H_
#define VELABTRFSSNAPUSAGE_REMINDER_H_

#include "velabtrfssnapusage/export.h"

namespace VelaBtrfsUsage::Utils {

// Stores the flag, keeping every other key of the record. True when written.
VELA_EXPORT bool ReminderStatusSet(bool reminder);
// True when a stored flag was found and copied into `reminder`; on false
// `reminder` is left as it was.
VELA_EXPORT bool ReminderStatusGet(bool& reminder);

}  // namespace VelaBtrfsUsage::Utils

#endif  // VELABTRFSSNAPUSAGE_REMINDER_H_
