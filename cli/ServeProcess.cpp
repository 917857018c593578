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

Result ServeProcess::waitUntilAnswers(ServeListener& listener, bool* answers)
{
    *answers = false;
    Result result;
    // One connection is kept however long the start takes: those that are given up before they are
    // greeted the server would complain of.
    int fd = -1;
    // A server that was told to end may never answer; its end is waited for with a limit.
    while (!stopPassedOn && !*answers) {
        if (fd < 0)
            fd = listener.connect(m_pid);
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
