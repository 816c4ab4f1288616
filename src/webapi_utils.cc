#include "webapi_utils.h"

namespace VelaBtrfsUsageWebAPI::Utils {

bool IsNotEmpty(const std::string& value) { return !value.empty(); }

}  // namespace VelaBtrfsUsageWebAPI::Utils
