/*
 * The white list index (see vigil_whitelist_index.h).
 *
 * A check of some kind sees an entry through one of three views: the IPv4
 * view (IPv4 sources and ARP senders), the IPv6 view (IPv6 sources and
 * neighbor advertisement targets) and the L2 view (other frames).  In a
 * view, an entry takes part with a shape (the address bits its test looks
 * at, and whether its VLAN and MAC must be equal) or not at all: an entry
 * with only an IPv6 address never matches in the IPv4 view, and the other
 * way round.  Two entries of one shape and one key match the same frames,
 * so the hash keeps only the first.
 */
#include <cstring>

#include "vigil_module.h"
#include "vigil_packet.h"
#include "vigil_warden.h"
#include "vigil_whitelist_index.h"

#define VIGIL_WLX_VIEW_IPV4 0u
#define VIGIL_WLX_VIEW_IPV6 1u
#define VIGIL_WLX_VIEW_L2 2u
#define VIGIL_WLX_NUM_VIEWS 3u

/* A shape's number in a view: the prefix length (0 to 128, 0 also for no
 * address test, which matches the same addresses) and the VLAN and MAC bits. */
#define VIGIL_WLX_PREFIXES 129u
#define VIGIL_WLX_SHAPE_NUMBERS (VIGIL_WLX_NUM_VIEWS * VIGIL_WLX_PREFIXES * 4u)

#define VIGIL_WLX_VLAN_BITS 0xffff000000000000ull
#define VIGIL_WLX_MAC_BITS 0x0000ffffffffffffull

/* Lists above this are left to the scan: their index would not fit the
 * allocator's 32-bit sizes. */
#define VIGIL_WLX_MAX_ENTRIES (1u << 20)

struct VigilWlxShape {
   u64 maskHi;      /* address bits 0 to 63 that take part, big-endian order */
   u64 maskLo;      /* address bits 64 to 127 */
   u64 vlanMacMask; /* VIGIL_WLX_VLAN_BITS and VIGIL_WLX_MAC_BITS, as they take part */
   u32 tag;         /* the shape's position + 1, the first word of its keys */
   u32 firstIndex;  /* list index of the shape's first entry */
};

struct VigilWlxSlot {
   u32 tag;   /* 0: empty */
   u32 index; /* the first entry with this key */
   u64 vlanMac;
   u64 addrHi;
   u64 addrLo;
};

/* The IPv4 view when no shape of it names a MAC: the whole key, shape tag,
 * VLAN and address, fits one word, so a probe is one multiply and one
 * compare. */
struct VigilWlxV4Shape {
   u32 mask;       /* the address bits that take part */
   u32 vlanMask;   /* 0xffff when the VLAN takes part, 0 otherwise */
   u64 tag;        /* the shape's tag, already in place: tag << 48 */
   u32 firstIndex; /* list index of the shape's first entry */
   u32 unused;
};

struct VigilWlxV4Slot {
   u64 key;   /* tag << 48 | VLAN << 32 | address; 0: empty (tags start at 1) */
   u32 index; /* the first entry with this key */
   u32 unused;
};

struct VigilWhiteListIndex {
   const VigilWhiteListEntry *list;
   u32 size;
   u32 slotMask;
   u32 slotShift; /* 64 - log2 of the number of slots */
   u32 firstShape[VIGIL_WLX_NUM_VIEWS];
   u32 numShapes[VIGIL_WLX_NUM_VIEWS];
   u8 viewHasMac[VIGIL_WLX_NUM_VIEWS]; /* a shape of the view names a MAC */
   /* The VLAN and MAC bits that some shape of the view takes part with:
    * none, and a lookup reads neither. */
   u64 viewVlanMacMask[VIGIL_WLX_NUM_VIEWS];
   VigilWlxShape *shapes; /* by view, each view's by first entry */
   VigilWlxSlot *slots;
   /* The one-word table of the IPv4 view, null when a shape of the view
    * names a MAC; the general table holds the view's keys all the same. */
   VigilWlxV4Shape *v4Shapes;
   VigilWlxV4Slot *v4Slots;
   u32 v4SlotMask;
   u32 v4SlotShift;
   /* The IPv4 view has the one-word table and a single shape: a lookup is
    * one probe sequence. */
   bool v4OneShape;
};

static inline u64 VigilWlxGetBe64(const u8 *p) {
   return ((u64)VigilGetBe32(p) << 32) | VigilGetBe32(p + 4);
}

