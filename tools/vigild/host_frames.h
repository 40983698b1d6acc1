/*
 * The simulated host's frame and chain calls that the switch makes, in one
 * place: building a host frame from bytes in the receive ring, and whether
 * a port has chains at all (a port without chains in a direction is switched
 * without the host: its frames go from the receive ring to the send call
 * with no copy).
 *
 * Every call here is safe from several switching threads at once: the
 * host's frame and list registries, its port table and its chain list each
 * sit behind their own lock, and a chain runs with no host lock held.
 */
#ifndef VIGILD_HOST_FRAMES_H
#define VIGILD_HOST_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zek.h"

namespace vigild {

/* A host frame of `len` bytes at `data` (no 802.1Q tag in them) on that
 * VLAN: one copy, and no allocation once the host's frame pool is warm. */
zek_Pkt *HostFrame(const uint8_t *data, size_t len, uint16_t vlan);

/* Whether the port has input and output chains now. */
void HostPortChains(uint32_t port, bool *input, bool *output);

/* Takes every frame out of `list` into `out` (appended, in order); the list
 * is left empty and still the caller's. */
void TakeFrames(zek_PktList *list, std::vector<zek_Pkt *> &out);

} // namespace vigild

#endif /* VIGILD_HOST_FRAMES_H */
