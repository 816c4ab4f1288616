#include "velabtrfssnapusage/reminder.h"

#include <json/json.h>

#include "intl_utils/file_names.h"
#include "intl_utils/log.h"
#include "velabtrfssnapusage/json_file.h"

namespace VelaBtrfsUsage::Utils {

namespace {

constexpr char kLogSource[] = "intl_utils/utils";
constexpr char kReminderKey[] = "reminder";

}  // namespace

bool ReminderStatusSet(bool reminder) {
  int fd = -1;
  bool written = false;
  if (!GeneralFileLock(VELA_REMINDER_RECORD_LOCK, true, fd)) {
    VELA_LOG(LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", VELA_REMINDER_RECORD_LOCK, 1);
  } else {
    Json::Value record = GetJsonAttrByPath(VELA_REMINDER_RECORD_FILE);
    // A record that is not an object is unusable; it is replaced.
    if (!record.isObject()) record = Json::Value(Json::objectValue);
    record[kReminderKey] = reminder;
    written = SetJsonAttrByPath(VELA_REMINDER_RECORD_FILE, record);
  }
  if (!GeneralFileUnlock(fd)) VELA_LOG(LOG_ERR, "Failed to unlock fd(%d)", fd);
  return written;
}

bool ReminderStatusGet(bool& reminder) {
  int fd = -1;
  bool found = false;
  if (!GeneralFileLock(VELA_REMINDER_RECORD_LOCK, false, fd)) {
    VELA_LOG(LOG_ERR, "Failed to lock the file, path: %s, exclusive: %d", VELA_REMINDER_RECORD_LOCK, 0);
  } else {
    const Json::Value record = GetJsonAttrByPath(VELA_REMINDER_RECORD_FILE);
    // Only a real boolean counts: anything else reads as "no stored value".
    if (record.isObject() && record.isMember(kReminderKey) && record[kReminderKey].isBool()) {
      reminder = record[kReminderKey].asBool();
      found = true;
    }
  }
  if (!GeneralFileUnlock(fd)) VELA_LOG(LOG_ERR, "Failed to unlock fd(%d)", fd);
  return found;
}

}  // namespace VelaBtrfsUsage::Utils
