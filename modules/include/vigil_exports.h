/*
 * Everything the loadable module shows the outside; the rest of it is
 * hidden.  The platform calls the entries and sets the parameters; the
 * tools (vigilsim, vigild, the load tests) read the module-wide values and
 * run the table checker.  A test compares this list with what vigil.so
 * exports.
 */
#ifndef VIGIL_EXPORTS_H
#define VIGIL_EXPORTS_H

#include "vigil_types.h"

#define VIGIL_EXPORT __attribute__((visibility("default")))

struct VigilFilter;
struct VigilTaskQueue;
typedef void (*VigilViolationFn)(void *ctx, const char *text);

/* Entries and parameters. */
extern "C" VIGIL_EXPORT int init_module(void);
extern "C" VIGIL_EXPORT void cleanup_module(void);
extern "C" VIGIL_EXPORT int VIGIL_HEAP_MIN_SIZE;
extern "C" VIGIL_EXPORT int VIGIL_HEAP_MAX_SIZE;
extern "C" VIGIL_EXPORT bool isLiveUpgrade;

/* Module-wide values the tools read. */
extern VIGIL_EXPORT u64 numFilters;
extern VIGIL_EXPORT i64 delOnExpiry;
extern VIGIL_EXPORT u8 isLiveUpgradeFromMod;
extern VIGIL_EXPORT zek_PriQHandle filterAgingQ;
extern VIGIL_EXPORT VigilTaskQueue taskQueue;
extern VIGIL_EXPORT u32 saveVersion;   /* the layout the save path writes */
extern VIGIL_EXPORT u32 supportedTlvs; /* a bit per block it writes */

/* One binding as the port database API hands it out, 32 bytes; the
 * portset messages carry the same layout.  A query writes only the named
 * fields (gratuitous is the portset message's own), so callers clear their
 * buffer first. */
struct VigilPortDbEntry {
   u16 vlanId; /* host order */
   u8 mac[6];
   u8 isIpv4; /* 1 for IPv4, 0 for IPv6 */
   u8 pad1[3];
   u8 ip[16]; /* network order; an IPv4 address in the first four bytes */
   u8 bound;
   u8 gratuitous;
   u8 discMethod;
   u8 pad2;
};
static_assert(sizeof(VigilPortDbEntry) == 32, "32-byte entry");
static_assert(offsetof(VigilPortDbEntry, mac) == 2, "mac at 2");
static_assert(offsetof(VigilPortDbEntry, isIpv4) == 8, "isIpv4 at 8");
static_assert(offsetof(VigilPortDbEntry, ip) == 12, "ip at 12");
static_assert(offsetof(VigilPortDbEntry, bound) == 28, "bound at 28");
static_assert(offsetof(VigilPortDbEntry, gratuitous) == 29, "gratuitous at 29");
static_assert(offsetof(VigilPortDbEntry, discMethod) == 30, "discMethod at 30");

/* Entry classes of the port database API. */
#define VIGIL_PORTDB_CLASS_ASSIGNED 0u /* DHCP, static, DHCPv6 */
#define VIGIL_PORTDB_CLASS_SNOOPED 1u  /* ARP, ND */
#define VIGIL_PORTDB_CLASS_ALL 2u

/* The port database API of sibling modules, reached by name.  Each takes
 * the port's filter lock itself. */
extern "C" VIGIL_EXPORT zek_Status Vigil_PortDBGetNumEntries(zek_PortID portID, u32 entryClass, u32 *count);
extern "C" VIGIL_EXPORT zek_Status Vigil_PortDBGetEntries(zek_PortID portID, u32 entryClass, VigilPortDbEntry *buffer, u32 capacity, u32 *count);
extern "C" VIGIL_EXPORT zek_Status Vigil_PortDBDelEntries(zek_PortID portID, u32 ip, const u8 *mac);

/* The invariant checker of a filter's tables. */
extern "C" VIGIL_EXPORT u32 VigilCheckFilterTables(VigilFilter *filter,
                                                   VigilViolationFn report,
                                                   void *ctx);

#endif /* VIGIL_EXPORTS_H */
