/*
 * The management interface: the signature handed to the platform's
 * management channel, its nine callbacks, and the records they take and
 * give.  The records are the wire format between the module and the
 * operator's tool: packed, numbers in host order, every text a
 * NUL-terminated string in a field of fixed width unless it fills the
 * field.  Every size and offset is checked below.
 */
#ifndef VIGIL_MGMT_H
#define VIGIL_MGMT_H

#include "vigil_filter.h"
#include "vigil_types.h"

#define VIGIL_MGMT_VERSION 0x01000000u /* 1.0.0.0 */
#define VIGIL_MGMT_NAME "PortVigil"
#define VIGIL_MGMT_VENDOR "Norvex Inc."
#define VIGIL_MGMT_NUM_CALLBACKS 9u

/* Callback ids. */
#define VIGIL_MGMT_CB_LIST_VMI 0x10u
#define VIGIL_MGMT_CB_GET_CONFIG 0x11u
#define VIGIL_MGMT_CB_DEL_VMI 0x12u
#define VIGIL_MGMT_CB_GET_STATS_BATCH 0x13u
#define VIGIL_MGMT_CB_GET_WHITE_LIST 0x14u
#define VIGIL_MGMT_CB_GET_IGNORE_LIST 0x15u
#define VIGIL_MGMT_CB_GET_BPDU_MACS 0x16u
#define VIGIL_MGMT_CB_LIST_V6VMI 0x17u
#define VIGIL_MGMT_CB_DEL_EXPIRY 0x18u

#define VIGIL_MGMT_TEXT_LEN 100u     /* a column */
#define VIGIL_MGMT_LONG_TEXT_LEN 500u /* the features and rate limit texts */
#define VIGIL_MGMT_BPDU_TEXT_LEN 24u
#define VIGIL_MGMT_MAX_V4_ROWS 384u   /* VIGIL_PORTDB_V4_SIZE */
#define VIGIL_MGMT_MAX_V6_ROWS 30u    /* 15 ND and 15 DHCPv6 */
#define VIGIL_MGMT_MAX_WL_ROWS 1024u
#define VIGIL_MGMT_MAX_IL_ROWS 16u
#define VIGIL_MGMT_MAX_BPDU_ROWS 40u
#define VIGIL_MGMT_MAX_STATS_PORTS 16u
#define VIGIL_MGMT_CLIENT_ID_SHOWN 50u /* bytes of a DHCPv6 client id shown */

/* Operations of a delete request and the method bits of op 3. */
#define VIGIL_MGMT_DEL_ALL 1u
#define VIGIL_MGMT_DEL_ONE 2u
#define VIGIL_MGMT_DEL_BY_METHOD 3u
#define VIGIL_MGMT_DEL_DHCP 0x1u
#define VIGIL_MGMT_DEL_ARP 0x2u
#define VIGIL_MGMT_DEL_ND 0x4u
#define VIGIL_MGMT_DEL_DHCPV6 0x8u

/* A port, named by its distributed switch and its port on that switch. */
struct __attribute__((packed)) VigilMgmtPortKey {
   char fabSwitchId[48];
   char fabPortId[64];
};
static_assert(sizeof(VigilMgmtPortKey) == 112, "port key is 112 bytes");
static_assert(offsetof(VigilMgmtPortKey, fabPortId) == 48, "fabPortId at 48");

/* One IPv4 binding of a list. */
struct __attribute__((packed)) VigilMgmtV4Entry {
   u16 index;
   u16 vlanId;
   char mac[VIGIL_MGMT_TEXT_LEN];
   char ip[VIGIL_MGMT_TEXT_LEN];
   char method[VIGIL_MGMT_TEXT_LEN];
   char remaining[VIGIL_MGMT_TEXT_LEN];
   char clientMac[VIGIL_MGMT_TEXT_LEN];
   char clientIdLen[VIGIL_MGMT_TEXT_LEN];
   char server[VIGIL_MGMT_TEXT_LEN];
   char lease[VIGIL_MGMT_TEXT_LEN];
};
static_assert(sizeof(VigilMgmtV4Entry) == 804, "IPv4 entry is 804 bytes");
static_assert(offsetof(VigilMgmtV4Entry, vlanId) == 2, "vlanId at 2");
static_assert(offsetof(VigilMgmtV4Entry, mac) == 4, "mac at 4");
static_assert(offsetof(VigilMgmtV4Entry, ip) == 104, "ip at 104");
static_assert(offsetof(VigilMgmtV4Entry, method) == 204, "method at 204");
static_assert(offsetof(VigilMgmtV4Entry, remaining) == 304, "remaining at 304");
static_assert(offsetof(VigilMgmtV4Entry, clientMac) == 404, "clientMac at 404");
static_assert(offsetof(VigilMgmtV4Entry, clientIdLen) == 504, "clientIdLen at 504");
static_assert(offsetof(VigilMgmtV4Entry, server) == 604, "server at 604");
static_assert(offsetof(VigilMgmtV4Entry, lease) == 704, "lease at 704");

