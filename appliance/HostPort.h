// Where something listens, as people write it: "127.0.0.1:9199", "localhost:9199", "[::1]:9199".
//
// Thread safety: pure functions and plain values; tryToListen() any thread.
#pragma once

#include <string>

#include "appliance/Result.h"

struct HostPort
{
    std::string m_host; // without the brackets
    std::string m_port; // a number
};

// WrongUsage: there is no host or no port in it; the message begins with `what` takes it.
Result parseHostPort(const std::string& what, const std::string& text, HostPort* parsed);

// Listens there for a moment, for who is to listen there later and wants to tell sooner. Failed:
// there is no such host, or it cannot be had, as where another process listens.
Result tryToListen(const HostPort& where);
