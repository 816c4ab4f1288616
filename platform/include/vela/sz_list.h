// A platform string list owned by a C++ scope: freed on every way out,
// whatever the list pointer has become (a push may move the list).
#ifndef VELA_SZ_LIST_H_
#define VELA_SZ_LIST_H_

#include "vela/vlib_szlist.h"

namespace vela::platform {

class SzList {
 public:
  // Capacity 1024, the size every list of the system starts with.
  SzList() : list_(VLIBCSzListAlloc(1024)) {}
  ~SzList() { VLIBCSzListFree(list_); }
  SzList(const SzList&) = delete;
  SzList& operator=(const SzList&) = delete;

  // False when the allocation failed.
  bool Ok() const { return list_ != nullptr; }
  PVLIBSZLIST Get() const { return list_; }
  PVLIBSZLIST* Address() { return &list_; }
  int Count() const { return list_ != nullptr ? list_->nItem : 0; }
  const char* At(int i) const { return VLIBCSzListGet(list_, i); }

 private:
  PVLIBSZLIST list_;
};

}  // namespace vela::platform

#endif  // VELA_SZ_LIST_H_
