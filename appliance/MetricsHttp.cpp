#include "appliance/MetricsHttp.h"

#ifdef RL_HAS_METRICS_HTTP
#include <prometheus/exposer.h>

struct MetricsHttp::Server
{
    // Two threads, and seconds for a request: whoever stalls keeps nobody for long.
    explicit Server(const std::string& address)
        : m_exposer(std::vector<std::string>{"listening_ports", address, "num_threads", "2",
                                             "request_timeout_ms", "5000"})
    {}

    std::shared_ptr<prometheus::Collectable> m_metrics;
    prometheus::Exposer m_exposer;
};

bool MetricsHttp::isBuiltIn()
{
    return true;
}

Result MetricsHttp::start(const std::string& address,
                          std::shared_ptr<prometheus::Collectable> metrics)
{
    try {
        auto server = std::make_unique<Server>(address);
        server->m_metrics = std::move(metrics);
        server->m_exposer.RegisterCollectable(server->m_metrics, "/metrics");
        m_server = std::move(server);
    } catch (const std::exception& error) {
        return Result::failed("cannot serve metrics at " + address + ": " + error.what());
    }
    return Result();
}

#else

struct MetricsHttp::Server
{};

bool MetricsHttp::isBuiltIn()
{
    return false;
}

Result MetricsHttp::start(const std::string&, std::shared_ptr<prometheus::Collectable>)
{
    return Result::failed("this program was built without metrics over HTTP");
}

#endif

MetricsHttp::MetricsHttp() = default;
MetricsHttp::~MetricsHttp() = default;

void MetricsHttp::stop()
{
    m_server.reset();
}
