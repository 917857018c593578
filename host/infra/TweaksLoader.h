// Settings from outside: a JSON file and the environment.
//
// A setting is a name and a number, or true or false for the switches that are read at each use:
// t_RlVerboseLogs, t_BinVerboseLogs, t_IOVerboseLogs (DynamicTweaks). Every other name goes to
// Tweaks, where whoever knows it finds it.
#pragma once

#include <string>

#include "host/infra/Outcome.h"

// Sets one by its text ("1", "true", "0x10"). RC_BAD_ARGUMENT: no number of 64 bits, or for a
// switch neither true nor false; nothing changes.
Outcome setTweak(const std::string& name, const std::string& value);

// The same for one as "name=value"; RC_BAD_ARGUMENT also for a text that is not of that form.
Outcome setTweak(const std::string& assignment);

// Takes them from a file with one JSON object: {"t_RlVerboseLogs": true, "name": 5}. RC_NOT_FOUND
// or RC_IO_ERROR: it cannot be read. RC_BAD_ARGUMENT: it is malformed, or a value is; then nothing
// has been set.
Outcome loadTweaksFile(const std::string& path);

// Takes them from the environment: RL_TWEAK_name=value. RC_BAD_ARGUMENT names the first bad one;
// those before it are set.
Outcome loadTweaksFromEnvironment();
