#include "vela/vlib_string.h"

#include <cctype>
#include <cstring>

#include "vela/vlib_error.h"

int VLIBCStrTrimSpace(char* sz) {
  if (sz == nullptr) {
    VLIBCErrSet(VLIB_ERR_BAD_PARAMETERS);
    return -1;
  }
  // isspace() is undefined for negative chars: bytes of UTF-8 text would be.
  auto isSpace = [](char c) { return isspace(static_cast<unsigned char>(c)) != 0; };
  size_t end = strlen(sz);
  while (end > 0 && isSpace(sz[end - 1])) --end;
  size_t begin = 0;
  while (begin < end && isSpace(sz[begin])) ++begin;
  memmove(sz, sz + begin, end - begin);
  sz[end - begin] = '\0';
  return 0;
}
