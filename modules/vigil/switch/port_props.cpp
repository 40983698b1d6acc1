/*
 * The five port properties through which the management plane configures a
 * port.  Each handler checks the blob's size, finds the filter and calls the
 * configuration operation under the filter's write lock.  A property written
 * before the filter exists is refused and forgotten.
 */
#include <climits>
#include <cstring>

#include "vigil_config.h"
#include "vigil_lifecycle.h"
#include "vigil_log.h"
#include "vigil_switch.h"
#include "vigil_vmi.h"

#define VIGIL_DISCOVERY_BLOB_LEN 2u
#define VIGIL_DISCOVERY6_BLOB_LEN 14u
#define VIGIL_DEFAULT_EXPIRY_MINUTES 10u
#define VIGIL_MAX_EXPIRY_MINUTES (0x7fffffffu / 60u) /* 35791394 */

/* The IPv6 discovery blob; bytes 6 to 13 are counted, not read. */
struct __attribute__((packed)) VigilDiscovery6Blob {
   u8 ndSnooping;
   u8 dhcpv6Snooping;
   u32 expiry; /* minutes, of ND and ARP bindings alike */
};

const char *const vigilPropNames[VIGIL_NUM_PROPS] = {
   "com.norvex.vswitch.port.vigil.enabled",
   "com.norvex.vswitch.port.vigil.discovery",
   "com.norvex.vswitch.port.vigil.discovery.ipv6",
   "com.norvex.vswitch.port.vigil.discovery.ignorelist",
   "com.norvex.vswitch.port.vigil.security",
};

/* Whether the data spells `word`, or a prefix of it, over dataLen bytes. */
static bool VigilIsWord(const char *data, u32 dataLen, const char *word) {
   return zek_Strncmp(data, word, dataLen) == 0;
}

zek_Status VigilPortPropEnableWrite(zek_PortsetHandle portset, zek_PortID portID,
                                    const char *propName, const void *data,
                                    u32 dataLen) {
   (void)propName;
   const char *text = (const char *)data;
   /* The value is shown as written, bounded by its length: it need not end
    * in a NUL.  Without data there is nothing to show. */
   const char *shown = text != nullptr ? text : "";
   int shownLen = text == nullptr ? 0 : dataLen > (u32)INT_MAX ? INT_MAX : (int)dataLen;
   VIGIL_LOG_INFO("Prop vigil.enable write on port %#x, value: %.*s", portID, shownLen,
                  shown);

   bool disable = dataLen == 0 || text == nullptr ||
                  (text[0] == 'f' && VigilIsWord(text, dataLen, "false"));
   bool enable = !disable && text[0] == 't' && VigilIsWord(text, dataLen, "true");
   if (disable) {
      Vigil_RemoveIOChainAndFeatures(portID);
      /* No filter is no error here; a kept filter is logged there. */
      (void)Vigil_DestroyFilter(portID);
      return ZEK_OK;
   }
   if (!enable) {
      VIGIL_LOG_ERROR("Invalid data %.*s for port %x vigil.enable", shownLen, shown,
                      portID);
      return VIGIL_STATUS_BAD_PARAM;
   }
   VigilFilter *filter = Vigil_GetPortFilter(portID);
   if (filter != nullptr) {
      VIGIL_LOG_INFO("Filter is already created for port %x ; ignoring write", portID);
   } else {
      zek_Status status = Vigil_CreateFilter(portset, portID, &filter);
      if (status != ZEK_OK) {
         return status;
      }
   }
   zek_Status status = Vigil_InstallIOChain(filter);
   if (status != ZEK_OK) {
      /* The install's status is the answer; both steps log their own. */
      (void)VigilClearFeaturesWithOptFlush(filter, false);
      (void)Vigil_DestroyFilter(portID);
      return status;
   }
   filter->enableCleanedUp = 0;
   return ZEK_OK;
}

zek_Status VigilPortPropEnableCleanup(zek_PortsetHandle portset, zek_PortID portID) {
   (void)portset;
   VIGIL_LOG_INFO("Prop vigil.enable cleanup on port %#x", portID);
   Vigil_RemoveIOChainAndFeatures(portID);
   if (isLiveUpgradeFromMod) {
      (void)Vigil_DestroyFilter(portID); /* logged there */
   }
   VigilFilter *filter = Vigil_GetPortFilter(portID);
   if (filter != nullptr) {
      filter->enableCleanedUp = 1;
   }
   return ZEK_OK;
}

