/*
 * Intrusive circular doubly linked list.  Links are a pair of pointers,
 * previous first and next second; an empty head points at itself, and an
 * unlinked record has both pointers cleared, so a null pair tells that the
 * record is on no list.
 */
#ifndef VIGIL_LIST_H
#define VIGIL_LIST_H

#include <cstddef>

#include "vigil_debug.h"

struct VigilListLinks {
   VigilListLinks *prev;
   VigilListLinks *next;
};

static inline void VigilListInit(VigilListLinks *head) {
   head->prev = head;
   head->next = head;
}

static inline bool VigilListIsEmpty(const VigilListLinks *head) {
   return head->next == head;
}

static inline bool VigilListIsLinked(const VigilListLinks *links) {
   return links->next != nullptr;
}

/* Links `elem` between `prev` and `prev->next`; `elem` must be on no list. */
static inline void VigilListInsertAfter(VigilListLinks *prev,
                                        VigilListLinks *elem) {
   VIGIL_ASSERT(elem->prev == nullptr && elem->next == nullptr);
   VIGIL_ASSERT(VigilListIsLinked(prev));
   elem->prev = prev;
   elem->next = prev->next;
   prev->next->prev = elem;
   prev->next = elem;
}

/* Links `elem` just before `next` (at the tail when `next` is the head). */
static inline void VigilListInsertBefore(VigilListLinks *next,
                                         VigilListLinks *elem) {
   VigilListInsertAfter(next->prev, elem);
}

/* Unlinks `elem`, which must be on a list. */
static inline void VigilListRemove(VigilListLinks *elem) {
   VIGIL_ASSERT(VigilListIsLinked(elem) && elem->prev != nullptr);
   elem->prev->next = elem->next;
   elem->next->prev = elem->prev;
   elem->prev = nullptr;
   elem->next = nullptr;
}

/* The record that holds `links` as its member `member`. */
#define VIGIL_LIST_ENTRY(links, type, member)                                  \
   ((type *)((char *)(links) - offsetof(type, member)))

#define VIGIL_LIST_FOR_EACH(pos, head)                                         \
   for (VigilListLinks *pos = (head)->next; pos != (head); pos = pos->next)

/* Safe against removal of `pos` inside the loop. */
#define VIGIL_LIST_FOR_EACH_SAFE(pos, tmp, head)                               \
   for (VigilListLinks *pos = (head)->next, *tmp = pos->next; pos != (head);   \
        pos = tmp, tmp = pos->next)

#endif /* VIGIL_LIST_H */
