/*
 * Turning property blobs into a filter's live configuration.
 *
 * All-or-nothing: a blob is checked and its copies made before the first
 * field of the filter changes, so a refused blob leaves the old
 * configuration running.  The port white list is mirrored in the flow
 * cache's warden hash.
 */
#include <cstring>

#include "fc.h"
#include "vigil_config.h"
#include "vigil_log.h"
#include "vigil_packet.h"
#include "vigil_vmi.h"
#include "vigil_whitelist_index.h"

#define VIGIL_MAX_VLAN_ID 4094u

static const VigilWhiteListEntry *VigilSwitchListOf(const VigilSecurityConfig *cfg) {
   return (const VigilWhiteListEntry *)cfg->lists;
}

static const VigilWhiteListEntry *VigilPortListOf(const VigilSecurityConfig *cfg) {
   return VigilSwitchListOf(cfg) + cfg->switchWhiteListSize;
}

static const u8 *VigilBpduExclusionsOf(const VigilSecurityConfig *cfg) {
   return (const u8 *)(VigilPortListOf(cfg) + cfg->portWhiteListSize);
}

/* The VLAN and MAC checks that white and ignore lists share. */
VIGIL_MUST_CHECK static zek_Status VigilValidateVlanAndMac(VigilFilter *filter,
                                          const VigilWhiteListEntry *entry) {
   if ((entry->flags & VIGIL_WL_VLAN) && entry->vlan > VIGIL_MAX_VLAN_ID) {
      VIGIL_LOG_ERROR("Filter %#x Vlan ID cannot exceed 4094", filter->portID);
      return VIGIL_STATUS_BAD_PARAM;
   }
   if ((entry->flags & VIGIL_WL_MAC) && (entry->mac[0] & 1)) {
      VIGIL_LOG_ERROR("Filter %#x Not a unicast mac address: " VIGIL_MAC_FMT,
                      filter->portID, VIGIL_MAC_ARGS(entry->mac));
      return VIGIL_STATUS_BAD_PARAM;
   }
   return ZEK_OK;
}

zek_Status VigilValidateWhiteList(VigilFilter *filter,
                                  const VigilWhiteListEntry *entries, u32 count) {
   for (u32 i = 0; i < count; i++) {
      const VigilWhiteListEntry *entry = &entries[i];
      u32 addrBits = entry->flags & (VIGIL_WL_IPV4 | VIGIL_WL_IPV6);
      if (addrBits == VIGIL_WL_IPV4 && entry->prefixLen >= 33) {
         VIGIL_LOG_ERROR("Filter %#x Invalid IPv4 prefix len: %u.%u.%u.%u/ %u",
                         filter->portID, entry->ip[0], entry->ip[1], entry->ip[2],
                         entry->ip[3], entry->prefixLen);
         return VIGIL_STATUS_BAD_PARAM;
      }
      if (addrBits == VIGIL_WL_IPV6 && entry->prefixLen > 128) {
         u16 g[8];
         for (u32 k = 0; k < 8; k++) {
            g[k] = VigilGetBe16(entry->ip + 2 * k);
         }
         VIGIL_LOG_ERROR("Filter %#x Invalid IPv6 prefix len: "
                         "%hx:%hx:%hx:%hx:%hx:%hx:%hx:%hx/ %u",
                         filter->portID, g[0], g[1], g[2], g[3], g[4], g[5], g[6],
                         g[7], entry->prefixLen);
         return VIGIL_STATUS_BAD_PARAM;
      }
      if ((addrBits == 0 || addrBits == (VIGIL_WL_IPV4 | VIGIL_WL_IPV6)) &&
          (entry->flags & (VIGIL_WL_VLAN | VIGIL_WL_MAC)) == 0) {
         VIGIL_LOG_ERROR("Filter %#x Invalid Whitelist entry specify atleast one "
                         "of Vlan/Mac/IP",
                         filter->portID);
         return VIGIL_STATUS_BAD_PARAM;
      }
      zek_Status status = VigilValidateVlanAndMac(filter, entry);
      if (status != ZEK_OK) {
         return status;
      }
   }
   return ZEK_OK;
}