/* Takes the port's filter for write; logs and gives null without one. */
static VigilFilter *VigilLockForProperty(zek_PortID portID) {
   VigilFilter *filter = Vigil_LockPortAndFilter(portID, true);
   if (filter == nullptr) {
      VIGIL_LOG_ERROR("Vigil filter not found for port %#x", portID);
   }
   return filter;
}

/* The same for a cleanup, which only notes the absence at verbosity 1. */
static VigilFilter *VigilLockForCleanup(zek_PortID portID) {
   VigilFilter *filter = Vigil_LockPortAndFilter(portID, true);
   if (filter == nullptr) {
      VIGIL_LOG_VERBOSE(1, "Vigil filter not found for port %#x", portID);
   }
   return filter;
}

zek_Status VigilPortPropDiscoveryWrite(zek_PortsetHandle portset, zek_PortID portID,
                                       const char *propName, const void *data,
                                       u32 dataLen) {
   (void)portset, (void)propName;
   VIGIL_LOG_INFO("Prop vigil.discovery write on port %#x, len: %u", portID, dataLen);
   if (dataLen == 0 || data == nullptr) {
      VIGIL_LOG_INFO("vigil.discovery, invalid params - dataLen: %u, config: %p",
                     dataLen, data);
      return VIGIL_STATUS_BAD_PARAM;
   }
   if (dataLen == 1) {
      VIGIL_LOG_INFO("vigil.discovery prop invalid size, got: %u, expected: %lu",
                     dataLen, (unsigned long)VIGIL_DISCOVERY_BLOB_LEN);
      return VIGIL_STATUS_BAD_PARAM;
   }
   VigilFilter *filter = VigilLockForProperty(portID);
   if (filter == nullptr) {
      return VIGIL_STATUS_NOT_FOUND;
   }
   const u8 *blob = (const u8 *)data;
   bool arp = blob[0] != 0;
   bool dhcp = blob[1] != 0;
   zek_Status status = VigilConfigIpv4Discovery(filter, dhcp, arp, true);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Error setting discovery config for port: %#x", portID);
   }
   Vigil_UnlockPortAndFilter(filter, true);
   return status;
}

zek_Status VigilPortPropDiscoveryCleanup(zek_PortsetHandle portset, zek_PortID portID) {
   (void)portset;
   VIGIL_LOG_INFO("Prop vigil.discovery cleanup on port %#x", portID);
   VigilFilter *filter = VigilLockForCleanup(portID);
   if (filter == nullptr) {
      return ZEK_OK;
   }
   if (VigilConfigIpv4Discovery(filter, false, false, false) != ZEK_OK) {
      VIGIL_LOG_ERROR("Vigil IPv4 Discovery Prop Cleanup failed for port %#x", portID);
   }
   Vigil_UnlockPortAndFilter(filter, true);
   return ZEK_OK;
}

zek_Status VigilPortPropDiscoveryIpv6Write(zek_PortsetHandle portset,
                                           zek_PortID portID, const char *propName,
                                           const void *data, u32 dataLen) {
   (void)portset, (void)propName;
   VIGIL_LOG_INFO("Prop vigil.discovery.ipv6 write on port %#x, len: %u", portID,
                  dataLen);
   if (dataLen == 0 || data == nullptr) {
      VIGIL_LOG_INFO("vigil.discovery.ipv6, invalid params - dataLen: %u, config: %p",
                     dataLen, data);
      return VIGIL_STATUS_BAD_PARAM;
   }
   if (dataLen < VIGIL_DISCOVERY6_BLOB_LEN) {
      VIGIL_LOG_INFO("vigil.discovery.ipv6 prop invalid size, got: %u, expected: %lu",
                     dataLen, (unsigned long)VIGIL_DISCOVERY6_BLOB_LEN);
      return VIGIL_STATUS_BAD_PARAM;
   }
   VigilDiscovery6Blob blob;
   memcpy(&blob, data, sizeof blob);
   /* A life time whose seconds don't fit a signed 32-bit value would wrap
    * and end every binding in the second it was learnt. */
   if (blob.expiry > VIGIL_MAX_EXPIRY_MINUTES) {
      VIGIL_LOG_ERROR("vigil.discovery.ipv6 expiry too long: %u minutes, at most: %u",
                      blob.expiry, VIGIL_MAX_EXPIRY_MINUTES);
      return VIGIL_STATUS_BAD_PARAM;
   }
   VigilFilter *filter = VigilLockForProperty(portID);
   if (filter == nullptr) {
      return VIGIL_STATUS_NOT_FOUND;
   }
   if (VigilConfigIpv6Discovery(filter, blob.dhcpv6Snooping != 0,
                                blob.ndSnooping != 0, true) != ZEK_OK) {
      VIGIL_LOG_ERROR("IPv6 discovery configuration failed for port %#x", portID);
   }
   if (VigilConfigNdExpiry(filter, blob.expiry) != ZEK_OK) {
      VIGIL_LOG_ERROR("Configure ndExpiry failed for port %#x", portID);
   }
   zek_Status status = VigilConfigArpExpiry(filter, blob.expiry);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Configure arpExpiry failed for port %#x", portID);
   }
   Vigil_UnlockPortAndFilter(filter, true);
   return status;
}