/* One IPv6 binding of a list. */
struct __attribute__((packed)) VigilMgmtV6Entry {
   u16 index;
   u16 vlanId;
   char mac[VIGIL_MGMT_TEXT_LEN];
   char ip[VIGIL_MGMT_TEXT_LEN];
   char method[VIGIL_MGMT_TEXT_LEN];
   char remaining[VIGIL_MGMT_TEXT_LEN];
   char iaId[VIGIL_MGMT_TEXT_LEN];
   char server[VIGIL_MGMT_TEXT_LEN];
   char validLifetime[VIGIL_MGMT_TEXT_LEN];
   char preferredLifetime[VIGIL_MGMT_TEXT_LEN];
   u16 clientIdLen;
   char clientId[VIGIL_MGMT_TEXT_LEN];
};
static_assert(sizeof(VigilMgmtV6Entry) == 906, "IPv6 entry is 906 bytes");
static_assert(offsetof(VigilMgmtV6Entry, vlanId) == 2, "vlanId at 2");
static_assert(offsetof(VigilMgmtV6Entry, mac) == 4, "mac at 4");
static_assert(offsetof(VigilMgmtV6Entry, ip) == 104, "ip at 104");
static_assert(offsetof(VigilMgmtV6Entry, method) == 204, "method at 204");
static_assert(offsetof(VigilMgmtV6Entry, remaining) == 304, "remaining at 304");
static_assert(offsetof(VigilMgmtV6Entry, iaId) == 404, "iaId at 404");
static_assert(offsetof(VigilMgmtV6Entry, server) == 504, "server at 504");
static_assert(offsetof(VigilMgmtV6Entry, validLifetime) == 604, "validLifetime at 604");
static_assert(offsetof(VigilMgmtV6Entry, preferredLifetime) == 704, "preferredLifetime at 704");
static_assert(offsetof(VigilMgmtV6Entry, clientIdLen) == 804, "clientIdLen at 804");
static_assert(offsetof(VigilMgmtV6Entry, clientId) == 806, "clientId at 806");

/* The output of both list callbacks; each fills its own array. */
struct __attribute__((packed)) VigilMgmtVmiList {
   VigilMgmtV4Entry vmis[VIGIL_MGMT_MAX_V4_ROWS];
   VigilMgmtV6Entry v6Vmis[VIGIL_MGMT_MAX_V6_ROWS];
   u32 numEntries;
   u32 status;
};
static_assert(sizeof(VigilMgmtVmiList) == 335924, "binding list is 335924 bytes");
static_assert(offsetof(VigilMgmtVmiList, v6Vmis) == 308736, "v6Vmis at 308736");
static_assert(offsetof(VigilMgmtVmiList, numEntries) == 335916, "numEntries at 335916");
static_assert(offsetof(VigilMgmtVmiList, status) == 335920, "status at 335920");

