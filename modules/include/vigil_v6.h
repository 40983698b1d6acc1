/*
 * The IPv6 port database as the rest of the module reaches it.
 */
#ifndef VIGIL_V6_H
#define VIGIL_V6_H

#include "vigil_filter.h"

/* Expiry of the first running IPv6 binding and of the first pending DHCPv6
 * request; callers check the counts first. */
i64 VigilV6FirstExpiry(VigilFilter *filter);
i64 VigilDhcpV6FirstReqExpiry(VigilFilter *filter);
void VigilPortDbV6DoAging(VigilFilter *filter, i64 now);

#endif /* VIGIL_V6_H */
