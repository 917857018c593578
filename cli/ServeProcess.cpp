#include "cli/ServeProcess.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <netdb.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host/infra/Clock.h"

namespace {

constexpr u64 KILLED_MS = 2000; // for a kill to have its effect
constexpr u64 REMOVE_MS = 2000; // for a socket to go

std::atomic<int> child{-1};
std::atomic<bool> stopPassedOn{false};

void passOn(int)
{
    stopPassedOn = true;
    if (child > 0)
        kill(child, SIGTERM);
}

void catchSignals(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// A connection, or -1.
int connectTo(const ServeAddress& address)
{
    if (!address.m_socket.empty()) {
        sockaddr_un name = {};
        name.sun_family = AF_UNIX;
        if (address.m_socket.size() >= sizeof(name.sun_path))
            return -1;
        std::memcpy(name.sun_path, address.m_socket.c_str(), address.m_socket.size() + 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&name), sizeof(name)) == 0)
            return fd;
        if (fd >= 0)
            close(fd);
        return -1;
    }
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.m_host.c_str(), address.m_port.c_str(), &hints, &found) != 0)
        return -1;
    int connected = -1;
    for (const addrinfo* one = found; one != nullptr && connected < 0; one = one->ai_next) {
        const int fd = socket(one->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd >= 0 && connect(fd, one->ai_addr, one->ai_addrlen) == 0)
            connected = fd;
        else if (fd >= 0)
            close(fd);
    }
    freeaddrinfo(found);
    return connected;
}

// Whether what there is to read on a connection is a server's greeting. The connection alone says
// little: it is taken before the server is ready. The negotiation is given up in order, so that the
// server has nothing to complain of.
bool isGreeted(int fd)
{
    constexpr char GIVE_UP[] = "\0\0\0\3" // fixed newstyle, no zeroes
                               "IHAVEOPT\0\0\0\2\0\0\0\0";
    const timeval patience{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    char greeting[18] = {};
    const bool greeted = recv(fd, greeting, sizeof(greeting), MSG_WAITALL) == sizeof(greeting) &&
                         std::memcmp(greeting, "NBDMAGIC", 8) == 0;
    if (greeted && send(fd, GIVE_UP, sizeof(GIVE_UP) - 1, MSG_NOSIGNAL) > 0)
        recv(fd, greeting, sizeof(greeting), MSG_WAITALL);
    return greeted;
}

} // namespace

std::string ServeAddress::uri() const
{
    const bool isIpv6 = m_host.find(':') != std::string::npos;
    if (m_socket.empty())
        return "nbd://" + (isIpv6 ? "[" + m_host + "]" : m_host) + ":" + m_port + "/";
    return "nbd+unix:///?socket=" + m_socket;
}

Result ServeAddress::clear() const
{
    struct stat status = {};
    if (m_socket.empty() || lstat(m_socket.c_str(), &status) != 0)
        return Result();
    if (!S_ISSOCK(status.st_mode))
        return Result::failed(m_socket + " is there and is no socket");
    const int fd = connectTo(*this);
    if (fd >= 0) {
        close(fd);
        return Result(ResultCode::InUse, "a server listens on " + m_socket + " already");
    }
    return unlink(m_socket.c_str()) == 0 ? Result()
                                         : Result::fromErrno(errno, "cannot remove " + m_socket);
}

// By a process of its own: one that waits for a disk cannot end, and this one has to.
void ServeAddress::remove() const
{
    if (m_socket.empty())
        return;
    const pid_t remover = fork();
    if (remover == 0) {
        unlink(m_socket.c_str());
        _exit(EXIT_SUCCESS);
    }
    const u64 endMs = Clock::instance()->nowMs() + REMOVE_MS;
    while (remover > 0 && waitpid(remover, nullptr, WNOHANG) == 0 &&
           Clock::instance()->nowMs() < endMs)
        poll(nullptr, 0, 2);
}

ServeProcess::~ServeProcess()
{
    if (m_pid <= 0)
        return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, &m_status, 0);
    child = -1;
}

Result ServeProcess::start(const std::vector<std::string>& arguments)
{
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    catchSignals(passOn);
    // A socket is anybody's who may write to it.
    const mode_t before = umask(S_IRWXG | S_IRWXO);
    const int error = posix_spawnp(&m_pid, argv[0], nullptr, nullptr, argv.data(), environ);
    umask(before);
    if (error != 0) {
        m_pid = -1;
        return Result(error == ENOENT ? ResultCode::NotFound : ResultCode::Failed,
                      "cannot run " + arguments.front() + ": " + std::strerror(error));
    }
    child = m_pid;
    // A signal that came in between found no child.
    if (stopPassedOn)
        kill(m_pid, SIGTERM);
    return Result();
}

// Whether the child has ended by then.
bool ServeProcess::waitFor(u64 milliseconds)
{
    const u64 endMs = Clock::instance()->nowMs() + milliseconds;
    while (m_pid > 0) {
        const pid_t ended = waitpid(m_pid, &m_status, WNOHANG);
        if (ended == m_pid || (ended < 0 && errno == ECHILD)) {
            child = m_pid = -1;
            return true;
        }
        if (Clock::instance()->nowMs() >= endMs)
            return false;
        poll(nullptr, 0, 20);
    }
    return true;
}

Result ServeProcess::waitUntilAnswers(const ServeAddress& address, bool* answers)
{
    *answers = false;
    Result result;
    // One connection is kept however long the start takes: those that are given up before they are
    // greeted the server would complain of.
    int fd = -1;
    // A server that was told to end may never answer; its end is waited for with a limit.
    while (!stopPassedOn && !*answers) {
        if (fd < 0)
            fd = connectTo(address);
        pollfd readable = {fd, POLLIN, 0};
        if (fd >= 0 && poll(&readable, 1, 20) > 0) {
            *answers = isGreeted(fd);
            close(fd);
            fd = -1;
        }
        if (!*answers && waitFor(20)) {
            if (!stopPassedOn)
                result = waitForEnd(0);
            break;
        }
    }
    if (fd >= 0)
        close(fd);
    return result;
}

Result ServeProcess::waitForEnd(u64 stopSeconds)
{
    while (!stopPassedOn && !waitFor(500)) {
    }
    if (m_pid > 0 && !waitFor(stopSeconds * 1000)) {
        kill(m_pid, SIGKILL);
        if (waitFor(KILLED_MS))
            return Result::failed("the server did not end in time and was killed");
        // A thread of it is inside a disk's driver, which no signal reaches; once the disk answers
        // it goes. Until then nobody can wait for it.
        Result result =
            Result::failed("the server did not end in time, and process " + std::to_string(m_pid) +
                           " not when it was killed either: a disk does not answer");
        child = m_pid = -1;
        return result;
    }
    if (WIFEXITED(m_status) && WEXITSTATUS(m_status) == 0)
        return Result();
    // So it ends where the signal came before it had handlers of its own, and anything to serve.
    if (stopPassedOn && WIFSIGNALED(m_status) && WTERMSIG(m_status) == SIGTERM)
        return Result();
    return Result::failed("the server failed; what it said tells more");
}