/* A port's configuration and database counts, as text. */
struct __attribute__((packed)) VigilMgmtConfig {
   u8 unused[3];
   char features[VIGIL_MGMT_LONG_TEXT_LEN];
   char rateLimits[VIGIL_MGMT_LONG_TEXT_LEN];
   char delOnExpiry[VIGIL_MGMT_TEXT_LEN];
   char v4Capacity[VIGIL_MGMT_TEXT_LEN];
   char numVmis[VIGIL_MGMT_TEXT_LEN];
   char arpLimit[VIGIL_MGMT_TEXT_LEN];
   char numArpVmis[VIGIL_MGMT_TEXT_LEN];
   char numExpiredVmis[VIGIL_MGMT_TEXT_LEN];
   char dhcpLimit[VIGIL_MGMT_TEXT_LEN];
   char numDhcpVmis[VIGIL_MGMT_TEXT_LEN];
   char dhcpReqLimit[VIGIL_MGMT_TEXT_LEN];
   char numDhcpReqs[VIGIL_MGMT_TEXT_LEN];
   char numStaticVmis[VIGIL_MGMT_TEXT_LEN];
   char totalClientIdLen[VIGIL_MGMT_TEXT_LEN];
   char arpExpiry[VIGIL_MGMT_TEXT_LEN];
   char v6Capacity[VIGIL_MGMT_TEXT_LEN];
   char ndLimit[VIGIL_MGMT_TEXT_LEN];
   char numNdEntries[VIGIL_MGMT_TEXT_LEN];
   char numExpiredNdEntries[VIGIL_MGMT_TEXT_LEN];
   char dhcpV6Limit[VIGIL_MGMT_TEXT_LEN];
   char numDhcpV6Entries[VIGIL_MGMT_TEXT_LEN];
   char dhcpV6ReqLimit[VIGIL_MGMT_TEXT_LEN];
   char numDhcpV6Reqs[VIGIL_MGMT_TEXT_LEN];
   char dhcpV6ReqBytes[VIGIL_MGMT_TEXT_LEN];
   char dhcpV6ClientIdBytes[VIGIL_MGMT_TEXT_LEN];
   char ndExpiry[VIGIL_MGMT_TEXT_LEN];
   u32 status;
};
static_assert(sizeof(VigilMgmtConfig) == 3407, "configuration is 3407 bytes");
static_assert(offsetof(VigilMgmtConfig, features) == 3, "features at 3");
static_assert(offsetof(VigilMgmtConfig, rateLimits) == 503, "rateLimits at 503");
static_assert(offsetof(VigilMgmtConfig, delOnExpiry) == 1003, "delOnExpiry at 1003");
static_assert(offsetof(VigilMgmtConfig, v4Capacity) == 1103, "v4Capacity at 1103");
static_assert(offsetof(VigilMgmtConfig, numVmis) == 1203, "numVmis at 1203");
static_assert(offsetof(VigilMgmtConfig, arpLimit) == 1303, "arpLimit at 1303");
static_assert(offsetof(VigilMgmtConfig, numArpVmis) == 1403, "numArpVmis at 1403");
static_assert(offsetof(VigilMgmtConfig, numExpiredVmis) == 1503, "numExpiredVmis at 1503");
static_assert(offsetof(VigilMgmtConfig, dhcpLimit) == 1603, "dhcpLimit at 1603");
static_assert(offsetof(VigilMgmtConfig, numDhcpVmis) == 1703, "numDhcpVmis at 1703");
static_assert(offsetof(VigilMgmtConfig, dhcpReqLimit) == 1803, "dhcpReqLimit at 1803");
static_assert(offsetof(VigilMgmtConfig, numDhcpReqs) == 1903, "numDhcpReqs at 1903");
static_assert(offsetof(VigilMgmtConfig, numStaticVmis) == 2003, "numStaticVmis at 2003");
static_assert(offsetof(VigilMgmtConfig, totalClientIdLen) == 2103, "totalClientIdLen at 2103");
static_assert(offsetof(VigilMgmtConfig, arpExpiry) == 2203, "arpExpiry at 2203");
static_assert(offsetof(VigilMgmtConfig, v6Capacity) == 2303, "v6Capacity at 2303");
static_assert(offsetof(VigilMgmtConfig, ndLimit) == 2403, "ndLimit at 2403");
static_assert(offsetof(VigilMgmtConfig, numNdEntries) == 2503, "numNdEntries at 2503");
static_assert(offsetof(VigilMgmtConfig, numExpiredNdEntries) == 2603,
              "numExpiredNdEntries at 2603");
static_assert(offsetof(VigilMgmtConfig, dhcpV6Limit) == 2703, "dhcpV6Limit at 2703");
static_assert(offsetof(VigilMgmtConfig, numDhcpV6Entries) == 2803, "numDhcpV6Entries at 2803");
static_assert(offsetof(VigilMgmtConfig, dhcpV6ReqLimit) == 2903, "dhcpV6ReqLimit at 2903");
static_assert(offsetof(VigilMgmtConfig, numDhcpV6Reqs) == 3003, "numDhcpV6Reqs at 3003");
static_assert(offsetof(VigilMgmtConfig, dhcpV6ReqBytes) == 3103, "dhcpV6ReqBytes at 3103");
static_assert(offsetof(VigilMgmtConfig, dhcpV6ClientIdBytes) == 3203,
              "dhcpV6ClientIdBytes at 3203");
static_assert(offsetof(VigilMgmtConfig, ndExpiry) == 3303, "ndExpiry at 3303");
static_assert(offsetof(VigilMgmtConfig, status) == 3403, "status at 3403");

/* The binding a delete of op 2 names. */
struct __attribute__((packed)) VigilMgmtDelBinding {
   u16 vlanId;
   u8 mac[6];
   u8 isIpv6; /* not 0: the IPv6 database */
   u8 ip[16]; /* network order; an IPv4 address takes the first 4 bytes */
};
static_assert(sizeof(VigilMgmtDelBinding) == 25, "binding is 25 bytes");

