/*
 * The management interface towards operators' tools.
 *
 * At start the module hands the platform's management channel a signature
 * named "PortVigil.<build>" with nine callbacks.  They show a port's
 * bindings, configuration, statistics, white lists, ignore list and BPDU
 * filter as text ready to print, delete bindings, and set the module-wide
 * delete-on-expiry switch.  Each answer fits one fixed-size record, so a
 * tool never pages.
 *
 * Callbacks run in the platform's management thread.  Those that name a
 * port hold its portset and its filter's lock from the lookup to their end
 * (for write only when deleting), and format from a snapshot taken under
 * that hold.  A callback always returns ZEK_OK; what happened is the
 * output's status.  They log no failures: the tool shows the status.
 */
#include <cstring>

#include "vigil_config.h"
#include "vigil_dhcp.h"
#include "vigil_lifecycle.h"
#include "vigil_log.h"
#include "vigil_mgmt.h"
#include "vigil_module.h"
#include "vigil_packet.h"
#include "vigil_v6.h"
#include "vigil_vmi.h"
#include "vigil_whitelist.h"

/* Room for the text of any 100-byte column and its NUL. */
#define VIGIL_MGMT_SCRATCH_LEN 128u

#define VIGIL_MGMT_ENTRY(id, fn, inType, outType)                             \
   {ZEK_MGMT_LOCATION_KERNEL,                                                  \
    fn,                                                                        \
    1,                                                                         \
    2,                                                                         \
    {(u32)sizeof(inType), (u32)sizeof(outType), 0, 0},                         \
    {ZEK_MGMT_PARAM_IN, ZEK_MGMT_PARAM_OUT, 0, 0},                             \
    id}

zek_MgmtHandle vigilMgmtIntfHandle = nullptr;

const zek_MgmtCallbackInfo vigilMgmtCallbacks[VIGIL_MGMT_NUM_CALLBACKS] = {
   VIGIL_MGMT_ENTRY(VIGIL_MGMT_CB_LIST_VMI, VigilListVmiCB, VigilMgmtPortKey,
                    VigilMgmtVmiList),
   VIGIL_MGMT_ENTRY(VIGIL_MGMT_CB_GET_CONFIG, VigilGetConfigCB, VigilMgmtPortKey,
                    VigilMgmtConfig),
   VIGIL_MGMT_ENTRY(VIGIL_MGMT_CB_DEL_VMI, VigilDelVmiCB, VigilMgmtDelRequest,
                    VigilMgmtStatus),
   VIGIL_MGMT_ENTRY(VIGIL_MGMT_CB_GET_STATS_BATCH, VigilGetStatsBatchCB,
                    VigilMgmtStatsRequest, VigilMgmtStatsBatch),
   VIGIL_MGMT_ENTRY(VIGIL_MGMT_CB_GET_WHITE_LIST, VigilGetWhiteListCB, VigilMgmtPortKey,
                    VigilMgmtWhiteList),
   VIGIL_MGMT_ENTRY(VIGIL_MGMT_CB_GET_IGNORE_LIST, VigilGetIgnoreListCB, VigilMgmtPortKey,
                    VigilMgmtIgnoreList),
   VIGIL_MGMT_ENTRY(VIGIL_MGMT_CB_GET_BPDU_MACS, VigilGetFilteredBpduMacsCB,
                    VigilMgmtPortKey, VigilMgmtBpduList),
   VIGIL_MGMT_ENTRY(VIGIL_MGMT_CB_LIST_V6VMI, VigilListV6VmiCB, VigilMgmtPortKey,
                    VigilMgmtVmiList),
   VIGIL_MGMT_ENTRY(VIGIL_MGMT_CB_DEL_EXPIRY, VigilDelExpiryCB, u8, VigilMgmtStatus),
};

/* The name is written when the interface opens: it carries the build. */
zek_MgmtSignature vigilMgmtSig = {VIGIL_MGMT_VERSION, "", VIGIL_MGMT_VENDOR,
                                  VIGIL_MGMT_NUM_CALLBACKS, vigilMgmtCallbacks};

/* ------------------------------------------------------------------ text */

/* Copies a text into a column of `width` bytes: its characters and its NUL,
 * never more than the column.  A text that fills the column keeps no NUL;
 * bytes behind the NUL keep what the caller's record held. */
static void VigilMgmtPutText(char *column, u32 width, const char *text) {
   size_t len = zek_Strnlen(text, width);
   memcpy(column, text, len);
   if (len < width) {
      column[len] = '\0';
   }
}

