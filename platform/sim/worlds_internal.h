/*
 * Plumbing between the clock and the worlds of the simulated host (not for
 * tests).  Lock order: the world mutex may be held while the clock is read;
 * the clock never calls into the worlds with its own mutex held.
 */
#ifndef SIM_WORLDS_INTERNAL_H
#define SIM_WORLDS_INTERNAL_H

#include <cstdint>

namespace sim {

/* Clock side (clock.cpp). */
int64_t ClockNowNs();   /* the host time in nanoseconds of uptime */
bool ClockIsVirtual();

/* World side (worlds.cpp). */
bool AnyLiveWorlds();
/* The earliest deadline of a world in a timed wait that lies in
 * (afterNs, untilNs]; false when there is none. */
bool NextWorldDeadline(int64_t afterNs, int64_t untilNs, int64_t *deadlineNs);
/* The time or the kind of clock changed: sleepers look at their deadlines. */
void WorldsClockMoved();

} // namespace sim

#endif /* SIM_WORLDS_INTERNAL_H */
