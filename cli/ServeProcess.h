// nbdkit as a child of this process: started, watched and ended.
//
// Thread safety: the main thread only.
#pragma once

#include <string>
#include <vector>

#include "appliance/Result.h"
#include "common/infra/Types.h"

// A Unix socket, or else a TCP port on an address of this machine.
struct ServeAddress
{
    std::string m_socket;
    std::string m_host;
    std::string m_port;

    std::string uri() const;

    // Takes away a socket that a server left behind; InUse: one serves there; Failed: something
    // else is there.
    Result clear() const;

    // Takes the socket away, if the disk that it lies on answers within a moment.
    void remove() const;
};

class ServeProcess
{
public:
    ServeProcess() = default;
    // Ends the child, if it still is there.
    ~ServeProcess();
    ServeProcess(const ServeProcess&) = delete;
    ServeProcess& operator=(const ServeProcess&) = delete;

    // Starts the program, found as a shell would. SIGINT and SIGTERM are passed on to it from here
    // on. NotFound: there is no such program.
    Result start(const std::vector<std::string>& arguments);

    // Waits until a server answers there, or a signal has been passed on: then *answers is false.
    // Failed: the child ended by itself first.
    Result waitUntilAnswers(const ServeAddress& address, bool* answers);

    // Waits for the child's end; after a signal that was passed on so many seconds at most, then
    // it is killed. Failed: it failed, or had to be killed, or not even that ended it, as a disk
    // does not answer it.
    Result waitForEnd(u64 stopSeconds);

private:
    bool waitFor(u64 milliseconds);

    int m_pid = -1;
    int m_status = 0;
};
