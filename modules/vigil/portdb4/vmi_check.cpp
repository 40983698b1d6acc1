/*
 * Consistency check of a filter's IPv4 database, for tests and tools: every
 * record in exactly one bucket (its own) and one expiry list, both lists
 * ordered and well linked, and every counter equal to what it counts.
 */
#include "vigil_vmi.h"

#define VIGIL_CHECK_TEXT_LEN 192
/* Bound on any walk, so that a broken list cannot hang the check. */
#define VIGIL_CHECK_MAX_WALK 1000000u

struct VigilCheck {
   VigilFilter *filter;
   VigilViolationFn report;
   void *ctx;
   u32 violations;
};

#define VIGIL_CHECK_FAIL(check, fmt, ...)                                      \
   do {                                                                        \
      char text_[VIGIL_CHECK_TEXT_LEN];                                        \
      zek_Sprintf(text_, sizeof text_, "Filter %#x " fmt,                      \
                  (check)->filter->portID, ##__VA_ARGS__);                     \
      (check)->report((check)->ctx, text_);                                    \
      (check)->violations++;                                                   \
   } while (0)

/* Walks one expiry list: links, order, membership in the hash.  Returns
 * the number of records, and the counts by method through `byMethod`. */
static u32 VigilCheckExpiryList(VigilCheck *check, VigilListLinks *head,
                                size_t linksOffset, size_t otherOffset,
                                const char *name, u32 byMethod[5],
                                u32 *clientIdLen) {
   OxaHashCommon *hash = &check->filter->vmiHash->common;
   u32 count = 0;
   bool first = true;
   i64 lastExpiry = 0;
   for (VigilListLinks *pos = head->next; pos != head; pos = pos->next) {
      if (pos == nullptr || pos->next == nullptr || pos->next->prev != pos) {
         VIGIL_CHECK_FAIL(check, "%s: broken links after %u records", name, count);
         break;
      }
      if (++count > VIGIL_CHECK_MAX_WALK) {
         VIGIL_CHECK_FAIL(check, "%s: does not end", name);
         break;
      }
      VigilVmi *vmi = (VigilVmi *)((u8 *)pos - linksOffset);
      VigilListLinks *other = (VigilListLinks *)((u8 *)vmi + otherOffset);
      if (other->prev != nullptr || other->next != nullptr) {
         VIGIL_CHECK_FAIL(check, "%s: record %u is on both lists", name, count);
      }
      if (!first && vmi->expiryTs < lastExpiry) {
         VIGIL_CHECK_FAIL(check, "%s: record %u expires at %ld before %ld", name,
                          count, (long)vmi->expiryTs, (long)lastExpiry);
      }
      first = false;
      lastExpiry = vmi->expiryTs;
      if (OxaHashFind(hash, OxaHashRecordKey(hash, vmi)) != vmi) {
         VIGIL_CHECK_FAIL(check, "%s: record %u is not in the hash", name, count);
      }
      switch (vmi->discMethod) {
      case VIGIL_DISC_DHCP:
         byMethod[0]++;
         *clientIdLen += vmi->clientIdLen;
         if ((vmi->clientIdLen == 0) != (vmi->clientIdStr == nullptr)) {
            VIGIL_CHECK_FAIL(check, "%s: record %u client id length %u disagrees "
                             "with its string", name, count, vmi->clientIdLen);
         }
         break;
      case VIGIL_DISC_ARP:
         byMethod[1]++;
         break;
      case VIGIL_DISC_STATIC:
         byMethod[2]++;
         break;
      default:
         byMethod[3]++;
         break;
      }
      if (vmi->gratuitous != 0) {
         VIGIL_CHECK_FAIL(check, "%s: record %u keeps gratuitous set", name, count);
      }
   }
   return count;
}

static void VigilCheckHash(VigilCheck *check) {
   OxaHashCommon *hash = &check->filter->vmiHash->common;
   u32 total = 0;
   for (u32 b = 0; b <= hash->mask; b++) {
      OxaHashBucket *bucket = &hash->buckets[b];
      u32 inBucket = 0;
      for (VigilListLinks *pos = bucket->head.next; pos != &bucket->head;
           pos = pos->next) {
         if (pos == nullptr || pos->next == nullptr || pos->next->prev != pos) {
            VIGIL_CHECK_FAIL(check, "bucket %u: broken links", b);
            break;
         }
         if (++inBucket > VIGIL_CHECK_MAX_WALK) {
            VIGIL_CHECK_FAIL(check, "bucket %u: does not end", b);
            break;
         }
         VigilVmi *vmi = VIGIL_VMI_FROM_HASH(pos);
         if (OxaHashBucketOf(hash, OxaHashRecordKey(hash, vmi)) != bucket) {
            VIGIL_CHECK_FAIL(check, "bucket %u: holds a record of another bucket", b);
         }
         bool onVmiList = vmi->expiryLinks.next != nullptr;
         bool onExpired = vmi->expiredLinks.next != nullptr;
         if (onVmiList == onExpired) {
            VIGIL_CHECK_FAIL(check, "bucket %u: a record is on %s expiry list", b,
                             onVmiList ? "more than one" : "no");
         }
      }
      if (inBucket != bucket->count) {
         VIGIL_CHECK_FAIL(check, "bucket %u: count %u, holds %u", b, bucket->count,
                          inBucket);
      }
      total += inBucket;
   }
   if (total != hash->count) {
      VIGIL_CHECK_FAIL(check, "hash count %u, holds %u", hash->count, total);
   }
   if (total != check->filter->numVmis) {
      VIGIL_CHECK_FAIL(check, "numVmis %u, hash holds %u", check->filter->numVmis,
                       total);
   }
}

u32 VigilCheckVmiTable(VigilFilter *filter, VigilViolationFn report, void *ctx) {
   VigilCheck check = {filter, report, ctx, 0};
   if (filter->vmiHash == nullptr) {
      VIGIL_CHECK_FAIL(&check, "has no IPv4 hash");
      return check.violations;
   }
   VigilCheckHash(&check);

   u32 byMethod[5] = {0};
   u32 clientIdLen = 0;
   u32 inVmiList = VigilCheckExpiryList(&check, &filter->vmiList,
                                        offsetof(VigilVmi, expiryLinks),
                                        offsetof(VigilVmi, expiredLinks),
                                        "vmiList", byMethod, &clientIdLen);
   u32 expiredByMethod[5] = {0};
   u32 inExpired = VigilCheckExpiryList(&check, &filter->expiredVmiList,
                                        offsetof(VigilVmi, expiredLinks),
                                        offsetof(VigilVmi, expiryLinks),
                                        "expiredVmiList", expiredByMethod,
                                        &clientIdLen);
   if (expiredByMethod[1] != inExpired) {
      VIGIL_CHECK_FAIL(&check, "expiredVmiList holds %u records not learnt by ARP",
                       inExpired - expiredByMethod[1]);
   }
   for (u32 i = 0; i < 5; i++) {
      byMethod[i] += expiredByMethod[i];
   }
   if (inVmiList + inExpired != filter->numVmis) {
      VIGIL_CHECK_FAIL(&check, "numVmis %u, lists hold %u", filter->numVmis,
                       inVmiList + inExpired);
   }
   if (inExpired != filter->numExpiredVmis) {
      VIGIL_CHECK_FAIL(&check, "numExpiredVmis %u, list holds %u",
                       filter->numExpiredVmis, inExpired);
   }
   if (byMethod[0] != filter->numDhcpVmis) {
      VIGIL_CHECK_FAIL(&check, "numDhcpVmis %u, lists hold %u", filter->numDhcpVmis,
                       byMethod[0]);
   }
   if (byMethod[1] != filter->numArpVmis) {
      VIGIL_CHECK_FAIL(&check, "numArpVmis %u, lists hold %u", filter->numArpVmis,
                       byMethod[1]);
   }
   if (byMethod[2] != filter->numStaticVmis) {
      VIGIL_CHECK_FAIL(&check, "numStaticVmis %u, lists hold %u",
                       filter->numStaticVmis, byMethod[2]);
   }
   if (byMethod[3] != 0) {
      VIGIL_CHECK_FAIL(&check, "%u records of an unknown method", byMethod[3]);
   }
   if (filter->numVmis !=
       filter->numDhcpVmis + filter->numArpVmis + filter->numStaticVmis) {
      VIGIL_CHECK_FAIL(&check, "numVmis %u is not the sum of its methods",
                       filter->numVmis);
   }
   if (filter->numExpiredVmis > filter->numArpVmis) {
      VIGIL_CHECK_FAIL(&check, "numExpiredVmis %u exceeds numArpVmis %u",
                       filter->numExpiredVmis, filter->numArpVmis);
   }
   if ((filter->numVmis == filter->numExpiredVmis) !=
       VigilListIsEmpty(&filter->vmiList)) {
      VIGIL_CHECK_FAIL(&check, "vmiList is %s but numVmis %u, numExpiredVmis %u",
                       VigilListIsEmpty(&filter->vmiList) ? "empty" : "not empty",
                       filter->numVmis, filter->numExpiredVmis);
   }
   if (clientIdLen != filter->totalClientIdLen) {
      VIGIL_CHECK_FAIL(&check, "totalClientIdLen %u, records hold %u",
                       filter->totalClientIdLen, clientIdLen);
   }
   return check.violations;
}

/* Every check of a filter's tables, for tools that load the module. */
extern "C" u32 VigilCheckFilterTables(VigilFilter *filter, VigilViolationFn report,
                                      void *ctx) {
   return VigilCheckVmiTable(filter, report, ctx) + VigilCheckV6PortDb(filter, report, ctx);
}
