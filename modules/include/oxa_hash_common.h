/*
 * A fixed-size chained hash, the common shape of the module's binding
 * tables.  The header and its buckets are one heap block; records are
 * intrusive, carrying their bucket links and key at fixed offsets.
 */
#ifndef OXA_HASH_COMMON_H
#define OXA_HASH_COMMON_H

#include <cstring>

#include "vigil_atomic.h"
#include "vigil_list.h"
#include "vigil_types.h"

#define OXA_HASH_KEY_BYTES 1u  /* fixed-size byte key */
#define OXA_HASH_KEY_STRING 2u /* NUL-terminated key of at most keyLen */
#define OXA_HASH_KEY_KIND_MASK 0x3u
#define OXA_HASH_MOVE_TO_FRONT 0x8u

#define OXA_HASH_COMMON_PATH "modules/include/oxa_hash_common.h"

struct OxaHashBucket {
   VigilListLinks head;
   u32 count;
};

struct OxaHashCommon {
   zek_HeapID heap; /* the heap the block came from; 0 while set up */
   u32 keyLen;
   u32 keyOffset;  /* of the key in a record */
   u32 linkOffset; /* of the bucket links in a record */
   u32 mask;       /* buckets - 1 */
   u32 count;      /* records, changed atomically */
   u8 flags;
   u16 reserved;
   u32 (*hashFn)(const void *key, u32 keyLen);
   int (*cmpFn)(const void *recordKey, const void *key, u32 keyLen);
   OxaHashBucket buckets[];
};

/* Fills the header of a block of `numBuckets` buckets (a power of two).
 * Returns 0xbad0007 otherwise. */
static inline zek_Status OxaHashInit(OxaHashCommon *hash, zek_HeapID heap,
                                     u32 numBuckets, u32 keyLen, u32 keyOffset,
                                     u32 linkOffset, u8 flags) {
   if (numBuckets == 0 || (numBuckets & (numBuckets - 1)) != 0) {
      return 0xbad0007u;
   }
   hash->heap = nullptr;
   hash->keyLen = keyLen;
   hash->keyOffset = keyOffset;
   hash->linkOffset = linkOffset;
   hash->mask = numBuckets - 1;
   hash->count = 0;
   hash->flags = flags;
   hash->reserved = 0xffff;
   hash->hashFn = nullptr;
   hash->cmpFn = nullptr;
   for (u32 i = 0; i < numBuckets; i++) {
      VigilListInit(&hash->buckets[i].head);
      hash->buckets[i].count = 0;
   }
   hash->heap = heap;
   return 0;
}

static inline u8 *OxaHashRecordKey(const OxaHashCommon *hash, void *record) {
   return (u8 *)record + hash->keyOffset;
}

static inline VigilListLinks *OxaHashRecordLinks(const OxaHashCommon *hash,
                                                 void *record) {
   return (VigilListLinks *)((u8 *)record + hash->linkOffset);
}

static inline void *OxaHashLinksRecord(const OxaHashCommon *hash,
                                       VigilListLinks *links) {
   return (u8 *)links - hash->linkOffset;
}

static inline bool OxaHashKeyKindIsKnown(const OxaHashCommon *hash) {
   u32 kind = hash->flags & OXA_HASH_KEY_KIND_MASK;
   return kind == OXA_HASH_KEY_BYTES || kind == OXA_HASH_KEY_STRING;
}

static inline OxaHashBucket *OxaHashBucketOf(const OxaHashCommon *hash,
                                             const void *key) {
   u32 h = 0;
   if (hash->hashFn != nullptr) {
      h = hash->hashFn(key, hash->keyLen);
   } else if ((hash->flags & OXA_HASH_KEY_KIND_MASK) == OXA_HASH_KEY_BYTES) {
      h = zek_HashBytes(key, hash->keyLen, 0);
   } else if ((hash->flags & OXA_HASH_KEY_KIND_MASK) == OXA_HASH_KEY_STRING) {
      u32 len = (u32)zek_Strnlen((const char *)key, hash->keyLen);
      if (len != 0) {
         h = zek_HashBytes(key, len, 0);
      }
   } else {
      zek_PanicWithModuleID(zek_ModuleCurrentID(), "Failed at %s:%d -- NOT REACHED",
                            OXA_HASH_COMMON_PATH, __LINE__);
   }
   return (OxaHashBucket *)&hash->buckets[h & hash->mask];
}

static inline bool OxaHashKeyEquals(const OxaHashCommon *hash,
                                    const void *recordKey, const void *key) {
   if (hash->cmpFn != nullptr) {
      return hash->cmpFn(recordKey, key, hash->keyLen) == 0;
   }
   switch (hash->flags & OXA_HASH_KEY_KIND_MASK) {
   case OXA_HASH_KEY_BYTES:
      if (hash->keyLen == 12) {
         /* The IPv4 binding key, compared as two words. */
         u64 a0;
         u64 b0;
         u32 a1;
         u32 b1;
         memcpy(&a0, recordKey, 8);
         memcpy(&b0, key, 8);
         memcpy(&a1, (const u8 *)recordKey + 8, 4);
         memcpy(&b1, (const u8 *)key + 8, 4);
         return a0 == b0 && a1 == b1;
      }
      return memcmp(recordKey, key, hash->keyLen) == 0;
   case OXA_HASH_KEY_STRING:
      return zek_Strncmp((const char *)recordKey, (const char *)key,
                         hash->keyLen) == 0;
   default:
      zek_PanicWithModuleID(zek_ModuleCurrentID(), "Failed at %s:%d -- NOT REACHED",
                            OXA_HASH_COMMON_PATH, __LINE__);
   }
}

/* The record with this key, or null. */
static inline void *OxaHashFind(OxaHashCommon *hash, const void *key) {
   OxaHashBucket *bucket = OxaHashBucketOf(hash, key);
   VIGIL_LIST_FOR_EACH(pos, &bucket->head) {
      void *record = OxaHashLinksRecord(hash, pos);
      if (OxaHashKeyEquals(hash, OxaHashRecordKey(hash, record), key)) {
         if ((hash->flags & OXA_HASH_MOVE_TO_FRONT) && bucket->head.next != pos) {
            VigilListRemove(pos);
            VigilListInsertAfter(&bucket->head, pos);
         }
         return record;
      }
   }
   return nullptr;
}

/* Links a record last in its bucket. */
static inline void OxaHashInsert(OxaHashCommon *hash, void *record) {
   OxaHashBucket *bucket = OxaHashBucketOf(hash, OxaHashRecordKey(hash, record));
   VigilListInsertBefore(&bucket->head, OxaHashRecordLinks(hash, record));
   VigilAtomicAdd(&hash->count, 1u);
   bucket->count++;
}

static inline void OxaHashRemove(OxaHashCommon *hash, void *record) {
   OxaHashBucket *bucket = OxaHashBucketOf(hash, OxaHashRecordKey(hash, record));
   VigilListRemove(OxaHashRecordLinks(hash, record));
   bucket->count--;
   VigilAtomicAdd(&hash->count, (u32)-1);
}

#endif /* OXA_HASH_COMMON_H */