/* Starts with every listed BPDU address filtered and clears the bit of each
 * excluded address. */
zek_Status VigilGetBpduFilterList(VigilFilter *filter, const VigilSecurityConfig *cfg,
                                  u64 *bitmap) {
   *bitmap = VIGIL_BPDU_ALL_FILTERED;
   if ((cfg->featuresEnabled & VIGIL_FEAT_BPDU_FILTER) == 0 ||
       cfg->bpduExclusionListSize == 0) {
      return ZEK_OK;
   }
   const u8 *macs = VigilBpduExclusionsOf(cfg);
   for (u32 i = 0; i < cfg->bpduExclusionListSize; i++) {
      const u8 *mac = macs + 6 * i;
      u32 n = 0;
      while (n < numSupportedBpdus &&
             memcmp(mac, supportedBpduFilterMacs[n], VIGIL_ETH_ALEN) != 0) {
         n++;
      }
      if (n == numSupportedBpdus) {
         VIGIL_LOG_ERROR("Filter %#x Invalid BPDU exclusion mac: " VIGIL_MAC_FMT,
                         filter->portID, VIGIL_MAC_ARGS(mac));
         return VIGIL_STATUS_BAD_PARAM;
      }
      *bitmap &= ~(1ull << n);
   }
   if (*bitmap == 0) {
      VIGIL_LOG_ERROR("Filter %#x BPDU exclusion list cannot remove all entries "
                      "from BPDU filter list",
                      filter->portID);
      return VIGIL_STATUS_BAD_PARAM;
   }
   return ZEK_OK;
}

/* A heap copy of `count` entries, or null. */
static VigilWhiteListEntry *VigilCopyList(const VigilWhiteListEntry *entries,
                                          u32 count) {
   u32 size = count * (u32)sizeof(VigilWhiteListEntry);
   VigilWhiteListEntry *copy = (VigilWhiteListEntry *)Vigil_HeapAlloc(size);
   if (copy != nullptr) {
      memcpy(copy, entries, size);
   }
   return copy;
}

static void VigilArmLimiter(VigilRateLimiter *limiter, u32 limit, u64 now) {
   limiter->periodSecs = 1;
   limiter->limit = limit;
   limiter->windowEnd = now;
   limiter->count = 0;
}

static void VigilSendGlxPortConf(VigilFilter *filter, bool isPortWardenEnabled) {
   VigilGlxPortConf cmd;
   memset(&cmd, 0, sizeof cmd);
   zek_Strncpy(cmd.name, "oxa.glx.warden.port.conf", sizeof cmd.name);
   cmd.valueCount = 1;
   cmd.isPortWardenEnabled = isPortWardenEnabled ? 1 : 0;
   if (zek_GlxPortCommand(filter->portID, VIGIL_GLX_CMD_CLASS, 0, &cmd, sizeof cmd,
                          nullptr, 0) != ZEK_OK) {
      VIGIL_LOG_ERROR("Filter %#x Setting isPortWardenEnabled flag on port failed",
                      filter->portID);
   }
}

/* The flow cache's warden hash of the filter's portset, null without one. */
static FC_WardenHash *VigilWardenHashOf(zek_PortID portID, zek_PortsetHandle *portset) {
   if (zek_PortsetFindByPortID(portID, portset) != ZEK_OK) {
      *portset = nullptr;
      return nullptr;
   }
   FC_PortsetData *fcData = FC_GetPortsetData(*portset);
   return fcData != nullptr ? fcData->wardenHash : nullptr;
}

/* Takes the entries of the port white list out of the warden hash. */
static void VigilRemovePortListFromWardenHash(VigilFilter *filter,
                                              FC_WardenHash *wardenHash) {
   if (filter->portWhiteList == nullptr || wardenHash == nullptr) {
      return;
   }
   for (u32 i = 0; i < filter->portWhiteListSize; i++) {
      const VigilWhiteListEntry *entry = &filter->portWhiteList[i];
      FC_WardenHashRemove(wardenHash, entry, entry->flags & VIGIL_WL_IPV6,
                          filter->portID);
   }
}

