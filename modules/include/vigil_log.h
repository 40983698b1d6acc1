/*
 * Logging forms of the module.  Every line carries the module tag with the
 * core's build number; the head before the tag names the writer.
 *
 *   VIGIL_LOG_ERROR      level 2 on the plain log, always
 *   VIGIL_LOG_INFO       level 1 on the plain log, always
 *   VIGIL_LOG_VERBOSE(n) level 1, only while the plain log's level is >= n
 *   VIGIL_LOG_THROTTLED  level 2 on the throttled log (anything a frame causes)
 *   VIGIL_LOG_ERROR_CODE level 2 with the platform status as an error code
 *
 * Before the plain log exists a line goes out without head through
 * zek_LogNoLevel.  Formats must be string literals.
 */
#ifndef VIGIL_LOG_H
#define VIGIL_LOG_H

#include "oxa.h"
#include "vigil_module.h"

/* A MAC address and an IPv4 address (network order) in log lines. */
#define VIGIL_MAC_FMT "%02hhx:%02hhx:%02hhx:%02hhx:%02hhx:%02hhx"
#define VIGIL_MAC_ARGS(m) (m)[0], (m)[1], (m)[2], (m)[3], (m)[4], (m)[5]
#define VIGIL_IP_ARGS(ip)                                                      \
   ((const u8 *)&(ip))[0], ((const u8 *)&(ip))[1], ((const u8 *)&(ip))[2],     \
      ((const u8 *)&(ip))[3]

#define VIGIL_LOG_TAG "[oxa@3719 comp=\"oxa-ulm\" subcomp=\"vigil-%u\"] "
#define VIGIL_LOG_TAG_CODE                                                     \
   "[oxa@3719 comp=\"oxa-ulm\" subcomp=\"vigil-%u\" errorCode=\"ULM%u\"] "

#define VIGIL_LOG_ON(handle, level, fmt, ...)                                  \
   do {                                                                        \
      zek_LogHandle vigilLogH_ = (handle);                                     \
      if (vigilLogH_ != nullptr) {                                             \
         zek_LogLevel(vigilLogH_, (level), __func__, __LINE__,                 \
                      "%s: %s:%d: " VIGIL_LOG_TAG fmt,                         \
                      zek_LogGetName(vigilLogH_), __func__, __LINE__,          \
                      OXA_BUILD_NUMBER, ##__VA_ARGS__);                        \
      } else {                                                                 \
         zek_LogNoLevel((level), VIGIL_LOG_TAG fmt, OXA_BUILD_NUMBER,          \
                        ##__VA_ARGS__);                                        \
      }                                                                        \
   } while (0)

#define VIGIL_LOG_ERROR(fmt, ...) VIGIL_LOG_ON(logHandle, 2, fmt, ##__VA_ARGS__)
#define VIGIL_LOG_INFO(fmt, ...) VIGIL_LOG_ON(logHandle, 1, fmt, ##__VA_ARGS__)
#define VIGIL_LOG_THROTTLED(fmt, ...)                                          \
   VIGIL_LOG_ON(vigilThrottledLogHandle, 2, fmt, ##__VA_ARGS__)
/* Informational lines a frame can cause: level 1, through the throttle. */
#define VIGIL_LOG_THROTTLED_INFO(fmt, ...)                                     \
   VIGIL_LOG_ON(vigilThrottledLogHandle, 1, fmt, ##__VA_ARGS__)

#define VIGIL_LOG_VERBOSE(verbosity, fmt, ...)                                 \
   do {                                                                        \
      if (logHandle == nullptr) {                                              \
         zek_LogNoLevel(1, VIGIL_LOG_TAG fmt, OXA_BUILD_NUMBER,                \
                        ##__VA_ARGS__);                                        \
      } else if (zek_LogGetCurrentLogLevel(logHandle) >= (verbosity)) {        \
         zek_LogLevel(logHandle, 1, __func__, __LINE__,                        \
                      "%s:%d:" VIGIL_LOG_TAG fmt, __func__, __LINE__,          \
                      OXA_BUILD_NUMBER, ##__VA_ARGS__);                        \
      }                                                                        \
   } while (0)

/* The error code of a platform status: 65535 for the generic failure, else
 * its low 16 bits; 0 means the plain tag is used. */
static inline u32 VigilLogErrorCode(zek_Status status) {
   return status == 0x2bad0000u ? 65535u : (status & 0xffffu);
}

#define VIGIL_LOG_ERROR_CODE(status, fmt, ...)                                 \
   do {                                                                        \
      u32 vigilLogCode_ = VigilLogErrorCode(status);                           \
      if (vigilLogCode_ == 0) {                                                \
         VIGIL_LOG_ERROR(fmt, ##__VA_ARGS__);                                  \
      } else if (logHandle != nullptr) {                                       \
         zek_LogLevel(logHandle, 2, __func__, __LINE__,                        \
                      "%s: %s:%d: " VIGIL_LOG_TAG_CODE fmt,                    \
                      zek_LogGetName(logHandle), __func__, __LINE__,           \
                      OXA_BUILD_NUMBER, vigilLogCode_, ##__VA_ARGS__);         \
      } else {                                                                 \
         zek_LogNoLevel(2, VIGIL_LOG_TAG_CODE fmt, OXA_BUILD_NUMBER,           \
                        vigilLogCode_, ##__VA_ARGS__);                         \
      }                                                                        \
   } while (0)

#endif /* VIGIL_LOG_H */
