#include "appliance/ControlServer.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

#include "appliance/Caught.h"
#include "appliance/ControlSocket.h"
#include "common/infra/LogItem.h"
#include "host/infra/Clock.h"

namespace {

constexpr int TICK_MS = 100; // how often progress is told, and stalls are looked for
constexpr u64 FAREWELL_MS = 1000;
constexpr u64 ACCEPT_PAUSE_MS = 1000; // after a failure, for want of descriptors above all
constexpr size_t RECEIVE_BYTES = 16 << 10;

u64 nowMs()
{
    return Clock::instance()->nowMs();
}

// Whoever may write to the mirror's files may give commands, and nobody else.
bool isAllowed(int fd)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == geteuid() || peer.uid == 0);
}

} // namespace

ControlServer::~ControlServer()
{
    stop();
}

Result ControlServer::start(const std::string& folder)
{
    m_folderFd = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (m_folderFd < 0)
        return Result::fromErrno(errno, "cannot open " + folder);
    if (Result result = listenOnControl(folder, &m_listening); !result.ok()) {
        close(m_folderFd);
        m_folderFd = -1;
        return result;
    }
    m_folder = folder;
    m_wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_wakeFd < 0) {
        Result result = Result::fromErrno(errno, "cannot wake the control socket's thread");
        removeControl(m_folderFd);
        close(m_folderFd);
        close(m_listening);
        m_folderFd = m_listening = -1;
        return result;
    }
    m_stopping = false;
    m_thread = std::thread([this] { run(); });
    return Result();
}

void ControlServer::stop()
{
    if (!m_thread.joinable())
        return;
    m_stopping = true;
    wake();
    m_thread.join();
    removeControl(m_folderFd);
    close(m_folderFd);
    close(m_listening);
    close(m_wakeFd);
    m_folderFd = m_listening = m_wakeFd = -1;
}

void ControlServer::wake()
{
    const u64 one = 1;
    // It fails only when it is awake already.
    [[maybe_unused]] const ssize_t ignored = write(m_wakeFd, &one, sizeof one);
}

size_t ControlServer::running() const
{
    return static_cast<size_t>(
        std::count_if(m_connections.begin(), m_connections.end(),
                      [](const Connection& one) { return one.m_call != nullptr; }));
}

int ControlServer::waitMs() const
{
    return m_connections.empty() && m_acceptAfterMs == 0 ? -1 : TICK_MS;
}

void ControlServer::run()
{
    std::vector<pollfd> fds;
    while (true) {
        const bool stopping = m_stopping;
        if (stopping) {
            // So long the clients have to take what they are told in the end.
            if (m_stopUntilMs == 0 && running() == 0)
                m_stopUntilMs = nowMs() + FAREWELL_MS;
            for (Connection& one : m_connections) {
                one.m_closing = true;
                if (one.m_call != nullptr)
                    one.m_call->cancel();
            }
            const bool late = m_stopUntilMs != 0 && nowMs() >= m_stopUntilMs;
            for (Connection& one : m_connections)
                one.m_gone = one.m_gone || late || (one.m_call == nullptr && one.m_out.empty());
            removeGone();
            if (m_connections.empty())
                break;
        }
        if (const Result collected = caught([&] { return collect(stopping, &fds); });
            !collected.ok()) {
            poll(nullptr, 0, TICK_MS); // there may be memory for it then
            continue;
        }
        poll(fds.data(), fds.size(), waitMs());
        u64 count = 0;
        [[maybe_unused]] const ssize_t ignored = read(m_wakeFd, &count, sizeof count);
        size_t i = 2;
        for (Connection& one : m_connections) {
            const short events = fds[i++].revents;
            const Result turn = caught([&] {
                if ((events & POLLIN) != 0)
                    receive(one);
                else if ((events & (POLLHUP | POLLERR | POLLNVAL)) != 0)
                    one.m_gone = true;
                look(one);
                return Result();
            });
            one.m_gone = one.m_gone || !turn.ok();
        }
        const Result accepted = caught([&] {
            if ((fds[1].revents & POLLIN) != 0)
                accept();
            return Result();
        });
        if (!accepted.ok())
            m_acceptAfterMs = nowMs() + ACCEPT_PAUSE_MS;
        removeGone();
    }
    m_stopUntilMs = 0;
}