/* The arguments of a delete share one place: methods for op 3, the binding
 * for op 2. */
union __attribute__((packed)) VigilMgmtDelArgs {
   u32 methods; /* VIGIL_MGMT_DEL_DHCP... */
   VigilMgmtDelBinding binding;
};
static_assert(sizeof(VigilMgmtDelArgs) == 25, "arguments are 25 bytes");

struct __attribute__((packed)) VigilMgmtDelRequest {
   VigilMgmtPortKey key;
   u32 op; /* VIGIL_MGMT_DEL_* */
   VigilMgmtDelArgs args;
   u8 unused[7];
};
static_assert(sizeof(VigilMgmtDelRequest) == 148, "delete request is 148 bytes");
static_assert(offsetof(VigilMgmtDelRequest, op) == 112, "op at 112");
static_assert(offsetof(VigilMgmtDelRequest, args.methods) == 116, "methods at 116");
static_assert(offsetof(VigilMgmtDelRequest, args.binding.vlanId) == 116, "vlanId at 116");
static_assert(offsetof(VigilMgmtDelRequest, args.binding.mac) == 118, "mac at 118");
static_assert(offsetof(VigilMgmtDelRequest, args.binding.isIpv6) == 124, "isIpv6 at 124");
static_assert(offsetof(VigilMgmtDelRequest, args.binding.ip) == 125, "ip at 125");
static_assert(offsetof(VigilMgmtDelRequest, unused) == 141, "unused at 141");

/* The output of the callbacks that answer a status alone. */
struct __attribute__((packed)) VigilMgmtStatus {
   u32 status;
};
static_assert(sizeof(VigilMgmtStatus) == 4, "status is 4 bytes");

/* Statistics of up to 16 ports at once. */
struct __attribute__((packed)) VigilMgmtStatsRequest {
   VigilMgmtPortKey keys[VIGIL_MGMT_MAX_STATS_PORTS];
   u8 numPorts;
};
static_assert(sizeof(VigilMgmtStatsRequest) == 1793, "statistics request is 1793 bytes");
static_assert(offsetof(VigilMgmtStatsRequest, numPorts) == 1792, "numPorts at 1792");

/* A port's statistics block word for word, its status in the last word. */
struct __attribute__((packed)) VigilMgmtPortStats {
   u32 counters[2 * VIGIL_NUM_STAT_COUNTERS];
   u32 status;
};
static_assert(sizeof(VigilMgmtPortStats) == 148, "port statistics are 148 bytes");
static_assert(sizeof(VigilMgmtPortStats) == sizeof(VigilStats), "the statistics block");
static_assert(offsetof(VigilMgmtPortStats, status) == 144, "status at 144");
static_assert(offsetof(VigilStats, statStatusSlot) == 144, "status slot at 144");

struct __attribute__((packed)) VigilMgmtStatsBatch {
   VigilMgmtPortStats ports[VIGIL_MGMT_MAX_STATS_PORTS];
   u32 status;
};
static_assert(sizeof(VigilMgmtStatsBatch) == 2372, "statistics batch is 2372 bytes");
static_assert(offsetof(VigilMgmtStatsBatch, status) == 2368, "status at 2368");

/* A row of a white list or of the ignore list. */
struct __attribute__((packed)) VigilMgmtListRow {
   char vlan[VIGIL_MGMT_TEXT_LEN];
   char mac[VIGIL_MGMT_TEXT_LEN];
   char ip[VIGIL_MGMT_TEXT_LEN];
};
static_assert(sizeof(VigilMgmtListRow) == 300, "row is 300 bytes");
static_assert(offsetof(VigilMgmtListRow, mac) == 100, "mac at 100");
static_assert(offsetof(VigilMgmtListRow, ip) == 200, "ip at 200");

struct __attribute__((packed)) VigilMgmtWhiteList {
   VigilMgmtListRow switchEntries[VIGIL_MGMT_MAX_WL_ROWS];
   u32 numSwitchEntries;
   VigilMgmtListRow portEntries[VIGIL_MGMT_MAX_WL_ROWS];
   u32 numPortEntries;
   u32 status;
};
static_assert(sizeof(VigilMgmtWhiteList) == 614412, "white lists are 614412 bytes");
static_assert(offsetof(VigilMgmtWhiteList, numSwitchEntries) == 307200,
              "numSwitchEntries at 307200");