static inline u64 VigilWlxVlanMac(u16 vlan, const u8 *mac) {
   u64 word = (u64)vlan << 48;
   if (mac != nullptr) {
      word |= ((u64)VigilGetBe16(mac) << 32) | VigilGetBe32(mac + 2);
   }
   return word;
}

/* The address words that a view compares: an IPv4 address in the top half
 * of the first word. */
static inline void VigilWlxAddrWords(u32 view, const u8 *addr, u64 *hi, u64 *lo) {
   if (view == VIGIL_WLX_VIEW_IPV4) {
      *hi = (u64)VigilGetBe32(addr) << 32;
      *lo = 0;
   } else if (view == VIGIL_WLX_VIEW_IPV6) {
      *hi = VigilWlxGetBe64(addr);
      *lo = VigilWlxGetBe64(addr + 8);
   } else {
      *hi = 0;
      *lo = 0;
   }
}

/* The shape of an entry in a view (masks only) and its number; false when
 * the entry can never match in that view.  The masks are those of the
 * warden's address tests: an IPv4 prefix length takes the shift modulo 32,
 * an IPv6 one stops at 128. */
static bool VigilWlxShapeOf(const VigilWhiteListEntry *entry, u32 view,
                            VigilWlxShape *shape, u32 *number) {
   u32 prefix = 0;
   shape->maskHi = 0;
   shape->maskLo = 0;
   if (view == VIGIL_WLX_VIEW_IPV4) {
      if (entry->flags & VIGIL_WL_IPV4) {
         /* The low zero bits of the mask, counted modulo 32. */
         u32 lowZeros = (32u - entry->prefixLen) & 31u;
         u32 mask = entry->prefixLen == 0 ? 0 : 0xffffffffu << lowZeros;
         shape->maskHi = (u64)mask << 32;
         prefix = entry->prefixLen == 0 ? 0 : 32u - lowZeros;
      } else if (entry->flags & VIGIL_WL_IPV6) {
         return false;
      }
   } else if (view == VIGIL_WLX_VIEW_IPV6) {
      if (entry->flags & VIGIL_WL_IPV6) {
         prefix = entry->prefixLen > 128 ? 128 : entry->prefixLen;
         if (prefix >= 64) {
            shape->maskHi = ~0ull;
            shape->maskLo = prefix == 64 ? 0 : ~0ull << (128 - prefix);
         } else if (prefix != 0) {
            shape->maskHi = ~0ull << (64 - prefix);
         }
      } else if (entry->flags & VIGIL_WL_IPV4) {
         return false;
      }
   }
   shape->vlanMacMask = ((entry->flags & VIGIL_WL_VLAN) ? VIGIL_WLX_VLAN_BITS : 0) |
                        ((entry->flags & VIGIL_WL_MAC) ? VIGIL_WLX_MAC_BITS : 0);
   *number = (view * VIGIL_WLX_PREFIXES + prefix) * 4u +
             ((entry->flags & VIGIL_WL_VLAN) ? 1u : 0u) +
             ((entry->flags & VIGIL_WL_MAC) ? 2u : 0u);
   return true;
}

/* Multiplicative hashing of the folded key: the top bits of the product
 * depend on every bit below them.  The keys come from configuration, so a
 * cheap hash is enough; a frame can only look up, never add. */
static inline u32 VigilWlxSlotOf(const VigilWhiteListIndex *index, u32 tag, u64 vlanMac,
                                 u64 hi, u64 lo) {
   u64 folded = (hi ^ (lo >> 1) ^ (vlanMac >> 2) ^ (u64)tag) * 0x9e3779b97f4a7c15ull;
   return (u32)(folded >> index->slotShift);
}

static inline u64 VigilWlxV4Key(const VigilWlxV4Shape *shape, u16 vlan, u32 addr) {
   return shape->tag | ((u64)(vlan & shape->vlanMask) << 32) | (addr & shape->mask);
}

static inline u32 VigilWlxV4SlotOf(const VigilWhiteListIndex *index, u64 key) {
   return (u32)((key * 0x9e3779b97f4a7c15ull) >> index->v4SlotShift);
}

static void VigilWlxV4Insert(VigilWhiteListIndex *index, u64 key, u32 entryIndex) {
   u32 at = VigilWlxV4SlotOf(index, key);
   while (index->v4Slots[at].key != 0) {
      if (index->v4Slots[at].key == key) {
         return;
      }
      at = (at + 1) & index->v4SlotMask;
   }
   index->v4Slots[at].key = key;
   index->v4Slots[at].index = entryIndex;
}

