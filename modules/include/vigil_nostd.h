/*
 * Included first into every module source by the build (-include).  The
 * module may use the C headers below for types, offsetof and the memory
 * builtins, and nothing else of the C++ or C runtime: after them the names
 * `std`, the C allocator and stdio are poisoned, so that any use of them in
 * the module fails to compile.
 */
#ifndef VIGIL_NOSTD_H
#define VIGIL_NOSTD_H

#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>

/* The platform's headers, which name printf for their format checks. */
#include "fc.h"
#include "oxa.h"
#include "pathprobe.h"
#include "zek.h"

#pragma GCC poison std
#pragma GCC poison malloc calloc realloc free
#pragma GCC poison fprintf sprintf snprintf puts
#pragma GCC poison throw try catch typeid dynamic_cast

#endif /* VIGIL_NOSTD_H */