// What is waited for: to be woken, new connections, and then each connection in turn.
Result ControlServer::collect(bool stopping, std::vector<pollfd>* fds)
{
    fds->clear();
    fds->push_back({m_wakeFd, POLLIN, 0});
    const bool takes = !stopping && nowMs() >= m_acceptAfterMs;
    if (takes)
        m_acceptAfterMs = 0;
    fds->push_back({takes ? m_listening : -1, POLLIN, 0});
    for (const Connection& one : m_connections) {
        const short out = one.m_out.empty() ? short{0} : short{POLLOUT};
        // Who does not read its answers asks for no more.
        const bool takesMore = !one.m_closing && (one.m_out.empty() || one.m_call != nullptr);
        const short in = takesMore ? short{POLLIN} : short{0};
        // Of one that is gone only the command's end is waited for.
        fds->push_back({one.m_gone ? -1 : one.m_fd, static_cast<short>(in | out), 0});
    }
    return Result();
}

void ControlServer::accept()
{
    // Its place comes first: a connection that is accepted may not be lost for want of one.
    std::list<Connection> place;
    place.emplace_back(m_limits.m_lineBytes);
    const int fd = accept4(m_listening, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
            LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
                << "the control socket of " << m_folder << " takes no connections for a while: "
                << Result::fromErrno(errno, "accept").message() << std::endl;
            m_acceptAfterMs = nowMs() + ACCEPT_PAUSE_MS;
        }
        return;
    }
    const bool allowed = isAllowed(fd);
    if (!allowed || !makeRoom()) {
        const Result ignored = caught([&] {
            const std::string text = controlError(
                allowed
                    ? Result(ResultCode::InUse,
                             "too many connections to the process that serves the mirror")
                    : Result::failed("only its owner gives commands to a mirror that is served"));
            [[maybe_unused]] const ssize_t sent =
                ::send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            return Result();
        });
        close(fd);
        return;
    }
    place.back().m_fd = fd;
    place.back().m_lastUseMs = nowMs();
    m_connections.splice(m_connections.end(), place);
}

// Whether there is a place for one more; the connection that has been idle longest makes it.
bool ControlServer::makeRoom()
{
    if (m_connections.size() < m_limits.m_connections)
        return true;
    Connection* idle = nullptr;
    for (Connection& one : m_connections) {
        if (one.m_call == nullptr && (idle == nullptr || one.m_lastUseMs < idle->m_lastUseMs))
            idle = &one;
    }
    if (idle == nullptr)
        return false;
    idle->m_gone = true;
    removeGone();
    return true;
}

void ControlServer::removeGone()
{
    for (Connection& one : m_connections) {
        if (one.m_gone && one.m_call != nullptr)
            one.m_call->cancel();
    }
    m_connections.remove_if([](Connection& one) {
        if (!one.m_gone || (one.m_call != nullptr && !one.m_call->isDone()))
            return false;
        close(one.m_fd);
        return true;
    });
}

void ControlServer::receive(Connection& connection)
{
    char bytes[RECEIVE_BYTES];
    const ssize_t count = recv(connection.m_fd, bytes, sizeof bytes, 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count <= 0) {
        connection.m_gone = true;
        return;
    }
    connection.m_lastUseMs = nowMs();
    connection.m_in.add(bytes, static_cast<size_t>(count));
}

void ControlServer::refuse(Connection& connection, const Result& why)
{
    connection.m_out += controlError(why);
    connection.m_closing = true;
    if (connection.m_call != nullptr)
        connection.m_call->cancel();
}

