// Private to the platform library: running the C++ inside a C call.
#ifndef VELA_PLATFORM_GUARDED_CALL_H_
#define VELA_PLATFORM_GUARDED_CALL_H_

#include <new>

#include "vela/vlib_error.h"

namespace vela::platform {

// Runs `call`, which builds C++ objects: running out of memory is the
// call's error (-1, VLIB_ERR_OUT_OF_MEMORY), not an exception through C.
template <typename Call>
int GuardedCall(Call call) {
  try {
    return call();
  } catch (const std::bad_alloc&) {
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
}

}  // namespace vela::platform

#endif  // VELA_PLATFORM_GUARDED_CALL_H_