/* The index of a list long enough to be worth one; null for a short list,
 * and when the heap has no room: the warden then scans the list, with the
 * same result. */
static VigilWhiteListIndex *VigilIndexList(const VigilWhiteListEntry *list, u32 size) {
   VigilWhiteListIndex *index = nullptr;
   if (list != nullptr && size >= VIGIL_WL_INDEX_MIN_ENTRIES) {
      /* On failure the index stays null and nothing else changes. */
      (void)Vigil_BuildWhiteListIndex(list, size, &index);
   }
   return index;
}

void VigilDropWhiteLists(VigilFilter *filter) {
   Vigil_AssertFilterIsLocked(filter, true);
   Vigil_FreeWhiteListIndex(filter->switchWhiteListIndex);
   filter->switchWhiteListIndex = nullptr;
   Vigil_HeapFree(filter->switchWhiteList);
   filter->switchWhiteList = nullptr;
   zek_PortsetHandle portset;
   VigilRemovePortListFromWardenHash(filter, VigilWardenHashOf(filter->portID, &portset));
   Vigil_FreeWhiteListIndex(filter->portWhiteListIndex);
   filter->portWhiteListIndex = nullptr;
   Vigil_HeapFree(filter->portWhiteList);
   filter->portWhiteList = nullptr;
}

