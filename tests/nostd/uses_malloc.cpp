/* A module source that allocates outside the module heap: with the module's
 * poison header forced in, it must not compile. */
#include <cstdlib>

void *Grab(unsigned n) {
   return malloc(n);
}
