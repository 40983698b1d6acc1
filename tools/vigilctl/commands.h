/*
 * vigilctl's own commands: the management views (bindings, config, stats,
 * whitelist, ignorelist, bpdu), the changes made through the management
 * interface (delete, delete-on-expiry) and watch.  Each parses its words,
 * asks vigild over one connection and prints a table, or vigild's JSON
 * answer with --json.
 */
#ifndef VIGILCTL_COMMANDS_H
#define VIGILCTL_COMMANDS_H

#include <string>
#include <vector>

namespace vigilctl {

struct Globals {
   std::string control; /* the socket path, resolved */
   double timeout = 30;
   bool json = false;
};

/* Whether `words` (the command word first) is one of vigilctl's own
 * commands rather than one to pass on: `ignorelist PORTID ENTRIES` writes
 * and is passed on, `ignorelist PORT` is the view. */
bool IsOwnCommand(const std::vector<std::string> &words);
/* Runs it; the exit status. */
int RunOwnCommand(const std::vector<std::string> &words, const Globals &globals);

} // namespace vigilctl

#endif /* VIGILCTL_COMMANDS_H */
