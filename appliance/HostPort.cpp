#include "appliance/HostPort.h"

#include <cerrno>
#include <memory>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

bool isPort(const std::string& text)
{
    return !text.empty() && text.size() <= 5 &&
           text.find_first_not_of("0123456789") == std::string::npos && std::stoul(text) <= 65535;
}

// errno, 0 when it can be listened there.
int tryToListenAt(const addrinfo& address)
{
    const int fd = socket(address.ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    // Connections of a server before this one are in nobody's way.
    const int yes = 1;
    const bool good = setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) == 0 &&
                      bind(fd, address.ai_addr, address.ai_addrlen) == 0 && listen(fd, 1) == 0;
    const int error = good ? 0 : errno;
    close(fd);
    return error;
}

} // namespace

Result parseHostPort(const std::string& what, const std::string& text, HostPort* parsed)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || !isPort(text.substr(colon + 1)))
        return Result::usage(what + " takes ADDRESS:PORT, not '" + text + "'");
    parsed->m_host = text.substr(0, colon);
    if (parsed->m_host.front() == '[' && parsed->m_host.back() == ']')
        parsed->m_host = parsed->m_host.substr(1, parsed->m_host.size() - 2);
    parsed->m_port = text.substr(colon + 1);
    return Result();
}

Result tryToListen(const HostPort& where)
{
    const std::string what = "cannot listen at " + where.m_host + ":" + where.m_port;
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int unknown = getaddrinfo(where.m_host.c_str(), where.m_port.c_str(), &hints, &found);
    if (unknown != 0)
        return Result::failed(what + ": " + gai_strerror(unknown));
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> all(found, freeaddrinfo);
    int error = 0;
    for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
        error = tryToListenAt(*one);
        if (error == 0)
            return Result();
    }
    return Result::fromErrno(error, what);
}
