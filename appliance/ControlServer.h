// Takes commands on the control socket of a mirror that this process serves; ControlSocket.h has
// the protocol.
//
//   one thread: poll -> connections (lines in, lines out) -> commands, each on a thread of its own
//
// Nobody who connects can harm the others. Lines, connections and commands at a time are bounded;
// who sends what is no command is told so and cut off; who neither reads nor sends is cut off after
// a while; when all connections are taken, the one that has been idle longest makes room. A client
// that goes away cancels its command.
//
// Thread safety: start() and stop() from the owner's thread; the handler is called from any number
// of threads up to the limit.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <poll.h>
#include <string>
#include <thread>
#include <vector>

#include "appliance/ControlCall.h"
#include "appliance/LineBuffer.h"

struct ControlLimits
{
    size_t m_lineBytes = 64 << 10; // a command with its arguments
    size_t m_connections = 16;
    size_t m_commands = 4; // at a time
    u64 m_idleMs = 30000;  // without a byte in or out, and without a command
};

class ControlServer
{
public:
    explicit ControlServer(ControlHandler handler, ControlLimits limits = ControlLimits())
        : m_handler(std::move(handler)), m_limits(limits)
    {}
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    // Listens. Failed: no socket can be made there.
    Result start(const std::string& folder);

    // Cancels all commands, waits until they have come to a safe point, tells their clients, and
    // takes the socket away. Once more does nothing.
    void stop();

private:
    struct Connection
    {
        explicit Connection(size_t maxLineBytes) : m_in(maxLineBytes) {}

        int m_fd = -1;
        LineBuffer m_in;
        std::string m_out;
        std::unique_ptr<ControlCall> m_call; // null while none runs
        u64 m_lastUseMs = 0;
        bool m_closing = false; // once everything is written
        bool m_gone = false;    // nobody is there any more
    };

    void run();
    void wake();
    int waitMs() const;
    Result collect(bool stopping, std::vector<pollfd>* fds);
    void accept();
    void receive(Connection& connection);
    void takeLine(Connection& connection, const std::string& line);
    void startCall(Connection& connection, const std::string& command, const JsonValue& arguments);
    void refuse(Connection& connection, const Result& why);
    void serveCall(Connection& connection);
    void send(Connection& connection);
    void look(Connection& connection);
    void removeGone();
    bool makeRoom();
    size_t running() const;

    const ControlHandler m_handler;
    const ControlLimits m_limits;
    std::string m_folder;
    int m_folderFd = -1; // a path may lead to another mirror when the socket goes
    int m_listening = -1;
    int m_wakeFd = -1;
    std::atomic<bool> m_stopping{false};
    std::list<Connection> m_connections; // the server's thread's alone
    u64 m_stopUntilMs = 0;
    u64 m_acceptAfterMs = 0;
    std::thread m_thread;
};
