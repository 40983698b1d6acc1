/*
 * Everything the loadable module shows the outside; the rest of it is
 * hidden.  The platform calls the entries and sets the parameters; the
 * tools (vigilsim, vigild, the load tests) read the module-wide values and
 * run the table checker.  A test compares this list with what vigil.so
 * exports.
 */
#ifndef VIGIL_EXPORTS_H
#define VIGIL_EXPORTS_H

#include "vigil_types.h"

#define VIGIL_EXPORT __attribute__((visibility("default")))

struct VigilFilter;
struct VigilTaskQueue;
typedef void (*VigilViolationFn)(void *ctx, const char *text);

/* Entries and parameters. */
extern "C" VIGIL_EXPORT int init_module(void);
extern "C" VIGIL_EXPORT void cleanup_module(void);
extern "C" VIGIL_EXPORT int VIGIL_HEAP_MIN_SIZE;
extern "C" VIGIL_EXPORT int VIGIL_HEAP_MAX_SIZE;
extern "C" VIGIL_EXPORT bool isLiveUpgrade;

/* Module-wide values the tools read. */
extern VIGIL_EXPORT u64 numFilters;
extern VIGIL_EXPORT i64 delOnExpiry;
extern VIGIL_EXPORT u8 isLiveUpgradeFromMod;
extern VIGIL_EXPORT zek_PriQHandle filterAgingQ;
extern VIGIL_EXPORT VigilTaskQueue taskQueue;
extern VIGIL_EXPORT u32 saveVersion;   /* the layout the save path writes */
extern VIGIL_EXPORT u32 supportedTlvs; /* a bit per block it writes */

/* The invariant checker of a filter's tables. */
extern "C" VIGIL_EXPORT u32 VigilCheckFilterTables(VigilFilter *filter,
                                                   VigilViolationFn report,
                                                   void *ctx);

#endif /* VIGIL_EXPORTS_H */
