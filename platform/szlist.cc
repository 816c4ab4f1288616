#include "vela/vlib_szlist.h"

#include <cstdlib>
#include <cstring>

#include "vela/vlib_error.h"

namespace {

size_t AllocationSize(int capacity) {
  return sizeof(VLIBSZLIST) + sizeof(char*) * static_cast<size_t>(capacity);
}

}  // namespace

PVLIBSZLIST VLIBCSzListAlloc(int capacity) {
  if (capacity < 0) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return nullptr;
  }
  if (capacity == 0) capacity = 1;
  auto* list = static_cast<PVLIBSZLIST>(calloc(1, AllocationSize(capacity)));
  if (list == nullptr) {
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  list->nAlloc = capacity;
  list->nItem = 0;
  return list;
}

const char* VLIBCSzListGet(const VLIBSZLIST* pList, int index) {
  if (pList == nullptr || index < 0 || index >= pList->nItem) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return nullptr;
  }
  return pList->pszItem[index];
}

int VLIBCSzListPush(PVLIBSZLIST* ppList, const char* sz) {
  if (ppList == nullptr || *ppList == nullptr || sz == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  PVLIBSZLIST list = *ppList;
  if (list->nItem == list->nAlloc) {
    if (list->nAlloc > (1 << 28)) {
      VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
      return -1;
    }
    const int grown = list->nAlloc * 2;
    auto* bigger = static_cast<PVLIBSZLIST>(realloc(list, AllocationSize(grown)));
    if (bigger == nullptr) {
      VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
      return -1;
    }
    bigger->nAlloc = grown;
    list = bigger;
    *ppList = list;
  }
  char* copy = strdup(sz);
  if (copy == nullptr) {
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  list->pszItem[list->nItem] = copy;
  return list->nItem++;
}

int VLIBCSzListRemoveAll(PVLIBSZLIST pList) {
  if (pList == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  for (int i = 0; i < pList->nItem; ++i) {
    free(pList->pszItem[i]);
    pList->pszItem[i] = nullptr;
  }
  pList->nItem = 0;
  return 0;
}

void VLIBCSzListFree(PVLIBSZLIST pList) {
  if (pList == nullptr) return;
  VLIBCSzListRemoveAll(pList);
  free(pList);
}