static_assert(offsetof(VigilMgmtWhiteList, portEntries) == 307204, "portEntries at 307204");
static_assert(offsetof(VigilMgmtWhiteList, numPortEntries) == 614404,
              "numPortEntries at 614404");
static_assert(offsetof(VigilMgmtWhiteList, status) == 614408, "status at 614408");

struct __attribute__((packed)) VigilMgmtIgnoreList {
   VigilMgmtListRow entries[VIGIL_MGMT_MAX_IL_ROWS];
   u32 numEntries;
   u32 status;
};
static_assert(sizeof(VigilMgmtIgnoreList) == 4808, "ignore list is 4808 bytes");
static_assert(offsetof(VigilMgmtIgnoreList, numEntries) == 4800, "numEntries at 4800");
static_assert(offsetof(VigilMgmtIgnoreList, status) == 4804, "status at 4804");

struct __attribute__((packed)) VigilMgmtBpduList {
   char macs[VIGIL_MGMT_MAX_BPDU_ROWS][VIGIL_MGMT_BPDU_TEXT_LEN];
   u8 numEntries;
   u32 status;
};
static_assert(sizeof(VigilMgmtBpduList) == 965, "BPDU list is 965 bytes");
static_assert(offsetof(VigilMgmtBpduList, numEntries) == 960, "numEntries at 960");
static_assert(offsetof(VigilMgmtBpduList, status) == 961, "status at 961");

/* The platform's records, naturally aligned. */
static_assert(sizeof(zek_MgmtSignature) == 80, "signature is 80 bytes");
static_assert(offsetof(zek_MgmtSignature, name) == 4, "name at 4");
static_assert(offsetof(zek_MgmtSignature, vendor) == 36, "vendor at 36");
static_assert(offsetof(zek_MgmtSignature, numCallbacks) == 68, "numCallbacks at 68");
static_assert(offsetof(zek_MgmtSignature, callbacks) == 72, "callbacks at 72");
static_assert(sizeof(zek_MgmtCallbackInfo) == 64, "callback entry is 64 bytes");
static_assert(offsetof(zek_MgmtCallbackInfo, callback) == 8, "callback at 8");
static_assert(offsetof(zek_MgmtCallbackInfo, synchronous) == 16, "synchronous at 16");
static_assert(offsetof(zek_MgmtCallbackInfo, numParams) == 17, "numParams at 17");
static_assert(offsetof(zek_MgmtCallbackInfo, paramSizes) == 20, "paramSizes at 20");
static_assert(offsetof(zek_MgmtCallbackInfo, paramTypes) == 36, "paramTypes at 36");
static_assert(offsetof(zek_MgmtCallbackInfo, callbackId) == 56, "callbackId at 56");

/* The interface: its handle (null while none is open), the signature, whose
 * name is filled when the interface opens, and the callback table. */
extern zek_MgmtHandle vigilMgmtIntfHandle;
extern zek_MgmtSignature vigilMgmtSig;
extern const zek_MgmtCallbackInfo vigilMgmtCallbacks[VIGIL_MGMT_NUM_CALLBACKS];

/* The callbacks.  Each ignores its first two arguments, never writes its
 * input, and returns ZEK_OK: the outcome is the output's status. */
VIGIL_MUST_CHECK zek_Status VigilListVmiCB(u64 cookie, u64 instanceId, void *input,
                                           void *output);
VIGIL_MUST_CHECK zek_Status VigilGetConfigCB(u64 cookie, u64 instanceId, void *input,
                                             void *output);
VIGIL_MUST_CHECK zek_Status VigilDelVmiCB(u64 cookie, u64 instanceId, void *input,
                                          void *output);
VIGIL_MUST_CHECK zek_Status VigilGetStatsBatchCB(u64 cookie, u64 instanceId, void *input,
                                                 void *output);
VIGIL_MUST_CHECK zek_Status VigilGetWhiteListCB(u64 cookie, u64 instanceId, void *input,
                                                void *output);
VIGIL_MUST_CHECK zek_Status VigilGetIgnoreListCB(u64 cookie, u64 instanceId, void *input,
                                                 void *output);
VIGIL_MUST_CHECK zek_Status VigilGetFilteredBpduMacsCB(u64 cookie, u64 instanceId,
                                                       void *input, void *output);
VIGIL_MUST_CHECK zek_Status VigilListV6VmiCB(u64 cookie, u64 instanceId, void *input,
                                             void *output);
VIGIL_MUST_CHECK zek_Status VigilDelExpiryCB(u64 cookie, u64 instanceId, void *input,
                                             void *output);

#endif /* VIGIL_MGMT_H */
