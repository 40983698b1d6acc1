/*
 * Consistency check of a filter's IPv6 database, for tests and tools: every
 * binding on exactly one of its two lists and in its own bucket of the hash,
 * the running list ordered by expiry, only ND bindings kept expired, the
 * DHCPv6 fields of an ND binding zero, every counter equal to what it
 * counts and within its limit; and the pending DHCPv6 requests ordered by
 * expiry, with their count and bytes.
 */
#include "vigil_v6.h"
#include "vigil_vmi.h"

#define VIGIL_CHECK_TEXT_LEN 192
/* Bound on any walk, so that a broken list cannot hang the check. */
#define VIGIL_CHECK_MAX_WALK 1000000u

struct VigilV6Check {
   VigilFilter *filter;
   OxaHashCommon *hash; /* null when the filter has no IPv6 hash */
   VigilViolationFn report;
   void *ctx;
   u32 violations;
};

#define VIGIL_V6_CHECK_FAIL(check, fmt, ...)                                   \
   do {                                                                        \
      char text_[VIGIL_CHECK_TEXT_LEN];                                        \
      zek_Sprintf(text_, sizeof text_, "Filter %#x " fmt,                      \
                  (check)->filter->portID, ##__VA_ARGS__);                     \
      (check)->report((check)->ctx, text_);                                    \
      (check)->violations++;                                                   \
   } while (0)

/* What the walk of one binding list found. */
struct VigilV6ListCount {
   u32 records;
   u32 nd;
   u32 dhcpV6;
   u32 statics;
   u32 unknown;
   u32 clientIdBytes;
};

static bool VigilV6ExtensionIsZero(const VigilV6Vmi *vmi) {
   for (u32 i = 0; i < sizeof vmi->serverIp; i++) {
      if (vmi->serverIp[i] != 0) {
         return false;
      }
   }
   return vmi->iaId == 0 && vmi->validLifetime == 0 && vmi->preferredLifetime == 0 &&
          vmi->clientIdLen == 0 && vmi->clientId == nullptr;
}

/* Walks one binding list: links, membership of the other list and of the
 * hash, the order by expiry where `ordered`, and the fields by method. */
static VigilV6ListCount VigilCheckV6List(VigilV6Check *check, VigilListLinks *head,
                                         size_t linksOffset, size_t otherOffset,
                                         const char *name, bool ordered) {
   VigilV6ListCount count = {};
   bool first = true;
   i64 lastExpiry = 0;
   for (VigilListLinks *pos = head->next; pos != head; pos = pos->next) {
      if (pos == nullptr || pos->next == nullptr || pos->next->prev != pos) {
         VIGIL_V6_CHECK_FAIL(check, "%s: broken links after %u records", name,
                             count.records);
         break;
      }
      if (++count.records > VIGIL_CHECK_MAX_WALK) {
         VIGIL_V6_CHECK_FAIL(check, "%s: does not end", name);
         break;
      }
      u32 n = count.records;
      VigilV6Vmi *vmi = (VigilV6Vmi *)((u8 *)pos - linksOffset);
      VigilListLinks *other = (VigilListLinks *)((u8 *)vmi + otherOffset);
      if (other->prev != nullptr || other->next != nullptr) {
         VIGIL_V6_CHECK_FAIL(check, "%s: record %u is on both lists", name, n);
      }
      if (ordered && !first && vmi->expiryTs < lastExpiry) {
         VIGIL_V6_CHECK_FAIL(check, "%s: record %u expires at %ld before %ld", name, n,
                             (long)vmi->expiryTs, (long)lastExpiry);
      }
      first = false;
      lastExpiry = vmi->expiryTs;
      if (check->hash != nullptr &&
          OxaHashFind(check->hash, OxaHashRecordKey(check->hash, vmi)) != vmi) {
         VIGIL_V6_CHECK_FAIL(check, "%s: record %u is not in the hash", name, n);
      }
      switch (vmi->discMethod) {
      case VIGIL_DISC_ND:
         count.nd++;
         if (!VigilV6ExtensionIsZero(vmi)) {
            VIGIL_V6_CHECK_FAIL(check, "%s: record %u is learnt by ND but has "
                                "DHCPv6 fields set", name, n);
         }
         break;
      case VIGIL_DISC_DHCPV6:
         count.dhcpV6++;
         count.clientIdBytes += vmi->clientIdLen;
         if (vmi->clientIdLen != 0 && vmi->clientId == nullptr) {
            VIGIL_V6_CHECK_FAIL(check, "%s: record %u has a client id of %u bytes "
                                "but no copy of it", name, n, vmi->clientIdLen);
         }
         break;
      case VIGIL_DISC_STATIC:
         count.statics++;
         break;
      default:
         count.unknown++;
         break;
      }
   }
   return count;
}

/* Walks the buckets: links, each record in its own bucket and on exactly
 * one of the two lists, the bucket counts and the hash count.  Returns the
 * number of records. */
static u32 VigilCheckV6Hash(VigilV6Check *check) {
   OxaHashCommon *hash = check->hash;
   u32 total = 0;
   for (u32 b = 0; b <= hash->mask; b++) {
      OxaHashBucket *bucket = &hash->buckets[b];
      u32 inBucket = 0;
      for (VigilListLinks *pos = bucket->head.next; pos != &bucket->head;
           pos = pos->next) {
         if (pos == nullptr || pos->next == nullptr || pos->next->prev != pos) {
            VIGIL_V6_CHECK_FAIL(check, "v6 bucket %u: broken links", b);
            break;
         }
         if (++inBucket > VIGIL_CHECK_MAX_WALK) {
            VIGIL_V6_CHECK_FAIL(check, "v6 bucket %u: does not end", b);
            break;
         }
         VigilV6Vmi *vmi = VIGIL_V6VMI_FROM_HASH(pos);
         if (OxaHashBucketOf(hash, OxaHashRecordKey(hash, vmi)) != bucket) {
            VIGIL_V6_CHECK_FAIL(check, "v6 bucket %u: holds a record of another bucket",
                                b);
         }
         bool running = vmi->expiryLinks.next != nullptr;
         bool expired = vmi->expiredLinks.next != nullptr;
         if (running && expired) {
            VIGIL_V6_CHECK_FAIL(check, "v6 bucket %u: a record is on both v6VmiList "
                                "and v6ExpiredNdList", b);
         } else if (!running && !expired) {
            VIGIL_V6_CHECK_FAIL(check, "v6 bucket %u: a record is on neither v6VmiList "
                                "nor v6ExpiredNdList", b);
         }
      }
      if (inBucket != bucket->count) {
         VIGIL_V6_CHECK_FAIL(check, "v6 bucket %u: count %u, holds %u", b, bucket->count,
                             inBucket);
      }
      total += inBucket;
   }
   if (total != hash->count) {
      VIGIL_V6_CHECK_FAIL(check, "v6 hash count %u, holds %u", hash->count, total);
   }
   return total;
}

static void VigilCheckV6Bindings(VigilV6Check *check) {
   VigilFilter *filter = check->filter;
   u32 inHash = check->hash == nullptr ? 0 : VigilCheckV6Hash(check);
   VigilV6ListCount running =
      VigilCheckV6List(check, &filter->v6VmiList, offsetof(VigilV6Vmi, expiryLinks),
                       offsetof(VigilV6Vmi, expiredLinks), "v6VmiList", true);
   /* Aging and a change of the ND lifetime append to the expired list, so
    * it need not be in order. */
   VigilV6ListCount expired =
      VigilCheckV6List(check, &filter->v6ExpiredNdList, offsetof(VigilV6Vmi, expiredLinks),
                       offsetof(VigilV6Vmi, expiryLinks), "v6ExpiredNdList", false);
   u32 inLists = running.records + expired.records;

   if (check->hash == nullptr) {
      /* A filter without an IPv6 table must not hold IPv6 bindings; the
       * counters are compared with the lists below. */
      if (inLists != 0) {
         VIGIL_V6_CHECK_FAIL(check, "has no IPv6 hash but %u IPv6 bindings", inLists);
      }
   } else {
      if (inHash != inLists) {
         VIGIL_V6_CHECK_FAIL(check, "v6 hash holds %u, lists hold %u", inHash, inLists);
      }
   }

   if (expired.nd != expired.records) {
      VIGIL_V6_CHECK_FAIL(check, "v6ExpiredNdList holds %u records not learnt by ND",
                          expired.records - expired.nd);
   }
   if (running.nd + expired.nd != filter->numNdEntries) {
      VIGIL_V6_CHECK_FAIL(check, "numNdEntries %u, lists hold %u", filter->numNdEntries,
                          running.nd + expired.nd);
   }
   if (expired.records != filter->numExpiredNdEntries) {
      VIGIL_V6_CHECK_FAIL(check, "numExpiredNdEntries %u, list holds %u",
                          filter->numExpiredNdEntries, expired.records);
   }
   if (running.dhcpV6 + expired.dhcpV6 != filter->numDhcpV6Entries) {
      VIGIL_V6_CHECK_FAIL(check, "numDhcpV6Entries %u, lists hold %u",
                          filter->numDhcpV6Entries, running.dhcpV6 + expired.dhcpV6);
   }
   if (running.clientIdBytes + expired.clientIdBytes != filter->dhcpV6ClientIdBytes) {
      VIGIL_V6_CHECK_FAIL(check, "dhcpV6ClientIdBytes %u, records hold %u",
                          filter->dhcpV6ClientIdBytes,
                          running.clientIdBytes + expired.clientIdBytes);
   }
   if (running.unknown + expired.unknown != 0) {
      VIGIL_V6_CHECK_FAIL(check, "%u IPv6 records of an unknown method",
                          running.unknown + expired.unknown);
   }
   if (filter->numExpiredNdEntries > filter->numNdEntries) {
      VIGIL_V6_CHECK_FAIL(check, "numExpiredNdEntries %u exceeds numNdEntries %u",
                          filter->numExpiredNdEntries, filter->numNdEntries);
   }
   if (filter->numNdEntries > filter->portDbNdEntriesSize) {
      VIGIL_V6_CHECK_FAIL(check, "numNdEntries %u exceeds portDbNdEntriesSize %u",
                          filter->numNdEntries, filter->portDbNdEntriesSize);
   }
   if (filter->numDhcpV6Entries > filter->portDbDhcpV6EntriesSize) {
      VIGIL_V6_CHECK_FAIL(check, "numDhcpV6Entries %u exceeds portDbDhcpV6EntriesSize %u",
                          filter->numDhcpV6Entries, filter->portDbDhcpV6EntriesSize);
   }
}

static void VigilCheckDhcpV6Reqs(VigilV6Check *check) {
   VigilFilter *filter = check->filter;
   VigilListLinks *head = &filter->dhcpV6ReqList;
   u32 count = 0;
   u32 bytes = 0;
   i64 lastExpiry = 0;
   for (VigilListLinks *pos = head->next; pos != head; pos = pos->next) {
      if (pos == nullptr || pos->next == nullptr || pos->next->prev != pos) {
         VIGIL_V6_CHECK_FAIL(check, "dhcpV6ReqList: broken links after %u records", count);
         break;
      }
      if (++count > VIGIL_CHECK_MAX_WALK) {
         VIGIL_V6_CHECK_FAIL(check, "dhcpV6ReqList: does not end");
         break;
      }
      VigilDhcpV6Req *req = VIGIL_DHCPV6_REQ_FROM_LINKS(pos);
      if (count > 1 && req->expiryTs < lastExpiry) {
         VIGIL_V6_CHECK_FAIL(check, "dhcpV6ReqList: record %u expires at %ld before %ld",
                             count, (long)req->expiryTs, (long)lastExpiry);
      }
      lastExpiry = req->expiryTs;
      if (req->msg == nullptr) {
         VIGIL_V6_CHECK_FAIL(check, "dhcpV6ReqList: record %u has no copy of its message",
                             count);
      }
      if (req->clientIdLen != 0 && req->clientId == nullptr) {
         VIGIL_V6_CHECK_FAIL(check, "dhcpV6ReqList: record %u has a client id of %u bytes "
                             "but no copy of it", count, req->clientIdLen);
      }
      bytes += (u32)req->msgLen + req->clientIdLen;
   }
   if (count != filter->numDhcpV6Reqs) {
      VIGIL_V6_CHECK_FAIL(check, "numDhcpV6Reqs %u, list holds %u", filter->numDhcpV6Reqs,
                          count);
   }
   if (bytes != filter->dhcpV6ReqBytes) {
      VIGIL_V6_CHECK_FAIL(check, "dhcpV6ReqBytes %u, requests hold %u",
                          filter->dhcpV6ReqBytes, bytes);
   }
   if (filter->numDhcpV6Reqs > filter->maxDhcpV6Reqs) {
      VIGIL_V6_CHECK_FAIL(check, "numDhcpV6Reqs %u exceeds maxDhcpV6Reqs %u",
                          filter->numDhcpV6Reqs, filter->maxDhcpV6Reqs);
   }
}

u32 VigilCheckV6PortDb(VigilFilter *filter, VigilViolationFn report, void *ctx) {
   VigilV6Check check = {filter,
                         filter->v6VmiHash == nullptr ? nullptr
                                                      : &filter->v6VmiHash->common,
                         report, ctx, 0};
   VigilCheckV6Bindings(&check);
   VigilCheckDhcpV6Reqs(&check);
   return check.violations;
}