zek_Status VigilPortPropDiscoveryIpv6Cleanup(zek_PortsetHandle portset,
                                             zek_PortID portID) {
   (void)portset;
   VIGIL_LOG_INFO("Prop vigil.discovery.ipv6 cleanup on port %#x", portID);
   VigilFilter *filter = VigilLockForCleanup(portID);
   if (filter == nullptr) {
      return ZEK_OK;
   }
   if (VigilConfigIpv6Discovery(filter, false, false, false) != ZEK_OK) {
      VIGIL_LOG_ERROR("Vigil IPv6 Discovery Prop Cleanup failed for port %#x", portID);
   }
   if (VigilConfigNdExpiry(filter, VIGIL_DEFAULT_EXPIRY_MINUTES) != ZEK_OK) {
      VIGIL_LOG_ERROR("ndExpiry cleanup failed for port %#x", portID);
   }
   if (VigilConfigArpExpiry(filter, VIGIL_DEFAULT_EXPIRY_MINUTES) != ZEK_OK) {
      VIGIL_LOG_ERROR("arpExpiry cleanup failed for port %#x", portID);
   }
   Vigil_UnlockPortAndFilter(filter, true);
   return ZEK_OK;
}

zek_Status VigilPortPropDiscoveryILWrite(zek_PortsetHandle portset, zek_PortID portID,
                                         const char *propName, const void *data,
                                         u32 dataLen) {
   (void)portset, (void)propName;
   VIGIL_LOG_INFO("Prop vigil.discovery.IL write on port %#x, len: %u", portID,
                  dataLen);
   if (dataLen == 0 || data == nullptr) {
      VIGIL_LOG_INFO("vigil.discovery.il, invalid params - dataLen: %u, config: %p",
                     dataLen, data);
      return VIGIL_STATUS_BAD_PARAM;
   }
   /* The count needs its own four bytes before it can be read. */
   u32 count = 0;
   if (dataLen >= sizeof count) {
      memcpy(&count, data, sizeof count);
   }
   u32 required = count * (u32)sizeof(VigilWhiteListEntry) + 4;
   u64 entriesEnd = (u64)count * sizeof(VigilWhiteListEntry) + 4;
   if (dataLen < sizeof count || (i32)dataLen < (i32)required || dataLen < entriesEnd) {
      VIGIL_LOG_ERROR("Invalid disc prop size - expected: %u, got: %u", required,
                      dataLen);
      return VIGIL_STATUS_BAD_PARAM;
   }
   VigilFilter *filter = VigilLockForProperty(portID);
   if (filter == nullptr) {
      return VIGIL_STATUS_NOT_FOUND;
   }
   zek_Status status =
      VigilConfigDiscoveryIL(filter, (const VigilIgnoreListConfig *)data);
   if (status != ZEK_OK) {
      VIGIL_LOG_ERROR("Ignore list discovery configuration failed for port %#x", portID);
   }
   Vigil_UnlockPortAndFilter(filter, true);
   return status;
}

zek_Status VigilPortPropDiscoveryILCleanup(zek_PortsetHandle portset, zek_PortID portID) {
   (void)portset;
   VIGIL_LOG_INFO("Prop vigil.discovery.IL cleanup on port %#x", portID);
   VigilFilter *filter = VigilLockForCleanup(portID);
   if (filter == nullptr) {
      return ZEK_OK;
   }
   if (VigilConfigDiscoveryIL(filter, nullptr) != ZEK_OK) {
      VIGIL_LOG_ERROR("Vigil Ignorelist Prop Cleanup failed for port %#x", portID);
   }
   Vigil_UnlockPortAndFilter(filter, true);
   return ZEK_OK;
}

