/*
 * Configuration of a filter from the property blobs: security features and
 * white lists, IPv4 discovery, the port ignore list.  All of it needs the
 * filter's configuration lock held for write.
 */
#ifndef VIGIL_CONFIG_H
#define VIGIL_CONFIG_H

#include "vigil_filter.h"
#include "vigil_whitelist.h"

#define VIGIL_SECURITY_HDR_LEN 32u
#define VIGIL_BPDU_ALL_FILTERED 0x7fffffffull
#define VIGIL_FC_INVALIDATE_SECURITY 26u
#define VIGIL_GLX_CMD_CLASS 0xfffu

/* The security blob: a header, then the switch list, the port list and the
 * BPDU exclusions. */
struct __attribute__((packed)) VigilSecurityConfig {
   u32 featuresEnabled;
   u32 rxBcastRateLimit;
   u32 txBcastRateLimit;
   u32 rxMcastRateLimit;
   u32 txMcastRateLimit;
   u32 switchWhiteListSize;
   u32 portWhiteListSize;
   u32 bpduExclusionListSize;
   u8 lists[];
};
static_assert(sizeof(VigilSecurityConfig) == VIGIL_SECURITY_HDR_LEN, "32-byte header");
static_assert(offsetof(VigilSecurityConfig, switchWhiteListSize) == 20, "at 20");
static_assert(offsetof(VigilSecurityConfig, portWhiteListSize) == 24, "at 24");
static_assert(offsetof(VigilSecurityConfig, bpduExclusionListSize) == 28, "at 28");

/* The ignore list blob: a count, then that many entries. */
struct __attribute__((packed)) VigilIgnoreListConfig {
   u32 count;
   VigilWhiteListEntry entries[];
};

/* The command that tells the accelerated datapath whether the port has a
 * white list. */
struct __attribute__((packed)) VigilGlxPortConf {
   char name[128];
   u32 valueCount;
   u8 pad[4];
   u8 isPortWardenEnabled;
};
static_assert(sizeof(VigilGlxPortConf) == 137, "137-byte command");
static_assert(offsetof(VigilGlxPortConf, isPortWardenEnabled) == 136, "at 136");

VIGIL_MUST_CHECK zek_Status VigilConfigSecurity(VigilFilter *filter, const VigilSecurityConfig *cfg);
/* Frees both white lists and their indexes, taking the port list's entries
 * out of the flow cache's warden hash.  The caller holds the write lock. */
void VigilDropWhiteLists(VigilFilter *filter);
VIGIL_MUST_CHECK zek_Status VigilValidateWhiteList(VigilFilter *filter,
                                  const VigilWhiteListEntry *entries, u32 count);
VIGIL_MUST_CHECK zek_Status VigilGetBpduFilterList(VigilFilter *filter, const VigilSecurityConfig *cfg,
                                  u64 *bitmap);
VIGIL_MUST_CHECK zek_Status VigilConfigDiscovery(VigilFilter *filter, const u32 *bits, bool flush);
VIGIL_MUST_CHECK zek_Status VigilConfigIpv4Discovery(VigilFilter *filter, bool dhcp, bool arp,
                                    bool flush);
VIGIL_MUST_CHECK zek_Status VigilConfigDiscoveryIL(VigilFilter *filter,
                                  const VigilIgnoreListConfig *blob);
VIGIL_MUST_CHECK zek_Status VigilValidateIgnoreList(VigilFilter *filter,
                                   const VigilWhiteListEntry *entry);

/* Of the IPv6 database. */
VIGIL_MUST_CHECK zek_Status VigilConfigIpv6Discovery(VigilFilter *filter, bool dhcpv6, bool nd,
                                    bool flush);
VIGIL_MUST_CHECK zek_Status VigilConfigNdExpiry(VigilFilter *filter, u32 minutes);
void VigilIgnoreListDelPortDbV6(VigilFilter *filter);
VIGIL_MUST_CHECK zek_Status VigilV6VmiHashAlloc(VigilV6VmiHash **hash);
void VigilFlushV6VmiByDiscoveryMethod(VigilFilter *filter, u32 methods);

#endif /* VIGIL_CONFIG_H */
