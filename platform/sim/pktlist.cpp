/*
 * Frame lists of the simulated host and their iterators.  A list owns its
 * frames.  An iterator lives in caller memory of ZEK_PKT_LIST_ITER_MAX_SIZE
 * bytes and holds a position in a std::list, which stays valid when the
 * frame under it is removed (the iterator moves to the successor).
 */
#include <list>
#include <new>
#include <unordered_set>

#include "sim_frames.h"
#include "sim_internal.h"

struct zek_PktList {
   std::list<zek_Pkt *> frames;
};

struct zek_PktListIter {
   zek_PktList *list;
   std::list<zek_Pkt *>::iterator pos;
};

static_assert(sizeof(zek_PktListIter) <= ZEK_PKT_LIST_ITER_MAX_SIZE,
              "iterator must fit the caller's reservation");
static_assert(alignof(zek_PktListIter) <= 16,
              "iterator must fit memory aligned to 16");

namespace {

std::mutex gMutex;
std::unordered_set<zek_PktList *> gLists;

/* Lists left from the previous run are dropped; their frames are freed by
 * the frames' own reset. */
void ResetLists() {
   std::lock_guard<std::mutex> guard(gMutex);
   for (zek_PktList *list : gLists) {
      delete list;
   }
   gLists.clear();
}

const bool gResetRegistered = (sim::RegisterResetHook(ResetLists), true);

bool AtEnd(const zek_PktListIter *iter) {
   return iter->pos == iter->list->frames.end();
}

} // namespace

namespace sim {

zek_PktList *MakeList() {
   auto *list = new zek_PktList;
   std::lock_guard<std::mutex> guard(gMutex);
   gLists.insert(list);
   return list;
}

void ListAppend(zek_PktList *list, zek_Pkt *pkt) { list->frames.push_back(pkt); }

std::vector<zek_Pkt *> ListFrames(zek_PktList *list) {
   return std::vector<zek_Pkt *>(list->frames.begin(), list->frames.end());
}

void DestroyList(zek_PktList *list) {
   bool known;
   {
      std::lock_guard<std::mutex> guard(gMutex);
      known = gLists.erase(list) == 1;
   }
   if (!known) {
      ReportFailure("DestroyList: the list is not live (destroyed twice or "
                    "never made)");
      return;
   }
   for (zek_Pkt *pkt : list->frames) {
      zek_PktRelease(pkt);
   }
   delete list;
}

} // namespace sim

extern "C" {

uint32_t zek_PktListIterSizeOf(void) { return sizeof(zek_PktListIter); }

void zek_PktListIterStart(zek_PktListIter *iter, zek_PktList *list) {
   new (iter) zek_PktListIter{list, list->frames.begin()};
}

int zek_PktListIterIsAtEnd(zek_PktListIter *iter) { return AtEnd(iter); }

zek_Pkt *zek_PktListIterGetPkt(zek_PktListIter *iter) {
   return AtEnd(iter) ? nullptr : *iter->pos;
}

void zek_PktListIterMove(zek_PktListIter *iter) {
   if (!AtEnd(iter)) {
      ++iter->pos;
   }
}

zek_Status zek_PktListIterRemovePkt(zek_PktListIter *iter, zek_Pkt **pkt) {
   SIM_FAULT_RETURN("PktListIterRemovePkt");
   if (AtEnd(iter)) {
      return sim::kNotFound;
   }
   *pkt = *iter->pos;
   iter->pos = iter->list->frames.erase(iter->pos);
   return ZEK_OK;
}

zek_Status zek_PktListIterReplace(zek_PktListIter *iter, zek_Pkt *pkt) {
   SIM_FAULT_RETURN("PktListIterReplace");
   if (AtEnd(iter)) {
      return sim::kNotFound;
   }
   zek_Pkt *old = *iter->pos;
   *iter->pos = pkt;
   if (old != pkt) {
      zek_PktRelease(old);
   }
   return ZEK_OK;
}

} /* extern "C" */
