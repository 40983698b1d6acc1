/*
 * The white list index: a hash of a white list's entries that finds the
 * first entry a (VLAN, MAC, address) matches without walking the list.
 *
 * Entries are grouped by shape: which address test they take for a kind of
 * check and its prefix length, and whether VLAN and MAC take part.  Within a
 * shape an entry's key is its masked address with its VLAN and MAC where
 * they take part, and the hash keeps the lowest entry index of each key.  A
 * lookup masks the frame's fields by each shape in order of the shape's
 * first entry, and stops as soon as no later shape can hold an earlier
 * match.  The answer is the scan's: the same entry, or no match.
 *
 * Built with the configuration, in one allocation from the module heap;
 * read under the filter's lock like the list it indexes.
 */
#ifndef VIGIL_WHITELIST_INDEX_H
#define VIGIL_WHITELIST_INDEX_H

#include "vigil_types.h"
#include "vigil_whitelist.h"

/* Shorter lists are scanned: a scan of so few entries costs no more than a
 * lookup, and saves the allocation. */
#define VIGIL_WL_INDEX_MIN_ENTRIES 4u

struct VigilWhiteListIndex;

/* Builds the index of `list` (`size` entries, kept unchanged while the
 * index lives).  0xbad0014 when the heap has no room; *index is then null. */
VIGIL_MUST_CHECK zek_Status Vigil_BuildWhiteListIndex(const VigilWhiteListEntry *list,
                                                      u32 size,
                                                      VigilWhiteListIndex **index);
void Vigil_FreeWhiteListIndex(VigilWhiteListIndex *index);

/* True when `index` was built for exactly this list and size. */
bool Vigil_WhiteListIndexCovers(const VigilWhiteListIndex *index,
                                const VigilWhiteListEntry *list, u32 size);

/* The first entry of `list` that the check of `kind` matches, as the scan
 * finds it, in *matchIndex (VIGIL_WDN_NO_MATCH for none).  Returns false,
 * leaving *matchIndex alone, when `index` (which may be null) was not built
 * for this list and size, and for the one check the index cannot answer: a
 * neighbor advertisement target without a link-layer address, on a list
 * with an IPv6 entry that names a MAC; and for a missing address. */
bool Vigil_WhiteListIndexMatch(const VigilWhiteListIndex *index,
                               const VigilWhiteListEntry *list, u32 size, u16 vlan,
                               const u8 *mac, const u8 *addr, u32 kind,
                               bool macsEqual, u32 *matchIndex);

/* The same for the IPv4 source check (VIGIL_WDN_IPV4). */
bool Vigil_WhiteListIndexMatchIpv4(const VigilWhiteListIndex *index,
                                   const VigilWhiteListEntry *list, u32 size, u16 vlan,
                                   const u8 *mac, const u8 *addr, u32 *matchIndex);

/* The first-match scan of the list, the reference the index must agree
 * with. */
u32 Vigil_ScanWhiteList(const VigilWhiteListEntry *list, u32 size, u16 vlan,
                        const u8 *mac, const u8 *addr, u32 kind, bool macsEqual);

#endif /* VIGIL_WHITELIST_INDEX_H */
