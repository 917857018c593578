// The plugin's lines in nbdkit's log. What any client can make happen as often as it likes is
// limited (LogLimiter.h): a refused request by what was asked and why, a warning by the place in
// the program that it comes from.
//
// Thread safety: any thread.
#pragma once

#include <string>

// Gives the lines of the appliance and the host to nbdkit.
void logThroughNbdkit();

// A request was refused. kind: what was asked and why, without where.
void logRefusal(const std::string& kind, const std::string& line);

// Tells of what was left out and not told of yet.
void logRest();
