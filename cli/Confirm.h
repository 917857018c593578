// Asking before something is destroyed.
#pragma once

#include <string>

#include "appliance/Result.h"

// Asks on the terminal, and is done when a person says yes. WrongUsage where nobody can answer, as
// standard input or standard error is no terminal; Failed for any other answer.
// Thread safety: the main thread.
Result confirm(const std::string& question);
