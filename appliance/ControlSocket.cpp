#include "appliance/ControlSocket.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int BACKLOG = 16;

// The address of a folder's socket. Where the path is too long for one, it leads through an open
// descriptor of the folder, which has to stay open until the address has been used.
class Address
{
public:
    ~Address()
    {
        if (m_folder >= 0)
            close(m_folder);
    }
    Address() = default;
    Address(const Address&) = delete;
    Address& operator=(const Address&) = delete;

    Result make(const std::string& folder)
    {
        m_address.sun_family = AF_UNIX;
        std::string path = folder + "/" + CONTROL_SOCKET_NAME;
        if (path.size() >= sizeof m_address.sun_path) {
            m_folder = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
            if (m_folder < 0)
                return Result::fromErrno(errno, "cannot open " + folder);
            path = "/proc/self/fd/" + std::to_string(m_folder) + "/" + CONTROL_SOCKET_NAME;
        }
        std::memcpy(m_address.sun_path, path.c_str(), path.size() + 1);
        return Result();
    }

    const sockaddr* get() const
    {
        return reinterpret_cast<const sockaddr*>(&m_address); // what the system calls take
    }
    socklen_t size() const { return sizeof m_address; }
    const char* path() const { return m_address.sun_path; }

private:
    sockaddr_un m_address{};
    int m_folder = -1;
};

Result failed(int fd, const std::string& what)
{
    Result result = Result::fromErrno(errno, what);
    if (fd >= 0)
        close(fd);
    return result;
}

} // namespace

Result listenOnControl(const std::string& folder, int* fd)
{
    const std::string what = "cannot listen on the control socket of " + folder;
    Address address;
    if (Result result = address.make(folder); !result.ok())
        return result;
    if (unlink(address.path()) != 0 && errno != ENOENT)
        return failed(-1, what);
    const int made = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    // The mode that the socket has is the one that its name gets, so nobody else ever may open it.
    if (made < 0 || fchmod(made, S_IRUSR | S_IWUSR) != 0 ||
        bind(made, address.get(), address.size()) != 0 || listen(made, BACKLOG) != 0)
        return failed(made, what);
    *fd = made;
    return Result();
}

Result connectToControl(const std::string& folder, int* fd)
{
    Address address;
    if (Result result = address.make(folder); !result.ok())
        return result;
    const int made = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (made < 0)
        return failed(made, "cannot make a socket");
    // A server that takes no connections any more must not hold us up.
    const timeval patience{10, 0};
    setsockopt(made, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (connect(made, address.get(), address.size()) == 0) {
        *fd = made;
        return Result();
    }
    const bool nobody = errno == ENOENT || errno == ECONNREFUSED || errno == ENOTDIR;
    Result result = failed(made, "cannot reach the process that serves " + folder);
    return nobody ? Result(ResultCode::NotFound, "nobody serves " + folder) : result;
}

void removeControl(int folderFd)
{
    unlinkat(folderFd, CONTROL_SOCKET_NAME, 0);
}