static inline u32 VigilWlxV4Find(const VigilWhiteListIndex *index, u64 key) {
   u32 at = VigilWlxV4SlotOf(index, key);
   for (;;) {
      const VigilWlxV4Slot *slot = &index->v4Slots[at];
      if (slot->key == key) {
         return slot->index;
      }
      if (slot->key == 0) {
         return VIGIL_WDN_NO_MATCH;
      }
      at = (at + 1) & index->v4SlotMask;
   }
}

/* Puts the key in the hash unless an earlier entry holds it. */
static void VigilWlxInsert(VigilWhiteListIndex *index, u32 tag, u64 vlanMac,
                           u64 hi, u64 lo, u32 entryIndex) {
   u32 at = VigilWlxSlotOf(index, tag, vlanMac, hi, lo);
   while (index->slots[at].tag != 0) {
      const VigilWlxSlot *slot = &index->slots[at];
      if (slot->tag == tag && slot->vlanMac == vlanMac && slot->addrHi == hi &&
          slot->addrLo == lo) {
         return;
      }
      at = (at + 1) & index->slotMask;
   }
   VigilWlxSlot *slot = &index->slots[at];
   slot->tag = tag;
   slot->index = entryIndex;
   slot->vlanMac = vlanMac;
   slot->addrHi = hi;
   slot->addrLo = lo;
}

static inline u32 VigilWlxFind(const VigilWhiteListIndex *index, u32 tag, u64 vlanMac,
                               u64 hi, u64 lo) {
   u32 at = VigilWlxSlotOf(index, tag, vlanMac, hi, lo);
   for (;;) {
      const VigilWlxSlot *slot = &index->slots[at];
      if (slot->tag == tag && slot->vlanMac == vlanMac && slot->addrHi == hi &&
          slot->addrLo == lo) {
         return slot->index;
      }
      if (slot->tag == 0) {
         return VIGIL_WDN_NO_MATCH;
      }
      at = (at + 1) & index->slotMask;
   }
}

