#include "cli/ServeAddress.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netdb.h>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host/infra/Clock.h"

namespace fs = std::filesystem;

namespace {

constexpr u64 STARTED_MS = 30000; // for another server to be started
constexpr u64 REMOVE_MS = 2000;   // for a socket to go
constexpr int PAUSE_MS = 10;

// Of an open file, whatever its path is by now and however long that is.
std::string pathOf(int file)
{
    return "/proc/self/fd/" + std::to_string(file);
}

// A connection to the socket that a file is; else -1 and errno. Waits for nobody.
int connectToFile(int file)
{
    sockaddr_un name = {};
    name.sun_family = AF_UNIX;
    const std::string path = pathOf(file);
    std::memcpy(name.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&name), sizeof(name)) == 0 &&
        fcntl(fd, F_SETFL, 0) == 0)
        return fd;
    const int error = errno;
    if (fd >= 0)
        close(fd);
    errno = error;
    return -1;
}

// 0: somebody listens on the socket that a file is; ECONNREFUSED: nobody does; else why that cannot
// be told.
int refusalOf(int file)
{
    const int fd = connectToFile(file);
    if (fd >= 0)
        close(fd);
    return fd >= 0 || errno == EAGAIN ? 0 : errno; // EAGAIN: many wait for it
}

// Whether a process made this connection's other end listen.
bool isListener(int fd, int process)
{
    ucred peer = {};
    socklen_t size = sizeof(peer);
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid == process;
}

// Whether a process has a TCP socket that listens. A server has its own one before it has others.
bool listensOnTcp(int process)
{
    constexpr const char* LISTENS = "0A";
    std::set<std::string> sockets;
    std::error_code error;
    const fs::path files = "/proc/" + std::to_string(process) + "/fd";
    for (fs::directory_iterator one(files, error), end; !error && one != end;
         one.increment(error)) {
        std::error_code closed;
        const std::string file = fs::read_symlink(one->path(), closed).string();
        if (file.rfind("socket:[", 0) == 0)
            sockets.insert(file.substr(8, file.size() - 9));
    }
    for (const char* table : {"/proc/self/net/tcp", "/proc/self/net/tcp6"}) {
        std::ifstream file(table);
        for (std::string line; std::getline(file, line);) {
            std::istringstream fields(line);
            std::string skipped;
            std::string state;
            std::string inode;
            fields >> skipped >> skipped >> skipped >> state; // number, both addresses
            fields >> skipped >> skipped >> skipped >> skipped >> skipped >> inode;
            if (state == LISTENS && sockets.count(inode) != 0)
                return true;
        }
    }
    return false;
}

int connectToPort(const ServeAddress& address)
{
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

} // namespace

std::string ServeAddress::uri() const
{
    const bool isIpv6 = m_host.find(':') != std::string::npos;
    if (m_socket.empty())
        return "nbd://" + (isIpv6 ? "[" + m_host + "]" : m_host) + ":" + m_port + "/";
    return "nbd+unix:///?socket=" + m_socket;
}

ServeListener::~ServeListener()
{
    for (const int fd : {m_socketFile, m_folder}) {
        if (fd >= 0)
            close(fd);
    }
}

// Where there are no locks, as on some network's disk, it is done without: true.
bool ServeListener::lockFolder()
{
    const u64 endMs = Clock::instance()->nowMs() + STARTED_MS;
    while (flock(m_folder, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        if (Clock::instance()->nowMs() >= endMs)
            return false;
        poll(nullptr, 0, PAUSE_MS);
    }
    return true;
}

// Whatever has the socket's name; -1: nothing.
int ServeListener::open() const
{
    return openat(m_folder, m_name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
}

Result ServeListener::claim()
{
    const std::string& socket = m_address.m_socket;
    if (socket.empty())
        return Result();
    const fs::path folder = fs::path(socket).parent_path();
    m_name = fs::path(socket).filename().string();
    if (m_name.empty())
        return Result::failed(socket + " is no name of a socket");
    m_folder = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_folder < 0 && errno == EACCES) // nor are there locks then
        m_folder = ::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (m_folder < 0)
        return Result::fromErrno(errno, "cannot open the socket's folder " + folder.string());
    if (!lockFolder())
        return Result(ResultCode::InUse, "another server is being started at " + socket);
    const int file = open();
    if (file < 0)
        return errno == ENOENT ? Result() : Result::fromErrno(errno, "cannot look at " + socket);
    struct stat status = {};
    const bool isSocket = fstat(file, &status) == 0 && S_ISSOCK(status.st_mode);
    const int refusal = isSocket ? refusalOf(file) : 0;
    close(file);
    if (!isSocket)
        return Result::failed(socket + " is there and is no socket");
    if (refusal == 0)
        return Result(ResultCode::InUse, "a server listens on " + socket + " already");
    if (refusal != ECONNREFUSED)
        return Result::fromErrno(refusal, "cannot tell whether a server listens on " + socket);
    return unlinkat(m_folder, m_name.c_str(), 0) == 0
               ? Result()
               : Result::fromErrno(errno, "cannot remove " + socket);
}

int ServeListener::connect(int server)
{
    // Asked for first: to another's it is not even connected, which that one would complain of.
    if (m_address.m_socket.empty())
        return listensOnTcp(server) ? connectToPort(m_address) : -1;
    const int file = m_socketFile >= 0 ? m_socketFile : open();
    if (file < 0)
        return -1;
    const int fd = connectToFile(file);
    if (fd >= 0 && (file == m_socketFile || isListener(fd, server))) {
        m_socketFile = file;
        // nbdkit makes it so that nobody else may write to it, which connecting takes.
        chmod(pathOf(file).c_str(), S_IRUSR | S_IWUSR);
        flock(m_folder, LOCK_UN);
        return fd;
    }
    if (fd >= 0)
        close(fd);
    if (file != m_socketFile)
        close(file);
    return -1;
}

// Where the server was not even connected to, its folder is locked: nobody else's can be new there.
bool ServeListener::isOurs() const
{
    struct stat ours = {};
    struct stat there = {};
    if (fstatat(m_folder, m_name.c_str(), &there, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISSOCK(there.st_mode))
        return false;
    if (m_socketFile < 0)
        return refusalOf(open()) == ECONNREFUSED;
    return fstat(m_socketFile, &ours) == 0 && ours.st_dev == there.st_dev &&
           ours.st_ino == there.st_ino;
}

// By a process of its own: one that waits for a disk cannot end, and this one has to. It is locked
// again, so that no other one comes between looking and taking away.
void ServeListener::remove()
{
    if (m_folder < 0)
        return;
    const pid_t remover = fork();
    if (remover == 0) {
        flock(m_folder, LOCK_EX);
        if (isOurs())
            unlinkat(m_folder, m_name.c_str(), 0);
        _exit(EXIT_SUCCESS);
    }
    const u64 endMs = Clock::instance()->nowMs() + REMOVE_MS;
    while (remover > 0 && waitpid(remover, nullptr, WNOHANG) == 0 &&
           Clock::instance()->nowMs() < endMs)
        poll(nullptr, 0, 2);
}
