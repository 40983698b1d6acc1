/*
 * vigilctl's manual pages: one for vigilctl itself and one for each of its
 * own commands, printed by `vigilctl --help`, `vigilctl COMMAND --help`
 * and `vigilctl help [COMMAND]`, in the sections of a manual page (NAME,
 * SYNOPSIS, DESCRIPTION, OPTIONS, EXAMPLES, EXIT STATUS).
 */
#ifndef VIGILCTL_HELP_H
#define VIGILCTL_HELP_H

#include <string>
#include <vector>

namespace vigilctl {

/* The commands that have a page of their own, in the order vigilctl's page
 * lists them. */
const std::vector<std::string> &HelpTopics();
/* The page of a command ("" or "vigilctl" for vigilctl's own); false when
 * there is none. */
bool ManPage(const std::string &command, std::string *text);

} // namespace vigilctl

#endif /* VIGILCTL_HELP_H */