zek_Status Vigil_BuildWhiteListIndex(const VigilWhiteListEntry *list, u32 size,
                                     VigilWhiteListIndex **index) {
   *index = nullptr;
   if (size > VIGIL_WLX_MAX_ENTRIES) {
      return VIGIL_STATUS_NO_MEMORY;
   }
   /* First pass: how many shapes each view has, and how many keys. */
   u64 seen[(VIGIL_WLX_SHAPE_NUMBERS + 63) / 64];
   memset(seen, 0, sizeof seen);
   u32 numShapes[VIGIL_WLX_NUM_VIEWS] = {0, 0, 0};
   u32 numKeys = 0;
   u32 numV4Keys = 0;
   bool v4HasMac = false;
   for (u32 i = 0; i < size; i++) {
      for (u32 view = 0; view < VIGIL_WLX_NUM_VIEWS; view++) {
         VigilWlxShape shape;
         u32 number;
         if (!VigilWlxShapeOf(&list[i], view, &shape, &number)) {
            continue;
         }
         numKeys++;
         if (view == VIGIL_WLX_VIEW_IPV4) {
            numV4Keys++;
            if (shape.vlanMacMask & VIGIL_WLX_MAC_BITS) {
               v4HasMac = true;
            }
         }
         if ((seen[number / 64] & (1ull << (number % 64))) == 0) {
            seen[number / 64] |= 1ull << (number % 64);
            numShapes[view]++;
         }
      }
   }
   u32 totalShapes = numShapes[0] + numShapes[1] + numShapes[2];
   u32 numSlots = 2;
   u32 slotBits = 1;
   while (numSlots < 2 * numKeys) {
      numSlots *= 2;
      slotBits++;
   }
   bool v4Table = !v4HasMac && numV4Keys != 0;
   u32 numV4Slots = 0;
   u32 v4SlotBits = 1;
   if (v4Table) {
      numV4Slots = 2;
      while (numV4Slots < 2 * numV4Keys) {
         numV4Slots *= 2;
         v4SlotBits++;
      }
   }
   u32 v4Shapes = v4Table ? numShapes[VIGIL_WLX_VIEW_IPV4] : 0;
   u32 bytes = (u32)(sizeof(VigilWhiteListIndex) + totalShapes * sizeof(VigilWlxShape) +
                     numSlots * sizeof(VigilWlxSlot) + numV4Slots * sizeof(VigilWlxV4Slot) +
                     v4Shapes * sizeof(VigilWlxV4Shape));
   VigilWhiteListIndex *built = (VigilWhiteListIndex *)Vigil_HeapAlloc(bytes);
   if (built == nullptr) {
      return VIGIL_STATUS_NO_MEMORY;
   }
   built->list = list;
   built->size = size;
   built->slotMask = numSlots - 1;
   built->slotShift = 64 - slotBits;
   built->shapes = (VigilWlxShape *)(built + 1);
   built->slots = (VigilWlxSlot *)(built->shapes + totalShapes);
   built->v4Slots = nullptr;
   built->v4Shapes = nullptr;
   if (v4Table) {
      built->v4Slots = (VigilWlxV4Slot *)(built->slots + numSlots);
      built->v4Shapes = (VigilWlxV4Shape *)(built->v4Slots + numV4Slots);
      built->v4SlotMask = numV4Slots - 1;
      built->v4SlotShift = 64 - v4SlotBits;
      built->v4OneShape = numShapes[VIGIL_WLX_VIEW_IPV4] == 1;
   }
   built->firstShape[0] = 0;
   built->firstShape[1] = numShapes[0];
   built->firstShape[2] = numShapes[0] + numShapes[1];

   /* Second pass, in list order: a view's shapes come out ordered by their
    * first entry, and each key keeps its first entry. */
   for (u32 i = 0; i < size; i++) {
      const VigilWhiteListEntry *entry = &list[i];
      for (u32 view = 0; view < VIGIL_WLX_NUM_VIEWS; view++) {
         VigilWlxShape want;
         u32 number;
         if (!VigilWlxShapeOf(entry, view, &want, &number)) {
            continue;
         }
         VigilWlxShape *shapes = built->shapes + built->firstShape[view];
         u32 n = 0;
         while (n < built->numShapes[view] &&
                (shapes[n].maskHi != want.maskHi || shapes[n].maskLo != want.maskLo ||
                 shapes[n].vlanMacMask != want.vlanMacMask)) {
            n++;
         }
         if (n == built->numShapes[view]) {
            want.tag = built->firstShape[view] + n + 1;
            want.firstIndex = i;
            shapes[n] = want;
            built->numShapes[view]++;
            if (want.vlanMacMask & VIGIL_WLX_MAC_BITS) {
               built->viewHasMac[view] = 1;
            }
            built->viewVlanMacMask[view] |= want.vlanMacMask;
         }
         const VigilWlxShape *shape = &shapes[n];
         if (view == VIGIL_WLX_VIEW_IPV4 && built->v4Shapes != nullptr) {
            VigilWlxV4Shape *v4 = &built->v4Shapes[n];
            v4->mask = (u32)(shape->maskHi >> 32);
            v4->vlanMask = (shape->vlanMacMask & VIGIL_WLX_VLAN_BITS) ? 0xffffu : 0;
            v4->tag = (u64)shape->tag << 48;
            v4->firstIndex = shape->firstIndex;
            v4->unused = 0;
            VigilWlxV4Insert(built, VigilWlxV4Key(v4, entry->vlan, VigilGetBe32(entry->ip)), i);
         }
         u64 hi;
         u64 lo;
         VigilWlxAddrWords(view, entry->ip, &hi, &lo);
         VigilWlxInsert(built, shape->tag,
                        VigilWlxVlanMac(entry->vlan, entry->mac) & shape->vlanMacMask,
                        hi & shape->maskHi, lo & shape->maskLo, i);
      }
   }
   *index = built;
   return ZEK_OK;
}

void Vigil_FreeWhiteListIndex(VigilWhiteListIndex *index) {
   Vigil_HeapFree(index);
}

static inline bool VigilWlxCovers(const VigilWhiteListIndex *index,
                                  const VigilWhiteListEntry *list, u32 size) {
   return index != nullptr && index->list == list && index->size == size;
}

bool Vigil_WhiteListIndexCovers(const VigilWhiteListIndex *index,
                                const VigilWhiteListEntry *list, u32 size) {
   return VigilWlxCovers(index, list, size);
}

