/*
 * IPv6 discovery configuration.
 *
 * Until the IPv6 database is built, configuring it succeeds and changes
 * nothing, and there is no IPv6 table to allocate or flush.
 */
#include "vigil_config.h"

__attribute__((weak)) zek_Status VigilConfigIpv6Discovery(VigilFilter *filter,
                                                          bool dhcpv6, bool nd,
                                                          bool flush) {
   (void)filter, (void)dhcpv6, (void)nd, (void)flush;
   return ZEK_OK;
}

__attribute__((weak)) zek_Status VigilConfigNdExpiry(VigilFilter *filter,
                                                     u32 minutes) {
   (void)filter, (void)minutes;
   return ZEK_OK;
}

__attribute__((weak)) void VigilIgnoreListDelPortDbV6(VigilFilter *filter) {
   (void)filter;
}

__attribute__((weak)) zek_Status VigilV6VmiHashAlloc(VigilV6VmiHash **hash) {
   *hash = nullptr;
   return ZEK_OK;
}

__attribute__((weak)) void VigilFlushV6VmiByDiscoveryMethod(VigilFilter *filter,
                                                            u32 methods) {
   (void)filter, (void)methods;
}
