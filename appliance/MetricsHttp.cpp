#include "appliance/MetricsHttp.h"

#ifdef RL_HAS_METRICS_HTTP
#include <CivetServer.h>

struct MetricsHttp::Server
{
    class Handler : public CivetHandler
    {
    public:
        explicit Handler(std::function<std::string()> text) : m_text(std::move(text)) {}

        // No exception may get to the library, which is written in C.
        bool handleGet(CivetServer*, mg_connection* connection) override
        {
            try {
                const std::string text = m_text();
                mg_printf(connection,
                          "HTTP/1.1 200 OK\r\nContent-Type: text/plain; version=0.0.4; "
                          "charset=utf-8\r\nContent-Length: %llu\r\nConnection: close\r\n\r\n",
                          static_cast<unsigned long long>(text.size()));
                mg_write(connection, text.data(), text.size());
            } catch (const std::exception&) {
                mg_send_http_error(connection, 500, "%s", "no memory");
            }
            return true;
        }

    private:
        const std::function<std::string()> m_text;
    };

    // Two threads, and seconds for a request: whoever stalls keeps nobody for long.
    Server(const std::string& address, std::function<std::string()> text)
        : m_handler(std::move(text)),
          m_http(std::vector<std::string>{"listening_ports", address, "num_threads", "2",
                                          "request_timeout_ms", "5000"})
    {
        m_http.addHandler("/metrics", m_handler);
    }

    Handler m_handler;
    CivetServer m_http; // ends before what it calls
};

bool MetricsHttp::isBuiltIn()
{
    return true;
}

Result MetricsHttp::start(const std::string& address, std::function<std::string()> text)
{
    try {
        m_server = std::make_unique<Server>(address, std::move(text));
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

Result MetricsHttp::start(const std::string&, std::function<std::string()>)
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
