#include "vela/vlib_szhash.h"

#include <map>
#include <new>
#include <string>

#include "vela/vlib_error.h"

struct _tag_VLIBSZHASH {
  std::map<std::string, std::string> entries;
};

PVLIBSZHASH VLIBCSzHashAlloc(int capacity) {
  if (capacity < 0) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return nullptr;
  }
  auto* hash = new (std::nothrow) VLIBSZHASH;
  if (hash == nullptr) VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
  return hash;
}

int VLIBCSzHashSetValue(PVLIBSZHASH* ppHash, const char* key, const char* value) {
  if (ppHash == nullptr || *ppHash == nullptr || key == nullptr || value == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  try {
    (*ppHash)->entries[key] = value;
  } catch (const std::bad_alloc&) {
    VLIBCErrSet(VLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  return 0;
}

const char* VLIBCSzHashGetValue(const VLIBSZHASH* pHash, const char* key) {
  if (pHash == nullptr || key == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return nullptr;
  }
  auto it = pHash->entries.find(key);
  if (it == pHash->entries.end()) {
    VLIBCErrSet(VLIB_ERR_NOT_FOUND);
    return nullptr;
  }
  return it->second.c_str();
}

int VLIBCSzHashEnumKey(const VLIBSZHASH* pHash, PVLIBSZLIST* ppList) {
  if (pHash == nullptr || ppList == nullptr || *ppList == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  for (const auto& entry : pHash->entries) {
    if (VLIBCSzListPush(ppList, entry.first.c_str()) < 0) return -1;
  }
  return static_cast<int>(pHash->entries.size());
}

void VLIBCSzHashFree(PVLIBSZHASH pHash) { delete pHash; }
