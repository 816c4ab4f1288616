// A map from strings to strings, with keys enumerated in ascending order.
#ifndef VELA_VLIB_SZHASH_H_
#define VELA_VLIB_SZHASH_H_

#include "vela/vlib_szlist.h"
#include "vela/vlib_types.h"

typedef struct _tag_VLIBSZHASH VLIBSZHASH, *PVLIBSZHASH;

#ifdef __cplusplus
extern "C" {
#endif

// A new empty hash; `capacity` is a hint. NULL with the error set on failure.
VELA_PLATFORM_API PVLIBSZHASH VLIBCSzHashAlloc(int capacity);
// Sets `key` to a copy of `value`, replacing an earlier value. 0 or -1.
VELA_PLATFORM_API int VLIBCSzHashSetValue(PVLIBSZHASH* ppHash, const char* key, const char* value);
// The value of `key`, or NULL (VLIB_ERR_NOT_FOUND) when there is none.
// The pointer stays valid until the key is set again or the hash is freed.
VELA_PLATFORM_API const char* VLIBCSzHashGetValue(const VLIBSZHASH* pHash, const char* key);
// Pushes every key onto *ppList in ascending order. The number of keys, or -1.
VELA_PLATFORM_API int VLIBCSzHashEnumKey(const VLIBSZHASH* pHash, PVLIBSZLIST* ppList);
// Frees the hash. NULL is accepted.
VELA_PLATFORM_API void VLIBCSzHashFree(PVLIBSZHASH pHash);

#ifdef __cplusplus
}
#endif

#endif  // VELA_VLIB_SZHASH_H_
