/*
 * The packet tracing sibling module ("Pathprobe"): observations about traced
 * frames, and the time until which tracing is active.
 */
#ifndef PATHPROBE_H
#define PATHPROBE_H

#include "zek.h"

extern "C" {

/* Tracing is active while this is later than now, both in milliseconds of
 * the monotonic counter. */
extern uint64_t pathprobe_global_time;

/* `metadata` is the frame's 16 metadata bytes; `record` a packed observation. */
void PP_SendWdnIOObsv(const void *metadata, const void *record);
void PP_SendLogicalDropObsv(const void *metadata, const void *record);

} /* extern "C" */

#endif /* PATHPROBE_H */
