// A growable list of strings. The list owns copies of its strings. Pushing
// may move the list to a larger allocation, which is why it takes the
// address of the caller's pointer.
#ifndef VELA_VLIB_SZLIST_H_
#define VELA_VLIB_SZLIST_H_

#include "vela/vlib_types.h"

typedef struct _tag_VLIBSZLIST {
  int nAlloc;        // capacity: strings that fit before the list must grow
  int nItem;         // number of strings held
  char* pszItem[];   // the strings, nItem of them
} VLIBSZLIST, *PVLIBSZLIST;

#ifdef __cplusplus
extern "C" {
#endif

// A new empty list with room for `capacity` strings (at least 1);
// NULL with VLIB_ERR_OUT_OF_MEMORY or VLIB_ERR_BAD_PARAMETERS on failure.
VELA_PLATFORM_API PVLIBSZLIST VLIBCSzListAlloc(int capacity);
// The string at `index`; NULL with VLIB_ERR_BAD_PARAMETERS when out of range.
VELA_PLATFORM_API const char* VLIBCSzListGet(const VLIBSZLIST* pList, int index);
// Appends a copy of `sz`, growing the list when it is full (then *ppList
// changes). Returns the new string's index, or -1 with the error set.
VELA_PLATFORM_API int VLIBCSzListPush(PVLIBSZLIST* ppList, const char* sz);
// Empties the list, keeping its capacity. 0, or -1 for a NULL list.
VELA_PLATFORM_API int VLIBCSzListRemoveAll(PVLIBSZLIST pList);
// Frees the list and its strings. NULL is accepted.
VELA_PLATFORM_API void VLIBCSzListFree(PVLIBSZLIST pList);

#ifdef __cplusplus
}
#endif

#endif  // VELA_VLIB_SZLIST_H_
