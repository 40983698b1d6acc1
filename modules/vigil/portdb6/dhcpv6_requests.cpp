/*
 * Pending DHCPv6 requests: deleting one, and (once DHCPv6 parsing is built)
 * deleting the addresses a request named.
 */
#include "vigil_log.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"
#include "vigil_workers.h"

void VigilDelDhcpV6Req(VigilFilter *filter, VigilDhcpV6Req *req) {
   Vigil_AssertFilterIsLocked(filter, true);
   u32 xid = req->msg != nullptr && req->msgLen >= 4
                ? ((u32)req->msg[1] << 24) | ((u32)req->msg[2] << 16) | ((u32)req->msg[3] << 8)
                : 0;
   VIGIL_LOG_INFO("Filter %#x Deleting DHCPv6 pending req:vlan = %u xId = %#x numReq = %d",
                  filter->portID, req->vlanId, xid, (int)filter->numDhcpV6Reqs);
   VigilListRemove(&req->reqLinks);
   filter->dhcpV6ReqBytes -= (u32)req->clientIdLen + req->msgLen;
   Vigil_HeapFree(req);
   filter->numDhcpV6Reqs--;
   VigilUpdateFilterAging(filter);
}

/* Until DHCPv6 messages can be parsed, a request names no address. */
__attribute__((weak)) void VigilDhcpV6DelReqAddr(VigilFilter *filter,
                                                 VigilDhcpV6Req *req) {
   (void)filter, (void)req;
}