zek_Status VigilConfigSecurity(VigilFilter *filter, const VigilSecurityConfig *cfg) {
   Vigil_AssertFilterIsLocked(filter, true);
   zek_PortsetHandle portset;
   FC_WardenHash *wardenHash = VigilWardenHashOf(filter->portID, &portset);
   u32 features = cfg->featuresEnabled;
   bool switchWarden = (features & VIGIL_FEAT_SWITCH_WARDEN) != 0;
   bool portWarden = (features & VIGIL_FEAT_PORT_WARDEN) != 0;

   VIGIL_LOG_VERBOSE(1,
                     "Filter %#x featuresEnabled=0x%x, whitelist size for switch=%d, "
                     "port=%d, bpdu=%d",
                     filter->portID, features, (int)cfg->switchWhiteListSize,
                     (int)cfg->portWhiteListSize, (int)cfg->bpduExclusionListSize);
   VIGIL_LOG_VERBOSE(1,
                     "Filter %#x Rate limit for RxBcast=%d, TxBcast=%d, RxMcast=%d, "
                     "TxMcast=%d",
                     filter->portID, (int)cfg->rxBcastRateLimit,
                     (int)cfg->txBcastRateLimit, (int)cfg->rxMcastRateLimit,
                     (int)cfg->txMcastRateLimit);
   if ((switchWarden && cfg->switchWhiteListSize == 0) ||
       (portWarden && cfg->portWhiteListSize == 0)) {
      VIGIL_LOG_ERROR("Filter %#x Whitelist empty, IP/ARP traffic may get black holed",
                      filter->portID);
      VIGIL_LOG_ERROR("Filter %#x Switch whitelist %s, size %d; port whitelist - %s, "
                      "size %d",
                      filter->portID, switchWarden ? "ON" : "OFF",
                      (int)cfg->switchWhiteListSize, portWarden ? "ON" : "OFF",
                      (int)cfg->portWhiteListSize);
   }

   zek_Status status;
   bool useSwitchList = switchWarden && cfg->switchWhiteListSize != 0;
   bool usePortList = portWarden && cfg->portWhiteListSize != 0;
   if (useSwitchList) {
      status = VigilValidateWhiteList(filter, VigilSwitchListOf(cfg),
                                      cfg->switchWhiteListSize);
      if (status != ZEK_OK) {
         return status;
      }
   }
   if (usePortList) {
      status = VigilValidateWhiteList(filter, VigilPortListOf(cfg),
                                      cfg->portWhiteListSize);
      if (status != ZEK_OK) {
         return status;
      }
   }

   VigilWhiteListEntry *switchList = nullptr;
   VigilWhiteListEntry *portList = nullptr;
   if (useSwitchList) {
      switchList = VigilCopyList(VigilSwitchListOf(cfg), cfg->switchWhiteListSize);
      if (switchList == nullptr) {
         VIGIL_LOG_ERROR("Filter %#x Alloc for switch whitelist of size %d failed",
                         filter->portID,
                         (int)(cfg->switchWhiteListSize * sizeof(VigilWhiteListEntry)));
         return VIGIL_STATUS_NO_MEMORY;
      }
   }
   if (usePortList) {
      portList = VigilCopyList(VigilPortListOf(cfg), cfg->portWhiteListSize);
      if (portList == nullptr) {
         VIGIL_LOG_ERROR("Filter %#x Alloc for port whitelist of size %d failed",
                         filter->portID,
                         (int)(cfg->portWhiteListSize * sizeof(VigilWhiteListEntry)));
         Vigil_HeapFree(switchList);
         return VIGIL_STATUS_NO_MEMORY;
      }
   }
   u64 bpduBitmap;
   status = VigilGetBpduFilterList(filter, cfg, &bpduBitmap);
   if (status != ZEK_OK) {
      Vigil_HeapFree(switchList);
      Vigil_HeapFree(portList);
      return status;
   }

   VigilWhiteListIndex *switchIndex = VigilIndexList(switchList, cfg->switchWhiteListSize);
   VigilWhiteListIndex *portIndex = VigilIndexList(portList, cfg->portWhiteListSize);

   /* From here on the configuration is committed. */
   u64 now = zek_GetTimerCycles();
   if (features & VIGIL_FEAT_TX_BCAST_LIMIT) {
      VigilArmLimiter(&filter->txBcastLimiter, cfg->txBcastRateLimit, now);
   }
   if (features & VIGIL_FEAT_RX_BCAST_LIMIT) {
      VigilArmLimiter(&filter->rxBcastLimiter, cfg->rxBcastRateLimit, now);
   }
   if (features & VIGIL_FEAT_TX_MCAST_LIMIT) {
      VigilArmLimiter(&filter->txMcastLimiter, cfg->txMcastRateLimit, now);
   }
   if (features & VIGIL_FEAT_RX_MCAST_LIMIT) {
      VigilArmLimiter(&filter->rxMcastLimiter, cfg->rxMcastRateLimit, now);
   }

   Vigil_FreeWhiteListIndex(filter->switchWhiteListIndex);
   Vigil_HeapFree(filter->switchWhiteList);
   VigilRemovePortListFromWardenHash(filter, wardenHash);
   Vigil_FreeWhiteListIndex(filter->portWhiteListIndex);
   Vigil_HeapFree(filter->portWhiteList);

   filter->featuresEnabled = cfg->featuresEnabled;
   filter->rxBcastRateLimit = cfg->rxBcastRateLimit;
   filter->txBcastRateLimit = cfg->txBcastRateLimit;
   filter->rxMcastRateLimit = cfg->rxMcastRateLimit;
   filter->txMcastRateLimit = cfg->txMcastRateLimit;
   filter->switchWhiteListSize = cfg->switchWhiteListSize;
   filter->portWhiteListSize = cfg->portWhiteListSize;
   filter->bpduExclusionListSize = cfg->bpduExclusionListSize;
   filter->switchWhiteList = switchList;
   filter->portWhiteList = portList;
   filter->switchWhiteListIndex = switchIndex;
   filter->portWhiteListIndex = portIndex;
   filter->bpduBitmap = bpduBitmap;
   memset(&filter->stats, 0, sizeof filter->stats);

   /* A port list in the blob with the port warden off was not copied: there
    * is nothing to mirror then. */
   if (portList != nullptr) {
      for (u32 i = 0; i < cfg->portWhiteListSize; i++) {
         const VigilWhiteListEntry *entry = &portList[i];
         if (wardenHash == nullptr ||
             FC_WardenHashInsert(wardenHash, entry, entry->flags & VIGIL_WL_IPV6,
                                 filter->portID) != ZEK_OK) {
            VIGIL_LOG_ERROR("Filter %#x Inserting whitelist entry into warden hash "
                            "failed",
                            filter->portID);
         }
      }
   }
   if (portset != nullptr && zek_GlxIsEnabled(portset)) {
      VigilSendGlxPortConf(filter, cfg->portWhiteListSize != 0);
   }
   FC_InvalidateFlows(VIGIL_FC_INVALIDATE_SECURITY, filter->portID);

   if (!switchWarden) {
      filter->switchWhiteListSize = 0;
   }
   if (!portWarden) {
      filter->portWhiteListSize = 0;
   }
   VIGIL_LOG_VERBOSE(1, "Filter %#x featuresEnabled = 0x%x: security configured "
                        "successfully",
                     filter->portID, filter->featuresEnabled);
   return ZEK_OK;
}

