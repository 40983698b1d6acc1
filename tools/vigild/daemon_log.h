/*
 * The daemon's own log: one line per event on standard error, with the
 * wall-clock time and a level.
 */
#ifndef VIGILD_LOG_H
#define VIGILD_LOG_H

namespace vigild {

enum class Level { Debug, Info, Warn, Error };

void SetLogLevel(Level level);
void Log(Level level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

} // namespace vigild

#endif /* VIGILD_LOG_H */
