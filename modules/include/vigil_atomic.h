/*
 * Atomic access to words that more than one thread reads or writes without
 * a lock: the worlds' exit flags and ids, counts kept by atomic increment,
 * and a retired filter's mark.  The compiler's builtins need no runtime.
 */
#ifndef VIGIL_ATOMIC_H
#define VIGIL_ATOMIC_H

template <typename T> static inline T VigilAtomicLoad(const T *word) {
   return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}

template <typename T> static inline void VigilAtomicStore(T *word, T value) {
   __atomic_store_n(word, value, __ATOMIC_RELEASE);
}

/* Adds `delta` (which may wrap, to subtract) and gives the new value. */
template <typename T> static inline T VigilAtomicAdd(T *word, T delta) {
   return __atomic_add_fetch(word, delta, __ATOMIC_SEQ_CST);
}

/* Tells ThreadSanitizer that the plain counters in [addr, addr + size) are
 * updated without a lock on purpose: a lost increment costs a count, never
 * memory safety.  Nothing in other builds. */
#if defined(__SANITIZE_THREAD__)
extern "C" void AnnotateBenignRaceSized(const char *file, int line,
                                        const volatile void *addr, long size,
                                        const char *description);
#define VIGIL_BENIGN_RACE(addr, size, what)                                    \
   AnnotateBenignRaceSized(__FILE__, __LINE__, (addr), (long)(size), (what))
#else
#define VIGIL_BENIGN_RACE(addr, size, what) ((void)(addr), (void)(size))
#endif

#endif /* VIGIL_ATOMIC_H */
