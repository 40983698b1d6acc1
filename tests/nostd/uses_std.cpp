/* A module source that reaches for the C++ library: with the module's
 * poison header forced in, it must not compile. */
#include <cstring>

std::size_t LengthOf(const char *text) {
   return std::strlen(text);
}
