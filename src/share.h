// The web API "VELA.Snap.Usage.Share", version 1: the method table the web
// server loads and the seven request handlers.
#ifndef VELABTRFSSNAPUSAGE_SHARE_H_
#define VELABTRFSSNAPUSAGE_SHARE_H_

#include "vela/webapi.h"

namespace VelaBtrfsUsageWebAPI {

class Share {
 public:
  static void Start(VELA::APIRequest* request, VELA::APIResponse* response);
  static void Status(VELA::APIRequest* request, VELA::APIResponse* response);
  static void GetReport(VELA::APIRequest* request, VELA::APIResponse* response);
  static void Cancel(VELA::APIRequest* request, VELA::APIResponse* response);
  static void Clean(VELA::APIRequest* request, VELA::APIResponse* response);
  static void GetConf(VELA::APIRequest* request, VELA::APIResponse* response);
  static void SetConf(VELA::APIRequest* request, VELA::APIResponse* response);
};

}  // namespace VelaBtrfsUsageWebAPI

#define VELA_MODULE_EXPORT __attribute__((visibility("default")))

extern "C" {
// Seven method rows in a fixed order, then one all-zero row.
VELA_MODULE_EXPORT extern const VELA_WEBAPI_ENTRY gTable[];
// The address of gTable's first row. Does nothing else.
VELA_MODULE_EXPORT const VELA_WEBAPI_ENTRY* GetAPITable(void);
}

#endif  // VELABTRFSSNAPUSAGE_SHARE_H_
