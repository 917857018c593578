// Serves metrics over HTTP, at /metrics. Whether this is built in is found when the build is
// configured.
//
// Thread safety: the owner's thread; the collectable is called from others.
#pragma once

#include <memory>
#include <prometheus/collectable.h>
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

    // address: "127.0.0.1:9199". Failed: not built in, or no listening there. While an answer is
    // being made the collectable is kept.
    Result start(const std::string& address, std::shared_ptr<prometheus::Collectable> metrics);
    void stop();

private:
    struct Server;
    std::unique_ptr<Server> m_server;
};
