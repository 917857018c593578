// Points in time as they are given on the command line, looked up in a mirror.
#pragma once

#include <string>

#include "cli/Context.h"

// The point that a name chooses, and a line of talk that says which it is; `role` begins the line,
// as in "at" or "since".
Result pickPoint(Context& context, Mirror& mirror, const std::string& name, const std::string& role,
                 ChosenPoint* point);

// Both ends of "A..B".
Result pickSpan(Context& context, Mirror& mirror, const std::string& span, ChosenPoint* from,
                ChosenPoint* to);