zek_Status VigilPortPropSecurityWrite(zek_PortsetHandle portset, zek_PortID portID,
                                      const char *propName, const void *data,
                                      u32 dataLen) {
   (void)portset;
   VIGIL_LOG_INFO("Prop vigil.security write on port %#x", portID);
   /* The sizes can only be read from a blob that holds its header. */
   u64 expected = VIGIL_SECURITY_HDR_LEN;
   if (data != nullptr && dataLen >= VIGIL_SECURITY_HDR_LEN) {
      VigilSecurityConfig hdr;
      memcpy(&hdr, data, sizeof hdr);
      expected = ((u64)hdr.switchWhiteListSize + hdr.portWhiteListSize + 1) *
                    sizeof(VigilWhiteListEntry) +
                 (u64)hdr.bpduExclusionListSize * VIGIL_ETH_ALEN;
   }
   if (data == nullptr || dataLen < VIGIL_SECURITY_HDR_LEN || dataLen != expected) {
      VIGIL_LOG_ERROR("Invalid prop(%s) size - expected: %u, got: %u", propName,
                      (u32)expected, dataLen);
      return VIGIL_STATUS_BAD_PARAM;
   }
   VigilFilter *filter = Vigil_LockPortAndFilter(portID, true);
   if (filter == nullptr) {
      VIGIL_LOG_ERROR("Vigil filter not found for port %u", portID);
      return VIGIL_STATUS_NOT_FOUND;
   }
   zek_Status status = VigilConfigSecurity(filter, (const VigilSecurityConfig *)data);
   Vigil_UnlockPortAndFilter(filter, true);
   return status;
}

static const zek_FABClientPortOps vigilPropOps[VIGIL_NUM_PROPS] = {
   {VigilPortPropEnableWrite, nullptr, nullptr, VigilPortPropEnableCleanup},
   {VigilPortPropDiscoveryWrite, nullptr, nullptr, VigilPortPropDiscoveryCleanup},
   {VigilPortPropDiscoveryIpv6Write, nullptr, nullptr, VigilPortPropDiscoveryIpv6Cleanup},
   {VigilPortPropDiscoveryILWrite, nullptr, nullptr, VigilPortPropDiscoveryILCleanup},
   {VigilPortPropSecurityWrite, nullptr, nullptr, nullptr},
};

zek_Status Vigil_FabPropRegister(const char *portsetName, VigilFabClientHandles *client) {
   VIGIL_LOG_INFO("Vigil Registering FAB CBs for ps %s", portsetName);
   for (u32 i = 0; i < VIGIL_NUM_PROPS; i++) {
      zek_Status status = zek_FABClientPortRegister(&client->propHandles[i], portsetName,
                                                    vigilPropNames[i], &vigilPropOps[i]);
      if (status != ZEK_OK) {
         client->propHandles[i] = nullptr;
         VIGIL_LOG_ERROR("Failed to register vigil fab property %s(%s)",
                         vigilPropNames[i], zek_StatusToString(status));
         while (i-- > 0) {
            if (zek_FABClientPortUnregister(client->propHandles[i]) == ZEK_OK) {
               client->propHandles[i] = nullptr;
            }
         }
         return status;
      }
      VIGIL_LOG_INFO("Registered vigil property handler %s", vigilPropNames[i]);
   }
   return ZEK_OK;
}

zek_Status Vigil_FabPropUnregister(VigilFabClientHandles *client) {
   VIGIL_LOG_INFO("Vigil Unegistering FAB CBs for ps %s", client->portsetName);
   for (u32 i = VIGIL_NUM_PROPS; i-- > 0;) {
      if (client->propHandles[i] == nullptr) {
         continue;
      }
      if (zek_FABClientPortUnregister(client->propHandles[i]) == ZEK_OK) {
         VIGIL_LOG_INFO("Unregistered vigil property handler %s", vigilPropNames[i]);
         client->propHandles[i] = nullptr;
      } else {
         VIGIL_LOG_ERROR("Failed to unregister %s", vigilPropNames[i]);
      }
   }
   return ZEK_OK;
}
