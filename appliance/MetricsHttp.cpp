#include "appliance/MetricsHttp.h"

#ifdef RL_HAS_METRICS_HTTP
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <microhttpd.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

// Of connections at a time. Whoever has been there longest goes when another one comes: so neither
// who says nothing nor who sends a byte now and then keeps a scraper out, who asks at once.
constexpr size_t MOST_CLIENTS = 8;
// Of silence.
constexpr unsigned SILENT_SECONDS = 5;

// A socket that listens at HOST:PORT.
Result listenAt(const std::string& address, int* listening)
{
    const std::string what = "cannot serve metrics at " + address;
    const size_t colon = address.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == address.size())
        return Result::failed(what + ": it is no ADDRESS:PORT");
    std::string host = address.substr(0, colon);
    if (host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int unknown = getaddrinfo(host.c_str(), address.c_str() + colon + 1, &hints, &found);
    if (unknown != 0)
        return Result::failed(what + ": " + gai_strerror(unknown));
    int error = 0;
    *listening = -1;
    for (const addrinfo* one = found; one != nullptr && *listening < 0; one = one->ai_next) {
        const int fd = socket(one->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        const int yes =
            1; // what a server before this one has left in the system is in nobody's way
        if (fd >= 0 && setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) == 0 &&
            bind(fd, one->ai_addr, one->ai_addrlen) == 0 && listen(fd, SOMAXCONN) == 0) {
            *listening = fd;
            break;
        }
        error = errno;
        if (fd >= 0)
            close(fd);
    }
    freeaddrinfo(found);
    return *listening >= 0 ? Result() : Result::failed(what + ": " + std::strerror(error));
}

} // namespace

// The library has one thread for all clients, and calls from there alone.
class MetricsHttp::Server
{
public:
    explicit Server(std::function<std::string()> text) : m_text(std::move(text))
    {
        m_clients.reserve(MOST_CLIENTS);
    }
    ~Server()
    {
        if (m_http != nullptr)
            MHD_stop_daemon(m_http); // and closes what it listens on
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // listening: from here on the server's.
    bool start(int listening)
    {
        m_http = MHD_start_daemon(
            MHD_USE_AUTO_INTERNAL_THREAD | MHD_USE_ITC, 0, makeRoom, this, answer, this,
            MHD_OPTION_LISTEN_SOCKET, listening, MHD_OPTION_NOTIFY_CONNECTION, note, this,
            // Those that were told to go take a moment.
            MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned>(2 * MOST_CLIENTS),
            MHD_OPTION_CONNECTION_TIMEOUT, SILENT_SECONDS, MHD_OPTION_END);
        if (m_http == nullptr)
            close(listening);
        return m_http != nullptr;
    }

private:
    struct Client
    {
        MHD_Connection* m_connection;
        int m_socket;
    };

    static MHD_Result makeRoom(void* self, const sockaddr* /*address*/, socklen_t /*size*/)
    {
        std::vector<Client>& clients = static_cast<Server*>(self)->m_clients;
        if (clients.size() == MOST_CLIENTS) {
            shutdown(clients.front().m_socket, SHUT_RDWR);
            clients.erase(clients.begin());
        }
        return MHD_YES;
    }

    static void note(void* self, MHD_Connection* connection, void** /*unused*/,
                     MHD_ConnectionNotificationCode what)
    {
        std::vector<Client>& clients = static_cast<Server*>(self)->m_clients;
        if (what == MHD_CONNECTION_NOTIFY_STARTED && clients.size() < MOST_CLIENTS)
            clients.push_back(
                {connection, MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)
                                 ->connect_fd});
        if (what == MHD_CONNECTION_NOTIFY_CLOSED)
            clients.erase(std::remove_if(clients.begin(), clients.end(),
                                         [&](const Client& client) {
                                             return client.m_connection == connection;
                                         }),
                          clients.end());
    }

    static MHD_Result answer(void* self, MHD_Connection* connection, const char* url,
                             const char* method, const char* /*version*/, const char* /*upload*/,
                             size_t* /*uploadSize*/, void** /*request*/)
    {
        if (std::strcmp(url, "/metrics") != 0)
            return send(connection, MHD_HTTP_NOT_FOUND, "metrics are at /metrics\n");
        if (std::strcmp(method, MHD_HTTP_METHOD_GET) != 0 &&
            std::strcmp(method, MHD_HTTP_METHOD_HEAD) != 0)
            return send(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "metrics are for GET and HEAD\n");
        // No exception may get to the library, which is written in C.
        try {
            return send(connection, MHD_HTTP_OK, static_cast<Server*>(self)->m_text());
        } catch (const std::exception&) {
            return MHD_NO; // no memory; the connection ends
        }
    }

    static MHD_Result send(MHD_Connection* connection, unsigned code, const std::string& text)
    {
        // The library only reads what it is to copy.
        MHD_Response* response = MHD_create_response_from_buffer(
            text.size(), const_cast<char*>(text.data()), MHD_RESPMEM_MUST_COPY);
        if (response == nullptr)
            return MHD_NO;
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE,
                                "text/plain; version=0.0.4; charset=utf-8");
        MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
        if (code == MHD_HTTP_METHOD_NOT_ALLOWED)
            MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
        const MHD_Result queued = MHD_queue_response(connection, code, response);
        MHD_destroy_response(response);
        return queued;
    }

    const std::function<std::string()> m_text;
    std::vector<Client> m_clients; // the oldest first
    MHD_Daemon* m_http = nullptr;
};

bool MetricsHttp::isBuiltIn()
{
    return true;
}

Result MetricsHttp::start(const std::string& address, std::function<std::string()> text)
{
    int listening = -1;
    if (Result result = listenAt(address, &listening); !result.ok())
        return result;
    auto server = std::make_unique<Server>(std::move(text));
    if (!server->start(listening))
        return Result::failed("cannot serve metrics at " + address + ": no thread, or no memory");
    m_server = std::move(server);
    return Result();
}

#else

class MetricsHttp::Server
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
