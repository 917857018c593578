// Where a server listens, and what there is of ours: the server makes its socket itself, by name,
// so what has that name may be its own, another living server's or what a dead one has left.
//
// Its own is the socket that the kernel says that this very process listens on. That file is held
// open from then on, so no later file gets its number, and it alone is opened to its owner and
// taken away, wherever its folder has gone meanwhile.
//
// Thread safety: the main thread only.
#pragma once

#include <string>

#include "appliance/Result.h"

// A Unix socket, or else a TCP port on an address of this machine.
struct ServeAddress
{
    std::string m_socket; // an absolute path
    std::string m_host;
    std::string m_port;

    std::string uri() const;
};

class ServeListener
{
public:
    explicit ServeListener(ServeAddress address) : m_address(std::move(address)) {}
    ~ServeListener();
    ServeListener(const ServeListener&) = delete;
    ServeListener& operator=(const ServeListener&) = delete;

    const ServeAddress& address() const { return m_address; }

    // Makes way for a server on a Unix socket: takes away one that a dead server has left, and
    // keeps others that would do so out of the folder until connect() has found ours, or this
    // object ends. InUse: another server listens there, or is being started; Failed: something else
    // is there, or no folder.
    Result claim();

    // A connection to the server that is this process, the caller's; -1: it does not listen yet. A
    // Unix socket is its owner's alone from then on.
    int connect(int server);

    // Takes the server's socket away once that has ended, if the disk that it lies on answers
    // within a moment. Another server's stays.
    void remove();

private:
    bool lockFolder();
    int open() const;
    bool isOurs() const;

    const ServeAddress m_address;
    std::string m_name;    // of the socket in its folder
    int m_folder = -1;     // locked by claim()
    int m_socketFile = -1; // once it is known to be the server's
};
