// Serves metrics over HTTP, at /metrics, to a few clients at a time; one that comes displaces
// whoever has been there longest, so that nobody is kept out. Whether this is built in is found
// when the build is configured.
//
// Thread safety: the owner's thread; the text is asked for by others.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "appliance/Result.h"

class MetricsHttp
{
public:
    MetricsHttp();
    ~MetricsHttp(); // stops
    MetricsHttp(const MetricsHttp&) = delete;
    MetricsHttp& operator=(const MetricsHttp&) = delete;

    static bool isBuiltIn();

    // address: "127.0.0.1:9199". text: makes what is served, for each request anew. Failed: not
    // built in, or no listening there.
    Result start(const std::string& address, std::function<std::string()> text);
    // Waits for answers that are being made.
    void stop();

private:
    class Server;
    std::unique_ptr<Server> m_server;
};