// Everything that may be due at one connection.
void ControlServer::look(Connection& connection)
{
    // Its client may have been told the end already, and asks for the next.
    serveCall(connection);
    std::string line;
    // While a command runs, nothing but its cancellation may come: whoever floods is cut off.
    const auto takesMore = [&] {
        return !connection.m_closing && !connection.m_gone &&
               (connection.m_call != nullptr || connection.m_out.empty());
    };
    while (takesMore() && connection.m_in.next(&line))
        takeLine(connection, line);
    if (!connection.m_closing && connection.m_in.isTooLong())
        refuse(connection, Result::usage("the line is too long for a command"));
    serveCall(connection);
    send(connection);
    const bool idles = connection.m_call == nullptr || !connection.m_out.empty();
    if (idles && nowMs() - connection.m_lastUseMs >= m_limits.m_idleMs)
        connection.m_gone = true;
    if (connection.m_closing && connection.m_out.empty() && connection.m_call == nullptr)
        connection.m_gone = true;
}

void ControlServer::takeLine(Connection& connection, const std::string& line)
{
    JsonValue request;
    if (const Result parsed = parseControlLine(line, &request); !parsed.ok())
        return refuse(connection, parsed);
    const auto version = request.is_object() ? request.find("version") : request.end();
    const auto command = request.is_object() ? request.find("command") : request.end();
    if (!request.is_object() || version == request.end() || command == request.end() ||
        !version->is_number_unsigned() || !command->is_string())
        return refuse(connection, Result::usage("the line is no command"));
    if (version->get<u64>() != CONTROL_VERSION)
        return refuse(connection,
                      Result::usage("the process that serves the mirror knows version " +
                                    std::to_string(CONTROL_VERSION) + " of the protocol only"));
    const std::string name = command->get<std::string>();
    if (connection.m_call == nullptr) {
        if (name != "cancel") // of a command that has ended meanwhile
            startCall(connection, name, request.value("arguments", JsonValue::object()));
    } else if (name == "cancel") {
        connection.m_call->cancel();
    } else {
        refuse(connection, Result::usage("a command is under way on this connection"));
    }
}

void ControlServer::startCall(Connection& connection, const std::string& command,
                              const JsonValue& arguments)
{
    if (running() >= m_limits.m_commands) {
        connection.m_out +=
            controlError(Result(ResultCode::InUse, "too many commands are under way; try again"));
        return;
    }
    try {
        connection.m_call =
            std::make_unique<ControlCall>(m_handler, command, arguments, [this] { wake(); });
    } catch (const std::system_error&) { // no more threads may be made
        connection.m_out +=
            controlError(Result(ResultCode::InUse, "no thread for the command; try again"));
        return;
    }
    connection.m_out += controlLine(JsonValue{{"type", "accepted"}});
}

void ControlServer::serveCall(Connection& connection)
{
    if (connection.m_call == nullptr)
        return;
    const bool done = connection.m_call->isDone();
    const size_t before = connection.m_out.size();
    // Who does not read gets no progress, which would only pile up.
    connection.m_call->takeLines(connection.m_out.empty(), &connection.m_out);
    if (before == 0 && !connection.m_out.empty())
        connection.m_lastUseMs = nowMs(); // the time for a stall begins here
    if (done) {
        connection.m_call.reset();
        connection.m_lastUseMs = nowMs();
    }
}

void ControlServer::send(Connection& connection)
{
    while (!connection.m_gone && !connection.m_out.empty()) {
        const ssize_t count = ::send(connection.m_fd, connection.m_out.data(),
                                     connection.m_out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count > 0) {
            connection.m_out.erase(0, static_cast<size_t>(count));
            connection.m_lastUseMs = nowMs();
        } else if (count < 0 && errno == EINTR) {
            continue;
        } else {
            connection.m_gone = errno != EAGAIN;
            return;
        }
    }
}
