/*
 * The aging world: expires bindings and pending requests on time.
 *
 * Until the aging world is built, a change of a filter's earliest expiry is
 * not queued anywhere.
 */
#include "vigil_vmi.h"
#include "vigil_workers.h"

__attribute__((weak)) void VigilUpdateFilterAging(VigilFilter *filter) {
   (void)filter;
}

__attribute__((weak)) void VigilRemoveFilterAging(VigilFilter *filter) {
   (void)filter;
}
