// Validators shared by the web API handlers.
#ifndef VELABTRFSSNAPUSAGE_WEBAPI_UTILS_H_
#define VELABTRFSSNAPUSAGE_WEBAPI_UTILS_H_

#include <string>

namespace VelaBtrfsUsageWebAPI::Utils {

// True when the string is not empty; the validator of every "share_name".
bool IsNotEmpty(const std::string& value);

}  // namespace VelaBtrfsUsageWebAPI::Utils

#endif  // VELABTRFSSNAPUSAGE_WEBAPI_UTILS_H_
