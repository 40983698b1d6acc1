/*
 * The core sibling module ("oxa"): per-port data slots, frame attributes and
 * the build number that every log line carries.
 */
#ifndef OXA_H
#define OXA_H

#include "zek.h"

extern "C" {

/* Build number of the running core; exported as a variable. */
extern uint32_t OXA_BUILD_NUMBER;

/* Destructor of a port data slot, run when the port goes away. */
typedef zek_Status (*oxa_PortDataDestructor)(zek_PortID portID);

zek_Status oxa_PortVoltaliteDataGet(zek_PortID portID, uint32_t slot,
                                    void **value);
zek_Status oxa_PortVoltaliteDataSet(zek_PortID portID, uint32_t slot,
                                    void *value,
                                    oxa_PortDataDestructor destructor);
zek_Status oxa_PortVoltaliteDataUnset(zek_PortID portID, uint32_t slot);

/* Reads a frame attribute; fails when the frame does not carry it. */
zek_Status oxa_PktAttrGet(zek_Pkt *pkt, uint64_t attr, uint64_t *value);

} /* extern "C" */

#endif /* OXA_H */
