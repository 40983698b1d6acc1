#include "daemon_log.h"

#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace vigild {

namespace {

Level gLevel = Level::Info;

const char *LevelName(Level level) {
   switch (level) {
   case Level::Debug: return "debug";
   case Level::Info: return "info";
   case Level::Warn: return "warning";
   case Level::Error: return "error";
   }
   return "?";
}

} // namespace

void SetLogLevel(Level level) { gLevel = level; }

void Log(Level level, const char *fmt, ...) {
   if (level < gLevel) return;
   struct timeval tv;
   gettimeofday(&tv, nullptr);
   struct tm tm;
   localtime_r(&tv.tv_sec, &tm);
   char stamp[32];
   std::strftime(stamp, sizeof stamp, "%H:%M:%S", &tm);
   char text[1024];
   va_list ap;
   va_start(ap, fmt);
   std::vsnprintf(text, sizeof text, fmt, ap);
   va_end(ap);
   std::fprintf(stderr, "%s.%03ld vigild %s: %s\n", stamp, static_cast<long>(tv.tv_usec / 1000),
                LevelName(level), text);
   std::fflush(stderr);
}

} // namespace vigild