/* Formats into a scratch buffer, then puts the text into the column. */
#define VIGIL_MGMT_PRINT(column, fmt, ...)                                    \
   do {                                                                        \
      char vigilMgmtText_[VIGIL_MGMT_SCRATCH_LEN];                             \
      zek_Sprintf(vigilMgmtText_, sizeof vigilMgmtText_, fmt, ##__VA_ARGS__);  \
      VigilMgmtPutText((column), (u32)sizeof(column), vigilMgmtText_);         \
   } while (0)

#define VIGIL_MGMT_PUT(column, text) VigilMgmtPutText((column), (u32)sizeof(column), (text))

/* Appends to a text of `size` bytes; what doesn't fit is left out, so the
 * text holds at most size - 1 characters and always its NUL. */
static void VigilMgmtAppend(char *text, u32 size, u32 *len, const char *piece) {
   while (*piece != '\0' && *len + 1 < size) {
      text[(*len)++] = *piece++;
   }
   text[*len] = '\0';
}

/* An IPv6 address as eight groups in hex, each read in network order, none
 * shortened, as the module's log lines print one. */
#define VIGIL_MGMT_V6_FMT "%hx:%hx:%hx:%hx:%hx:%hx:%hx:%hx"
#define VIGIL_MGMT_V6_ARGS(a)                                                  \
   VigilGetBe16((a) + 0), VigilGetBe16((a) + 2), VigilGetBe16((a) + 4),        \
      VigilGetBe16((a) + 6), VigilGetBe16((a) + 8), VigilGetBe16((a) + 10),    \
      VigilGetBe16((a) + 12), VigilGetBe16((a) + 14)

/* Seconds from `now` to `expiryTs`, 0 once it has passed, cut to 32 bits. */
static u32 VigilMgmtRemaining(i64 expiryTs, i64 now) {
   return expiryTs > now ? (u32)((u64)expiryTs - (u64)now) : 0u;
}

static const char *VigilMgmtV4MethodName(u8 discMethod) {
   switch (discMethod) {
   case VIGIL_DISC_DHCP:
      return "DHCP Snooping";
   case VIGIL_DISC_ARP:
      return "ARP Snooping";
   case VIGIL_DISC_STATIC:
      return "Static Entry";
   default:
      return "Invalid";
   }
}

/* -------------------------------------------------------- port and locks */

/* Finds the port a key names.  Its two texts are read into buffers of
 * their own, each ending at its field's end at the latest, so the caller's
 * record is never written and a full field never runs into the next. */
VIGIL_MUST_CHECK static zek_Status VigilMgmtFindPort(const VigilMgmtPortKey *key,
                                                     zek_PortID *portID) {
   char fabSwitch[sizeof key->fabSwitchId + 1];
   char fabPort[sizeof key->fabPortId + 1];
   memcpy(fabSwitch, key->fabSwitchId, sizeof key->fabSwitchId);
   fabSwitch[sizeof key->fabSwitchId] = '\0';
   memcpy(fabPort, key->fabPortId, sizeof key->fabPortId);
   fabPort[sizeof key->fabPortId] = '\0';
   *portID = 0;
   return zek_PortFindByFABPortID(fabPort, fabSwitch, portID);
}

static void VigilMgmtUnlock(VigilFilter *filter, bool forWrite, zek_PortsetHandle portset) {
   /* The release of the portset this callback acquired: on failure there is
    * nothing left to undo, and the callbacks log nothing. */
   (void)Vigil_UnlockPsPortFilter(filter, forWrite, portset);
}

/* ------------------------------------------------------- binding lists */

static void VigilMgmtWriteV4Entry(VigilMgmtV4Entry *entry, u32 index, const VigilVmi *vmi) {
   entry->index = (u16)index;
   entry->vlanId = vmi->vlanId;
   VIGIL_MGMT_PRINT(entry->mac, VIGIL_MAC_FMT, VIGIL_MAC_ARGS(vmi->mac));
   VIGIL_MGMT_PRINT(entry->ip, "%u.%u.%u.%u", VIGIL_IP_ARGS(vmi->ip));
   VIGIL_MGMT_PUT(entry->method, VigilMgmtV4MethodName(vmi->discMethod));
   if (vmi->discMethod == VIGIL_DISC_STATIC) {
      VIGIL_MGMT_PUT(entry->remaining, "N/A");
   } else {
      VIGIL_MGMT_PRINT(entry->remaining, "%u",
                       VigilMgmtRemaining(vmi->expiryTs, Vigil_UptimeSecs()));
   }
   if (vmi->discMethod == VIGIL_DISC_DHCP) {
      VIGIL_MGMT_PRINT(entry->clientMac, VIGIL_MAC_FMT, VIGIL_MAC_ARGS(vmi->clientMac));
      VIGIL_MGMT_PRINT(entry->clientIdLen, "%d", (int)vmi->clientIdLen);
      VIGIL_MGMT_PRINT(entry->server, "%u.%u.%u.%u", VIGIL_IP_ARGS(vmi->serverIp));
      VIGIL_MGMT_PRINT(entry->lease, "%u", vmi->leaseTime);
   } else {
      VIGIL_MGMT_PUT(entry->clientMac, "N/A");
      VIGIL_MGMT_PUT(entry->clientIdLen, "N/A");
      VIGIL_MGMT_PUT(entry->server, "N/A");
      VIGIL_MGMT_PUT(entry->lease, "N/A");
   }
}

zek_Status VigilListVmiCB(u64 cookie, u64 instanceId, void *input, void *output) {
   (void)cookie;
   (void)instanceId;
   const VigilMgmtPortKey *key = (const VigilMgmtPortKey *)input;
   VigilMgmtVmiList *out = (VigilMgmtVmiList *)output;
   zek_PortID portID;
   out->status = VigilMgmtFindPort(key, &portID);
   if (out->status != ZEK_OK) {
      return ZEK_OK;
   }
   /* Cleared before the filter is looked for: a port without one lists
    * nothing. */
   out->numEntries = 0;
   out->status = ZEK_OK;
   zek_PortsetHandle portset;
   VigilFilter *filter = Vigil_LockPsPortAndFilter(portID, false, &portset);
   if (filter == nullptr) {
      out->status = VIGIL_STATUS_NOT_FOUND;
      return ZEK_OK;
   }
   /* The list holds 384 rows; static bindings, which no limit bounds, may
    * be more, and those behind the last row are not shown. */
   u32 capacity = filter->numVmis < VIGIL_MGMT_MAX_V4_ROWS ? filter->numVmis
                                                           : VIGIL_MGMT_MAX_V4_ROWS;
   if (capacity == 0) {
      VigilMgmtUnlock(filter, false, portset);
      return ZEK_OK;
   }
   VigilVmi *records = (VigilVmi *)Vigil_HeapAlloc(capacity * (u32)sizeof(VigilVmi));
   if (records == nullptr) {
      out->status = VIGIL_STATUS_NO_MEMORY;
      VigilMgmtUnlock(filter, false, portset);
      return ZEK_OK;
   }
   /* Running bindings first, then the expired ARP ones. */
   u32 count = 0;
   VigilQueryPortDb(filter, records, capacity, &count, VIGIL_QUERY_FORMAT_RECORD,
                    VIGIL_DISC_DHCP | VIGIL_DISC_ARP | VIGIL_DISC_STATIC);
   for (u32 i = 0; i < count; i++) {
      VigilMgmtWriteV4Entry(&out->vmis[i], i, &records[i]);
      out->numEntries++;
   }
   Vigil_HeapFree(records);
   VigilMgmtUnlock(filter, false, portset);
   return ZEK_OK;
}

/* The DHCPv6 columns of an entry.  The client identifier shows its first
 * 50 bytes in hex, which fill the column exactly; clientIdLen tells the
 * real length. */
static void VigilMgmtWriteDhcpV6Columns(VigilMgmtV6Entry *entry, const VigilV6Vmi *vmi) {
   VIGIL_MGMT_PRINT(entry->iaId, "%x", vmi->iaId);
   VIGIL_MGMT_PRINT(entry->server, VIGIL_MGMT_V6_FMT, VIGIL_MGMT_V6_ARGS(vmi->serverIp));
   VIGIL_MGMT_PRINT(entry->validLifetime, "%u", (u32)vmi->validLifetime);
   VIGIL_MGMT_PRINT(entry->preferredLifetime, "%u", vmi->preferredLifetime);
   entry->clientIdLen = vmi->clientIdLen;
   char text[2 * VIGIL_MGMT_CLIENT_ID_SHOWN + 1];
   if (vmi->clientIdLen == 0 || vmi->clientId == nullptr) {
      memcpy(text, "N/A", 4);
   } else {
      u32 shown = vmi->clientIdLen < VIGIL_MGMT_CLIENT_ID_SHOWN ? vmi->clientIdLen
                                                                : VIGIL_MGMT_CLIENT_ID_SHOWN;
      for (u32 i = 0; i < shown; i++) {
         zek_Sprintf(text + 2 * i, 3, "%.2x", vmi->clientId[i]);
      }
   }
   VIGIL_MGMT_PUT(entry->clientId, text);
   VIGIL_LOG_INFO("Full: %s", text);
}

static void VigilMgmtWriteV6Entry(VigilMgmtV6Entry *entry, u32 index, const VigilV6Vmi *vmi) {
   entry->index = (u16)index;
   entry->vlanId = vmi->vlanId;
   VIGIL_MGMT_PRINT(entry->mac, VIGIL_MAC_FMT, VIGIL_MAC_ARGS(vmi->mac));
   VIGIL_MGMT_PRINT(entry->ip, VIGIL_MGMT_V6_FMT, VIGIL_MGMT_V6_ARGS(vmi->ip));
   VIGIL_MGMT_PUT(entry->iaId, "N/A");
   VIGIL_MGMT_PUT(entry->server, "N/A");
   VIGIL_MGMT_PUT(entry->validLifetime, "N/A");
   VIGIL_MGMT_PUT(entry->preferredLifetime, "N/A");
   VIGIL_MGMT_PUT(entry->clientId, "N/A");
   entry->clientIdLen = 0;
   switch (vmi->discMethod) {
   case VIGIL_DISC_ND:
      VIGIL_MGMT_PUT(entry->method, "ND Snooping");
      break;
   case VIGIL_DISC_DHCPV6:
      VIGIL_MGMT_PUT(entry->method, "DHCPv6 Snooping");
      VigilMgmtWriteDhcpV6Columns(entry, vmi);
      break;
   default:
      VIGIL_MGMT_PUT(entry->method, "Invalid");
      break;
   }
   VIGIL_MGMT_PRINT(entry->remaining, "%u",
                    VigilMgmtRemaining(vmi->expiryTs, Vigil_UptimeSecs()));
}

zek_Status VigilListV6VmiCB(u64 cookie, u64 instanceId, void *input, void *output) {
   (void)cookie;
   (void)instanceId;
   const VigilMgmtPortKey *key = (const VigilMgmtPortKey *)input;
   VigilMgmtVmiList *out = (VigilMgmtVmiList *)output;
   zek_PortID portID;
   out->status = VigilMgmtFindPort(key, &portID);
   if (out->status != ZEK_OK) {
      return ZEK_OK;
   }
   out->numEntries = 0;
   out->status = ZEK_OK;
   zek_PortsetHandle portset;
   VigilFilter *filter = Vigil_LockPsPortAndFilter(portID, false, &portset);
   if (filter == nullptr) {
      out->status = VIGIL_STATUS_NOT_FOUND;
      return ZEK_OK;
   }
   /* The limits keep both methods to 30 bindings; the rows stop there in
    * any case. */
   u32 capacity = filter->numNdEntries + filter->numDhcpV6Entries;
   if (capacity > VIGIL_MGMT_MAX_V6_ROWS) {
      capacity = VIGIL_MGMT_MAX_V6_ROWS;
   }
   if (capacity == 0) {
      VigilMgmtUnlock(filter, false, portset);
      return ZEK_OK;
   }
   VigilV6Vmi *records = (VigilV6Vmi *)Vigil_HeapAlloc(capacity * (u32)sizeof(VigilV6Vmi));
   if (records == nullptr) {
      out->status = VIGIL_STATUS_NO_MEMORY;
      VigilMgmtUnlock(filter, false, portset);
      return ZEK_OK;
   }
   /* The copies point at the bindings' own client ids, which stay while
    * the lock is held. */
   u32 count = 0;
   VigilQueryPortDb(filter, records, capacity, &count, VIGIL_QUERY_FORMAT_RECORD,
                    VIGIL_DISC_ND | VIGIL_DISC_DHCPV6);
   for (u32 i = 0; i < count; i++) {
      VigilMgmtWriteV6Entry(&out->v6Vmis[i], i, &records[i]);
      out->numEntries++;
   }
   Vigil_HeapFree(records);
   VigilMgmtUnlock(filter, false, portset);
   return ZEK_OK;
}

/* -------------------------------------------------------- configuration */

/* The features switched on, each followed by a comma (RA Guard, always
 * last, has none), or "None". */
static void VigilMgmtFeaturesText(const VigilFilter *filter, char *text, u32 size) {
   u32 len = 0;
   text[0] = '\0';
   const u32 disc = filter->discoveryFlags;
   const u32 feat = filter->featuresEnabled;
   if (disc & VIGIL_DISC_DHCP) {
      VigilMgmtAppend(text, size, &len, "DHCP snooping,");
   }
   if (disc & VIGIL_DISC_ARP) {
      VigilMgmtAppend(text, size, &len, "ARP snooping,");
   }
   if (disc & VIGIL_DISC_ND) {
      VigilMgmtAppend(text, size, &len, "ND snooping,");
   }
   if (disc & VIGIL_DISC_DHCPV6) {
      VigilMgmtAppend(text, size, &len, "DHCPv6 snooping,");
   }
   if (feat & VIGIL_FEAT_SWITCH_WARDEN) {
      VigilMgmtAppend(text, size, &len, "Switch Warden,");
   }
   if (feat & VIGIL_FEAT_PORT_WARDEN) {
      VigilMgmtAppend(text, size, &len, "Port Warden,");
   }
   if (feat & VIGIL_FEAT_BPDU_FILTER) {
      char piece[64];
      zek_Sprintf(piece, sizeof piece, "BPDU Filter (Bitmap=0x%lx),",
                  (unsigned long)filter->bpduBitmap);
      VigilMgmtAppend(text, size, &len, piece);
   }
   if (feat & VIGIL_FEAT_DHCP_SERVER_BLOCK) {
      VigilMgmtAppend(text, size, &len, "DHCP server block,");
   }
   if (feat & VIGIL_FEAT_DHCP_CLIENT_BLOCK) {
      VigilMgmtAppend(text, size, &len, "DHCP client block,");
   }
   if (feat & VIGIL_FEAT_NON_IP_BLOCK) {
      VigilMgmtAppend(text, size, &len, "Non-IP traffic block,");
   }
   if (feat & VIGIL_FEAT_DHCPV6_SERVER_BLOCK) {
      VigilMgmtAppend(text, size, &len, "DHCPv6 server block,");
   }
   if (feat & VIGIL_FEAT_DHCPV6_CLIENT_BLOCK) {
      VigilMgmtAppend(text, size, &len, "DHCPv6 client block,");
   }
   if (feat & VIGIL_FEAT_RA_GUARD) {
      VigilMgmtAppend(text, size, &len, "RA Guard");
   }
   if (len == 0) {
      VigilMgmtAppend(text, size, &len, "None");
   }
}

/* The rate limits switched on, separated by commas, or "None". */
static void VigilMgmtRateLimitText(const VigilFilter *filter, char *text, u32 size) {
   u32 len = 0;
   text[0] = '\0';
   const u32 feat = filter->featuresEnabled;
   char piece[64];
   if (feat & VIGIL_FEAT_RX_BCAST_LIMIT) {
      zek_Sprintf(piece, sizeof piece, "RX Bcast rate limit = %d,", (int)filter->rxBcastRateLimit);
      VigilMgmtAppend(text, size, &len, piece);
   }
   if (feat & VIGIL_FEAT_RX_MCAST_LIMIT) {
      zek_Sprintf(piece, sizeof piece, "RX Mcast rate limit = %d,", (int)filter->rxMcastRateLimit);
      VigilMgmtAppend(text, size, &len, piece);
   }
   if (feat & VIGIL_FEAT_TX_BCAST_LIMIT) {
      zek_Sprintf(piece, sizeof piece, "TX Bcast rate limit = %d,", (int)filter->txBcastRateLimit);
      VigilMgmtAppend(text, size, &len, piece);
   }
   if (feat & VIGIL_FEAT_TX_MCAST_LIMIT) {
      zek_Sprintf(piece, sizeof piece, "TX Mcast rate limit = %d,", (int)filter->txMcastRateLimit);
      VigilMgmtAppend(text, size, &len, piece);
   }
   if (len == 0) {
      VigilMgmtAppend(text, size, &len, "None");
   } else if (text[len - 1] == ',') {
      text[len - 1] = '\0';
   }
}

zek_Status VigilGetConfigCB(u64 cookie, u64 instanceId, void *input, void *output) {
   (void)cookie;
   (void)instanceId;
   const VigilMgmtPortKey *key = (const VigilMgmtPortKey *)input;
   VigilMgmtConfig *out = (VigilMgmtConfig *)output;
   zek_PortID portID;
   out->status = VigilMgmtFindPort(key, &portID);
   if (out->status != ZEK_OK) {
      return ZEK_OK;
   }
   zek_PortsetHandle portset;
   VigilFilter *filter = Vigil_LockPsPortAndFilter(portID, false, &portset);
   if (filter == nullptr) {
      out->status = VIGIL_STATUS_NOT_FOUND;
      return ZEK_OK;
   }
   char text[VIGIL_MGMT_LONG_TEXT_LEN];
   VigilMgmtFeaturesText(filter, text, sizeof text);
   VIGIL_MGMT_PUT(out->features, text);
   VigilMgmtRateLimitText(filter, text, sizeof text);
   VIGIL_MGMT_PUT(out->rateLimits, text);

   VIGIL_MGMT_PRINT(out->delOnExpiry, "%u", GetDeleteExpiry() ? 1u : 0u);
   VIGIL_MGMT_PRINT(out->v4Capacity, "%u", VIGIL_PORTDB_V4_SIZE);
   VIGIL_MGMT_PRINT(out->numVmis, "%u", filter->numVmis);
   VIGIL_MGMT_PRINT(out->arpLimit, "%u", filter->portDbArpEntriesSize);
   VIGIL_MGMT_PRINT(out->numArpVmis, "%u", filter->numArpVmis);
   VIGIL_MGMT_PRINT(out->numExpiredVmis, "%u", filter->numExpiredVmis);
   VIGIL_MGMT_PRINT(out->dhcpLimit, "%u", VIGIL_PORTDB_DHCP_ENTRIES);
   VIGIL_MGMT_PRINT(out->numDhcpVmis, "%u", filter->numDhcpVmis);
   VIGIL_MGMT_PRINT(out->dhcpReqLimit, "%u", VIGIL_MAX_DHCP_REQS);
   VIGIL_MGMT_PRINT(out->numDhcpReqs, "%u", filter->numDhcpReqs);
   VIGIL_MGMT_PRINT(out->numStaticVmis, "%u", filter->numStaticVmis);
   VIGIL_MGMT_PRINT(out->totalClientIdLen, "%u", filter->totalClientIdLen);
   VIGIL_MGMT_PRINT(out->arpExpiry, "%u", (u32)filter->arpExpiry);
   VIGIL_MGMT_PRINT(out->v6Capacity, "%u", VIGIL_MGMT_MAX_V6_ROWS);
   VIGIL_MGMT_PRINT(out->ndLimit, "%u", filter->portDbNdEntriesSize);
   VIGIL_MGMT_PRINT(out->numNdEntries, "%u", filter->numNdEntries);
   VIGIL_MGMT_PRINT(out->numExpiredNdEntries, "%u", filter->numExpiredNdEntries);
   VIGIL_MGMT_PRINT(out->dhcpV6Limit, "%u", filter->portDbDhcpV6EntriesSize);
   VIGIL_MGMT_PRINT(out->numDhcpV6Entries, "%u", filter->numDhcpV6Entries);
   VIGIL_MGMT_PRINT(out->dhcpV6ReqLimit, "%u", filter->maxDhcpV6Reqs);
   VIGIL_MGMT_PRINT(out->numDhcpV6Reqs, "%u", filter->numDhcpV6Reqs);
   VIGIL_MGMT_PRINT(out->dhcpV6ReqBytes, "%u", filter->dhcpV6ReqBytes);
   VIGIL_MGMT_PRINT(out->dhcpV6ClientIdBytes, "%u", filter->dhcpV6ClientIdBytes);
   VIGIL_MGMT_PRINT(out->ndExpiry, "%u", (u32)filter->ndExpiry);
   VigilMgmtUnlock(filter, false, portset);
   return ZEK_OK;
}

/* ------------------------------------------------------------- deletes */

static void VigilMgmtDelOne(VigilFilter *filter, const VigilMgmtDelBinding *binding) {
   if (binding->isIpv6 == 0) {
      VigilVmiKey key;
      key.vlanId = binding->vlanId;
      memcpy(key.mac, binding->mac, sizeof key.mac);
      memcpy(&key.ip, binding->ip, sizeof key.ip);
      VigilClearVmi(filter, false, 1, &key);
   } else {
      u8 key[VIGIL_V6_KEY_LEN];
      u16 vlanId = binding->vlanId;
      memcpy(key, &vlanId, 2);
      memcpy(key + 2, binding->mac, 6);
      memcpy(key + 8, binding->ip, 16);
      VigilClearV6Vmi(filter, false, 1, key);
   }
}

zek_Status VigilDelVmiCB(u64 cookie, u64 instanceId, void *input, void *output) {
   (void)cookie;
   (void)instanceId;
   const VigilMgmtDelRequest *req = (const VigilMgmtDelRequest *)input;
   VigilMgmtStatus *out = (VigilMgmtStatus *)output;
   out->status = ZEK_OK;
   zek_PortID portID;
   out->status = VigilMgmtFindPort(&req->key, &portID);
   if (out->status != ZEK_OK) {
      return ZEK_OK;
   }
   zek_PortsetHandle portset;
   VigilFilter *filter = Vigil_LockPsPortAndFilter(portID, true, &portset);
   if (filter == nullptr) {
      out->status = VIGIL_STATUS_NOT_FOUND;
      return ZEK_OK;
   }
   switch (req->op) {
   case VIGIL_MGMT_DEL_ALL:
      /* Everything but static bindings, of both families. */
      VigilClearVmi(filter, true, 0, nullptr);
      VigilClearV6Vmi(filter, true, 0, nullptr);
      break;
   case VIGIL_MGMT_DEL_ONE: {
      VigilMgmtDelBinding binding;
      memcpy(&binding, &req->args.binding, sizeof binding);
      VigilMgmtDelOne(filter, &binding);
      break;
   }
   case VIGIL_MGMT_DEL_BY_METHOD: {
      /* The request's bits are its own: ND is bit 2 and DHCPv6 bit 3. */
      u32 methods = req->args.methods;
      if (methods & VIGIL_MGMT_DEL_DHCP) {
         VigilDelVmiByDiscMethod(filter, VIGIL_DISC_DHCP);
      }
      if (methods & VIGIL_MGMT_DEL_ARP) {
         VigilDelVmiByDiscMethod(filter, VIGIL_DISC_ARP);
      }
      if (methods & VIGIL_MGMT_DEL_DHCPV6) {
         VigilFlushV6VmiByDiscoveryMethod(filter, VIGIL_DISC_DHCPV6);
      }
      if (methods & VIGIL_MGMT_DEL_ND) {
         VigilFlushV6VmiByDiscoveryMethod(filter, VIGIL_DISC_ND);
      }
      break;
   }
   default:
      /* An operation this interface doesn't know deletes nothing. */
      break;
   }
   VigilMgmtUnlock(filter, true, portset);
   return ZEK_OK;
}

zek_Status VigilDelExpiryCB(u64 cookie, u64 instanceId, void *input, void *output) {
   (void)cookie;
   (void)instanceId;
   const u8 *value = (const u8 *)input;
   VigilMgmtStatus *out = (VigilMgmtStatus *)output;
   /* A module-wide word, written without a lock. */
   SetDeleteExpiry((i8)*value);
   out->status = ZEK_OK;
   return ZEK_OK;
}

/* ---------------------------------------------------------- statistics */

zek_Status VigilGetStatsBatchCB(u64 cookie, u64 instanceId, void *input, void *output) {
   (void)cookie;
   (void)instanceId;
   const VigilMgmtStatsRequest *req = (const VigilMgmtStatsRequest *)input;
   VigilMgmtStatsBatch *out = (VigilMgmtStatsBatch *)output;
   out->status = ZEK_OK;
   const u8 numPorts = req->numPorts;
   if (numPorts > VIGIL_MGMT_MAX_STATS_PORTS) {
      out->status = VIGIL_STATUS_BAD_PARAM;
      return ZEK_OK;
   }
   /* Port by port: a port that fails keeps its element's counters as they
    * were and doesn't stop the others. */
   for (u32 i = 0; i < numPorts; i++) {
      VigilMgmtPortStats *elem = &out->ports[i];
      elem->status = ZEK_OK;
      zek_PortID portID;
      elem->status = VigilMgmtFindPort(&req->keys[i], &portID);
      if (elem->status != ZEK_OK) {
         continue;
      }
      zek_PortsetHandle portset;
      VigilFilter *filter = Vigil_LockPsPortAndFilter(portID, false, &portset);
      if (filter == nullptr) {
         elem->status = VIGIL_STATUS_NOT_FOUND;
         continue;
      }
      memcpy(elem, &filter->stats, sizeof *elem);
      elem->status = ZEK_OK;
      VigilMgmtUnlock(filter, false, portset);
   }
   return ZEK_OK;
}

/* ---------------------------------------------------------------- lists */

/* One row of a white list or the ignore list.  `hostPrefix`: the ignore
 * list's entries name single addresses, shown with a prefix of 32 or 128
 * whatever their prefixLen. */
static void VigilMgmtWriteListRow(VigilMgmtListRow *row, const VigilWhiteListEntry *entry,
                                  bool hostPrefix) {
   if (entry->flags & VIGIL_WL_IPV4) {
      VIGIL_MGMT_PRINT(row->ip, "%u.%u.%u.%u/%d", entry->ip[0], entry->ip[1], entry->ip[2],
                       entry->ip[3], hostPrefix ? 32 : (int)entry->prefixLen);
   } else if (entry->flags & VIGIL_WL_IPV6) {
      VIGIL_MGMT_PRINT(row->ip, VIGIL_MGMT_V6_FMT "/%d", VIGIL_MGMT_V6_ARGS(entry->ip),
                       hostPrefix ? 128 : (int)entry->prefixLen);
   } else {
      VIGIL_MGMT_PUT(row->ip, "Any");
   }
   if (entry->flags & VIGIL_WL_MAC) {
      VIGIL_MGMT_PRINT(row->mac, VIGIL_MAC_FMT, VIGIL_MAC_ARGS(entry->mac));
   } else {
      VIGIL_MGMT_PUT(row->mac, "Any");
   }
   VIGIL_MGMT_PRINT(row->vlan, "%d", (entry->flags & VIGIL_WL_VLAN) ? (int)entry->vlan : 0);
}

/* Writes the first rows of a white list, at most the record's 1024; gives
 * the number written. */
static u32 GetWhiteListEntries(VigilMgmtListRow *rows, const VigilWhiteListEntry *entries,
                               u32 count) {
   u32 n = count < VIGIL_MGMT_MAX_WL_ROWS ? count : VIGIL_MGMT_MAX_WL_ROWS;
   for (u32 i = 0; i < n; i++) {
      VigilMgmtWriteListRow(&rows[i], &entries[i], false);
   }
   return n;
}

zek_Status VigilGetWhiteListCB(u64 cookie, u64 instanceId, void *input, void *output) {
   (void)cookie;
   (void)instanceId;
   const VigilMgmtPortKey *key = (const VigilMgmtPortKey *)input;
   VigilMgmtWhiteList *out = (VigilMgmtWhiteList *)output;
   out->status = ZEK_OK;
   zek_PortID portID;
   out->status = VigilMgmtFindPort(key, &portID);
   if (out->status != ZEK_OK) {
      return ZEK_OK;
   }
   out->numSwitchEntries = 0;
   out->numPortEntries = 0;
   zek_PortsetHandle portset;
   VigilFilter *filter = Vigil_LockPsPortAndFilter(portID, false, &portset);
   if (filter == nullptr) {
      out->status = VIGIL_STATUS_NOT_FOUND;
      return ZEK_OK;
   }
   if (filter->switchWhiteListSize != 0) {
      out->numSwitchEntries = GetWhiteListEntries(out->switchEntries, filter->switchWhiteList,
                                                  filter->switchWhiteListSize);
   }
   if (filter->portWhiteListSize != 0) {
      out->numPortEntries = GetWhiteListEntries(out->portEntries, filter->portWhiteList,
                                                filter->portWhiteListSize);
   }
   VigilMgmtUnlock(filter, false, portset);
   return ZEK_OK;
}

zek_Status VigilGetIgnoreListCB(u64 cookie, u64 instanceId, void *input, void *output) {
   (void)cookie;
   (void)instanceId;
   const VigilMgmtPortKey *key = (const VigilMgmtPortKey *)input;
   VigilMgmtIgnoreList *out = (VigilMgmtIgnoreList *)output;
   out->status = ZEK_OK;
   zek_PortID portID;
   out->status = VigilMgmtFindPort(key, &portID);
   if (out->status != ZEK_OK) {
      return ZEK_OK;
   }
   out->numEntries = 0;
   zek_PortsetHandle portset;
   VigilFilter *filter = Vigil_LockPsPortAndFilter(portID, false, &portset);
   if (filter == nullptr) {
      out->status = VIGIL_STATUS_NOT_FOUND;
      return ZEK_OK;
   }
   u32 n = filter->portIgnoreListSize < VIGIL_MGMT_MAX_IL_ROWS ? filter->portIgnoreListSize
                                                               : VIGIL_MGMT_MAX_IL_ROWS;
   for (u32 i = 0; i < n; i++) {
      VigilMgmtWriteListRow(&out->entries[i], &filter->portIgnoreList[i], true);
   }
   out->numEntries = n;
   VigilMgmtUnlock(filter, false, portset);
   return ZEK_OK;
}

zek_Status VigilGetFilteredBpduMacsCB(u64 cookie, u64 instanceId, void *input, void *output) {
   (void)cookie;
   (void)instanceId;
   const VigilMgmtPortKey *key = (const VigilMgmtPortKey *)input;
   VigilMgmtBpduList *out = (VigilMgmtBpduList *)output;
   out->numEntries = 0;
   zek_PortID portID;
   out->status = VigilMgmtFindPort(key, &portID);
   if (out->status != ZEK_OK) {
      return ZEK_OK;
   }
   zek_PortsetHandle portset;
   VigilFilter *filter = Vigil_LockPsPortAndFilter(portID, false, &portset);
   if (filter == nullptr) {
      out->status = VIGIL_STATUS_NOT_FOUND;
      return ZEK_OK;
   }
   if ((filter->featuresEnabled & VIGIL_FEAT_BPDU_FILTER) == 0 || filter->bpduBitmap == 0) {
      out->status = VIGIL_STATUS_NOT_ENABLED;
      VigilMgmtUnlock(filter, false, portset);
      return ZEK_OK;
   }
   /* Bit n of the bitmap stands for the n-th supported BPDU address. */
   for (u32 i = 0; i < numSupportedBpdus && out->numEntries < VIGIL_MGMT_MAX_BPDU_ROWS; i++) {
      if ((filter->bpduBitmap >> i) & 1u) {
         VIGIL_MGMT_PRINT(out->macs[out->numEntries], VIGIL_MAC_FMT,
                          VIGIL_MAC_ARGS(supportedBpduFilterMacs[i]));
         out->numEntries++;
      }
   }
   VigilMgmtUnlock(filter, false, portset);
   return ZEK_OK;
}

/* ------------------------------------------------------- open and close */

zek_Status VigilMgmtIntfInit(void) {
   vigilMgmtIntfHandle = nullptr;
   memset(vigilMgmtSig.name, 0, sizeof vigilMgmtSig.name);
   zek_Sprintf(vigilMgmtSig.name, sizeof vigilMgmtSig.name, VIGIL_MGMT_NAME ".%u",
               OXA_BUILD_NUMBER);
   zek_MgmtProps props;
   memset(&props, 0, sizeof props);
   props.module = moduleID;
   props.heap = heapID;
   props.signature = &vigilMgmtSig;
   zek_Status status = zek_MgmtInit(&props, &vigilMgmtIntfHandle);
   if (status != ZEK_OK) {
      vigilMgmtIntfHandle = nullptr;
      VIGIL_LOG_ERROR_CODE(status, "Management interface init failed");
      return status;
   }
   return ZEK_OK;
}

zek_Status VigilMgmtIntfCleanup(void) {
   zek_Status status = zek_MgmtDestroy(vigilMgmtIntfHandle);
   if (status == ZEK_OK) {
      vigilMgmtIntfHandle = nullptr;
   }
   return status;
}
