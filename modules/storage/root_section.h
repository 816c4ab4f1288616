// Root's effective ids for the length of a scope, then the caller's again.
// A listing must see every share and snapshot, also those whose
// directories are closed to the host's service account.
#ifndef VELA_STORAGE_ROOT_SECTION_H_
#define VELA_STORAGE_ROOT_SECTION_H_

#include <sys/types.h>

namespace VelaStorageWebAPI {

class RootSection {
 public:
  RootSection();
  ~RootSection();
  RootSection(const RootSection&) = delete;
  RootSection& operator=(const RootSection&) = delete;

 private:
  uid_t uid_;
  gid_t gid_;
};

}  // namespace VelaStorageWebAPI

#endif  // VELA_STORAGE_ROOT_SECTION_H_
