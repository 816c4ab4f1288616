// Log line helpers. Every message goes to syslog and begins with the source
// name and the line ("%s:%d "); each source file defines its source name as
// `kLogSource`. The formats stay whole in the calls, so a message found in a
// log can be found in the code with grep.
#ifndef VELABTRFSSNAPUSAGE_INTL_UTILS_LOG_H_
#define VELABTRFSSNAPUSAGE_INTL_UTILS_LOG_H_

#include <syslog.h>
#include <unistd.h>

#include "vela/vlib_error.h"

#define VELA_LOG(priority, format, ...) \
  syslog((priority), "%s:%d " format, kLogSource, __LINE__, ##__VA_ARGS__)

// Suffix and arguments naming the platform's last error and where it was set.
#define VELA_ERR_FMT "[0x%04X %s:%d]"
#define VELA_ERR_ARGS VLIBCErrGet(), VLIBCErrorGetFile(), VLIBCErrorGetLine()

// Messages of objects that know their operation and task:
// "%s:%d (%s)[%d]: " or, with a task ID, "%s:%d (%s)[%d][%s]: ".
#define VELA_LOG_TASK(priority, function, taskID, format, ...)                                 \
  do {                                                                                         \
    if ((taskID).empty()) {                                                                    \
      syslog((priority), "%s:%d (%s)[%d]: " format, kLogSource, __LINE__, (function), getpid(), \
             ##__VA_ARGS__);                                                                   \
    } else {                                                                                   \
      syslog((priority), "%s:%d (%s)[%d][%s]: " format, kLogSource, __LINE__, (function),      \
             getpid(), (taskID).c_str(), ##__VA_ARGS__);                                       \
    }                                                                                          \
  } while (0)

// An invalid argument: logged with the condition that failed (as text) and
// recorded as the platform error VLIB_ERR_BAD_PARAMETERS.
#define VELA_INVALID_ARGUMENT(conditionText)                                              \
  do {                                                                                    \
    VELA_LOG(LOG_ERR, "Invaild Argument (%s)=[%d]\n", (conditionText), 0);               \
    VLIBCErrSetEx(VLIB_ERR_BAD_PARAMETERS, kLogSource, __LINE__);                         \
  } while (0)

// Records a platform error at the caller's place, under its source name.
#define VELA_SET_ERROR(code) VLIBCErrSetEx((code), kLogSource, __LINE__)

#endif  // VELABTRFSSNAPUSAGE_INTL_UTILS_LOG_H_
