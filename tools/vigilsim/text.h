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
/* A '#' comment line of a script, shown as the explanation of a step;
 * `first` for the first line of a block of comment lines. */
std::string RenderComment(const std::string &line, bool first);

} // namespace vigilsim

#endif /* VIGILSIM_TEXT_H */
