/*
 * Debug assertions.  In a debug build (VIGIL_DEBUG_CHECKS) a broken
 * invariant panics the host with the condition and where it failed; in a
 * release build the check is compiled out and costs nothing.
 */
#ifndef VIGIL_DEBUG_H
#define VIGIL_DEBUG_H

#include "zek.h"

extern zek_ModuleID moduleID;

#if VIGIL_DEBUG_CHECKS
#define VIGIL_ASSERT(cond)                                                     \
   do {                                                                        \
      if (!(cond)) {                                                           \
         zek_PanicWithModuleID(moduleID, "Assertion failed: %s at %s:%d",      \
                               #cond, __FILE__, __LINE__);                     \
      }                                                                        \
   } while (0)
#else
#define VIGIL_ASSERT(cond) ((void)0)
#endif

#endif /* VIGIL_DEBUG_H */
