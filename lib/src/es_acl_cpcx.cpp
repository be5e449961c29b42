// The one entry through which the producer reaches this process. Runs on the bus's delivery thread, one
// message at a time.
#include "es_acl/es_acl_cpcx.h"
#include "es_acl/es_acl_wire.h"
#include "es_acl_diag.h"

void es_acl_cpcx_handler(uint64_t, uint32_t mtype, void* payload, uint32_t length, void**, uint32_t*) {
  DBG_INFO("Entering %s: length: %d", __func__, static_cast<int>(length));
  es_acl::trace(__func__, "message", mtype, length);
  switch (mtype) {
    case PCX_CMD_PROD_REQ:
      DBG_DETAIL("%s: mtype PCX_CMD_PROD_REQ", __func__);
      break;
    case PCX_CMD_PROD_SYNC_REQ:
      DBG_DETAIL("%s: mtype PCX_CMD_PROD_SYNC_REQ", __func__);
      break;
    case PCX_CMD_WRITE:
      DBG_DETAIL("%s: mtype is PCX_CMD_WRITE", __func__);
      if (payload == nullptr) DBG_ERR("%s: Handler called with no data", __func__);
      break;
    default:
      DBG_DETAIL("%s: mtype 0x%x is unknown", __func__, mtype);
      break;
  }
}