/* The lookup, made once for any kind and once more for the IPv4 source. */
static inline __attribute__((always_inline)) bool
VigilWlxMatch(const VigilWhiteListIndex *index, const VigilWhiteListEntry *list, u32 size,
              u16 vlan, const u8 *mac, const u8 *addr, u32 kind, bool macsEqual,
              u32 *matchIndex) {
   if (!VigilWlxCovers(index, list, size)) {
      return false;
   }
   u32 view;
   /* Whether an entry that names a MAC can match at all. */
   bool macCanMatch = mac != nullptr;
   switch (kind) {
   case VIGIL_WDN_IPV4:
      view = VIGIL_WLX_VIEW_IPV4;
      break;
   case VIGIL_WDN_ARP:
      /* Such an entry needs the source and sender MACs to agree. */
      if (mac == nullptr && macsEqual) {
         return false;
      }
      view = VIGIL_WLX_VIEW_IPV4;
      macCanMatch = macsEqual;
      break;
   case VIGIL_WDN_IPV6:
      view = VIGIL_WLX_VIEW_IPV6;
      break;
   case VIGIL_WDN_ND:
      /* Without a target MAC every entry passes the MAC test: a key with a
       * MAC can't be looked up then. */
      if (mac == nullptr && index->viewHasMac[VIGIL_WLX_VIEW_IPV6]) {
         return false;
      }
      view = VIGIL_WLX_VIEW_IPV6;
      break;
   case VIGIL_WDN_L2:
      view = VIGIL_WLX_VIEW_L2;
      break;
   default:
      *matchIndex = VIGIL_WDN_NO_MATCH;
      return true;
   }
   if (view == VIGIL_WLX_VIEW_IPV4 && index->v4Shapes != nullptr) {
      /* No shape names a MAC, so neither the frame's MAC nor whether it
       * can match matters. */
      if (addr == nullptr) {
         return false;
      }
      u32 a = VigilGetBe32(addr);
      u32 best = VIGIL_WDN_NO_MATCH;
      const VigilWlxV4Shape *shape = index->v4Shapes;
      const VigilWlxV4Shape *end = shape + index->numShapes[VIGIL_WLX_VIEW_IPV4];
      for (; shape < end && shape->firstIndex < best; shape++) {
         u32 found = VigilWlxV4Find(index, VigilWlxV4Key(shape, vlan, a));
         if (found < best) {
            best = found;
         }
      }
      *matchIndex = best;
      return true;
   }
   u64 hi = 0;
   u64 lo = 0;
   if (view != VIGIL_WLX_VIEW_L2) {
      if (addr == nullptr) {
         return false;
      }
      VigilWlxAddrWords(view, addr, &hi, &lo);
   }
   u64 vlanMac = 0;
   if (index->viewVlanMacMask[view] != 0) {
      vlanMac = VigilWlxVlanMac(vlan, mac);
   }
   u32 best = VIGIL_WDN_NO_MATCH;
   const VigilWlxShape *shape = index->shapes + index->firstShape[view];
   const VigilWlxShape *end = shape + index->numShapes[view];
   /* A shape whose first entry lies behind the best match so far can't
    * improve on it, nor can any after it. */
   for (; shape < end && shape->firstIndex < best; shape++) {
      if (!macCanMatch && (shape->vlanMacMask & VIGIL_WLX_MAC_BITS)) {
         continue;
      }
      u32 found = VigilWlxFind(index, shape->tag, vlanMac & shape->vlanMacMask,
                               hi & shape->maskHi, lo & shape->maskLo);
      if (found < best) {
         best = found;
      }
   }
   *matchIndex = best;
   return true;
}

bool Vigil_WhiteListIndexMatch(const VigilWhiteListIndex *index,
                               const VigilWhiteListEntry *list, u32 size, u16 vlan,
                               const u8 *mac, const u8 *addr, u32 kind,
                               bool macsEqual, u32 *matchIndex) {
   return VigilWlxMatch(index, list, size, vlan, mac, addr, kind, macsEqual, matchIndex);
}

/* Every other IPv4 source lookup, kept out of line so that the one-shape
 * path below needs no registers saved. */
static __attribute__((noinline)) bool
VigilWlxMatchIpv4(const VigilWhiteListIndex *index, const VigilWhiteListEntry *list,
                  u32 size, u16 vlan, const u8 *mac, const u8 *addr, u32 *matchIndex) {
   return VigilWlxMatch(index, list, size, vlan, mac, addr, VIGIL_WDN_IPV4, false,
                        matchIndex);
}

bool Vigil_WhiteListIndexMatchIpv4(const VigilWhiteListIndex *index,
                                   const VigilWhiteListEntry *list, u32 size, u16 vlan,
                                   const u8 *mac, const u8 *addr, u32 *matchIndex) {
   /* The common list: IPv4 entries of one prefix length, with or without
    * VLAN, none naming a MAC.  The shape's first entry can't lie behind a
    * match of its own. */
   if (VigilWlxCovers(index, list, size) && index->v4OneShape && addr != nullptr) {
      *matchIndex = VigilWlxV4Find(index, VigilWlxV4Key(index->v4Shapes, vlan,
                                                        VigilGetBe32(addr)));
      return true;
   }
   return VigilWlxMatchIpv4(index, list, size, vlan, mac, addr, matchIndex);
}
