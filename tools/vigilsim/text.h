/*
 * The results of commands as text for a person (--text): the command line,
 * then its result, with aligned tables for bindings, lists, statistics and
 * verdicts.
 */
#ifndef VIGILSIM_TEXT_H
#define VIGILSIM_TEXT_H

#include <string>

#include "state.h"

namespace vigilsim {

/* `line` is the command line as written in the script. */
std::string RenderText(const std::string &line, const Json &result);
/* A '#' comment line of a script, shown as a step of the run. */
std::string RenderComment(const std::string &line);

} // namespace vigilsim

#endif /* VIGILSIM_TEXT_H */
