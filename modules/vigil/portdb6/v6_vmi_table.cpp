/*
 * The IPv6 binding table.
 *
 * Until the IPv6 database is built, it holds nothing: nothing expires and
 * aging has nothing to do.
 */
#include "vigil_v6.h"

__attribute__((weak)) i64 VigilV6FirstExpiry(VigilFilter *filter) {
   (void)filter;
   return VIGIL_AGING_KEY_NONE;
}

__attribute__((weak)) i64 VigilDhcpV6FirstReqExpiry(VigilFilter *filter) {
   (void)filter;
   return VIGIL_AGING_KEY_NONE;
}

__attribute__((weak)) void VigilPortDbV6DoAging(VigilFilter *filter, i64 now) {
   (void)filter, (void)now;
}
