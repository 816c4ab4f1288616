// The storage module's answers to failed requests.
#ifndef VELA_STORAGE_ERROR_CODES_H_
#define VELA_STORAGE_ERROR_CODES_H_

namespace VelaStorageWebAPI {

constexpr int kErrorFailure = 1;       // the platform could not do it
constexpr int kErrorBadParameter = 3;  // a parameter missing, of the wrong type or impossible
constexpr int kErrorNotFound = 8;      // no such share

}  // namespace VelaStorageWebAPI

#endif  // VELA_STORAGE_ERROR_CODES_H_