zek_Status VigilConfigDiscovery(VigilFilter *filter, const u32 *bits, bool flush) {
   Vigil_AssertFilterIsLocked(filter, true);
   VIGIL_LOG_VERBOSE(2, "Filter %#x new featuresEnabled = %#x", filter->portID, *bits);
   zek_Status status = VigilConfigL3(filter, bits, flush);
   if (status != ZEK_OK) {
      return status;
   }
   filter->discoveryFlags &= ~(VIGIL_DISC_DHCP | VIGIL_DISC_ARP);
   filter->discoveryFlags |= *bits & (VIGIL_DISC_DHCP | VIGIL_DISC_ARP);
   VIGIL_LOG_VERBOSE(1, "Filter %#x IPv4 Discovery config updated, featuresEnabled = %#x",
                     filter->portID, filter->discoveryFlags);
   return status;
}

zek_Status VigilConfigIpv4Discovery(VigilFilter *filter, bool dhcp, bool arp,
                                    bool flush) {
   Vigil_AssertFilterIsLocked(filter, true);
   u32 bits = (dhcp ? VIGIL_DISC_DHCP : 0) | (arp ? VIGIL_DISC_ARP : 0);
   return VigilConfigDiscovery(filter, &bits, flush);
}

zek_Status VigilValidateIgnoreList(VigilFilter *filter,
                                   const VigilWhiteListEntry *entry) {
   if ((entry->flags & (VIGIL_WL_IPV4 | VIGIL_WL_IPV6 | VIGIL_WL_VLAN |
                        VIGIL_WL_MAC)) == 0) {
      VIGIL_LOG_ERROR("Filter %#x Invalid Ignorelist entry specify at least one of "
                      "Vlan/Mac/IP",
                      filter->portID);
      return VIGIL_STATUS_BAD_PARAM;
   }
   return VigilValidateVlanAndMac(filter, entry);
}

zek_Status VigilConfigDiscoveryIL(VigilFilter *filter,
                                  const VigilIgnoreListConfig *blob) {
   Vigil_AssertFilterIsLocked(filter, true);
   if (blob == nullptr || blob->count == 0) {
      Vigil_HeapFree(filter->portIgnoreList);
      filter->portIgnoreList = nullptr;
      filter->portIgnoreListSize = 0;
      VIGIL_LOG_VERBOSE(1, "Clean up port Ignorelist: filter->portIgnoreListSize = %d",
                        (int)filter->portIgnoreListSize);
      return ZEK_OK;
   }
   for (u32 i = 0; i < blob->count; i++) {
      zek_Status status = VigilValidateIgnoreList(filter, &blob->entries[i]);
      if (status != ZEK_OK) {
         return status;
      }
   }
   VigilWhiteListEntry *copy = VigilCopyList(blob->entries, blob->count);
   if (copy == nullptr) {
      VIGIL_LOG_ERROR("Filter %#x Alloc for port ignorelist of size %d failed",
                      filter->portID,
                      (int)(blob->count * sizeof(VigilWhiteListEntry)));
      return VIGIL_STATUS_NO_MEMORY;
   }
   Vigil_HeapFree(filter->portIgnoreList);
   filter->portIgnoreList = copy;
   filter->portIgnoreListSize = blob->count;
   VigilIgnoreListDelPortDb(filter);
   VigilIgnoreListDelPortDbV6(filter);
   VIGIL_LOG_INFO("Filter %#x Ignore list discovery is configured successfully with "
                  "size of %d",
                  filter->portID, (int)filter->portIgnoreListSize);
   return ZEK_OK;
}
