/*
 * The control-plane world: posts portset messages about binding changes.
 *
 * Until the control-plane world is built, binding changes are not posted.
 */
#include "vigil_vmi.h"

__attribute__((weak)) void VigilPostPortDbMsg(VigilFilter *filter, u32 op,
                                              VigilVmi *vmi) {
   (void)filter, (void)op, (void)vmi;
}
