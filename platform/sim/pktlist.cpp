/*
 * Frame lists of the simulated host and their iterators.  A list owns its
 * frames.  The frames are linked through their own records, so appending
 * and removing allocate nothing; list records are recycled like frames.
 * An iterator lives in caller memory of ZEK_PKT_LIST_ITER_MAX_SIZE bytes
 * and holds the frame it is at, and moves to the successor when that frame
 * is removed.
 */
#include <new>
#include <vector>

#include "sim_frame_internal.h"
#include "sim_frames.h"
#include "sim_internal.h"
#include "sim_spinlock.h"

struct zek_PktList {
   zek_Pkt *head;
   zek_Pkt *tail;
   bool live;
   zek_PktList *nextFree;
};

struct zek_PktListIter {
   zek_PktList *list;
   zek_Pkt *pos; /* nullptr at the end */
};

static_assert(sizeof(zek_PktListIter) <= ZEK_PKT_LIST_ITER_MAX_SIZE,
              "iterator must fit the caller's reservation");
static_assert(alignof(zek_PktListIter) <= 16,
              "iterator must fit memory aligned to 16");

namespace {

sim::RwSpinlock gListLock; /* the free list and the record of every list */
std::vector<zek_PktList *> gAllLists; /* never freed: stale handles stay readable */
zek_PktList *gFreeLists = nullptr;

/* Lists left from the previous run are dropped; their frames go back to the
 * pool by the frames' own reset. */
void ResetLists() {
   gListLock.WriteLock();
   gFreeLists = nullptr;
   for (zek_PktList *list : gAllLists) {
      list->live = false;
      list->nextFree = gFreeLists;
      gFreeLists = list;
   }
   gListLock.WriteUnlock();
}

const bool gResetRegistered = (sim::RegisterResetHook(ResetLists), true);

void Unlink(zek_PktList *list, zek_Pkt *pkt) {
   (pkt->prev != nullptr ? pkt->prev->next : list->head) = pkt->next;
   (pkt->next != nullptr ? pkt->next->prev : list->tail) = pkt->prev;
   pkt->list = nullptr;
   pkt->prev = nullptr;
   pkt->next = nullptr;
}

} // namespace

namespace sim {

zek_PktList *MakeList() {
   gListLock.WriteLock();
   zek_PktList *list = gFreeLists;
   if (list != nullptr) {
      gFreeLists = list->nextFree;
   } else {
      list = new zek_PktList{};
      gAllLists.push_back(list);
   }
   list->head = nullptr;
   list->tail = nullptr;
   list->live = true;
   list->nextFree = nullptr;
   gListLock.WriteUnlock();
   return list;
}

void ListAppend(zek_PktList *list, zek_Pkt *pkt) {
   pkt->list = list;
   pkt->prev = list->tail;
   pkt->next = nullptr;
   (list->tail != nullptr ? list->tail->next : list->head) = pkt;
   list->tail = pkt;
}

std::vector<zek_Pkt *> ListFrames(zek_PktList *list) {
   std::vector<zek_Pkt *> out;
   for (zek_Pkt *pkt = list->head; pkt != nullptr; pkt = pkt->next) {
      out.push_back(pkt);
   }
   return out;
}

zek_Pkt *ListFirst(zek_PktList *list) { return list->head; }

zek_Pkt *ListNext(zek_Pkt *pkt) { return pkt->next; }

void DestroyList(zek_PktList *list) {
   gListLock.WriteLock();
   const bool known = list->live;
   list->live = false;
   gListLock.WriteUnlock();
   if (!known) {
      ReportFailure("DestroyList: the list is not live (destroyed twice or "
                    "never made)");
      return;
   }
   while (list->head != nullptr) {
      zek_Pkt *pkt = list->head;
      Unlink(list, pkt);
      zek_PktRelease(pkt);
   }
   gListLock.WriteLock();
   list->nextFree = gFreeLists;
   gFreeLists = list;
   gListLock.WriteUnlock();
}

} // namespace sim

extern "C" {

uint32_t zek_PktListIterSizeOf(void) { return sizeof(zek_PktListIter); }

void zek_PktListIterStart(zek_PktListIter *iter, zek_PktList *list) {
   new (iter) zek_PktListIter{list, list->head};
}

int zek_PktListIterIsAtEnd(zek_PktListIter *iter) { return iter->pos == nullptr; }

zek_Pkt *zek_PktListIterGetPkt(zek_PktListIter *iter) { return iter->pos; }

void zek_PktListIterMove(zek_PktListIter *iter) {
   if (iter->pos != nullptr) {
      iter->pos = iter->pos->next;
   }
}

zek_Status zek_PktListIterRemovePkt(zek_PktListIter *iter, zek_Pkt **pkt) {
   SIM_FAULT_RETURN("PktListIterRemovePkt");
   if (iter->pos == nullptr) {
      return sim::kNotFound;
   }
   zek_Pkt *removed = iter->pos;
   iter->pos = removed->next;
   Unlink(iter->list, removed);
   *pkt = removed;
   return ZEK_OK;
}

zek_Status zek_PktListIterReplace(zek_PktListIter *iter, zek_Pkt *pkt) {
   SIM_FAULT_RETURN("PktListIterReplace");
   zek_Pkt *old = iter->pos;
   if (old == nullptr) {
      return sim::kNotFound;
   }
   if (old == pkt) {
      return ZEK_OK;
   }
   /* The new frame takes the old one's place in the list. */
   pkt->list = iter->list;
   pkt->prev = old->prev;
   pkt->next = old->next;
   (old->prev != nullptr ? old->prev->next : iter->list->head) = pkt;
   (old->next != nullptr ? old->next->prev : iter->list->tail) = pkt;
   old->list = nullptr;
   old->prev = nullptr;
   old->next = nullptr;
   iter->pos = pkt;
   zek_PktRelease(old);
   return ZEK_OK;
}

} /* extern "C" */
