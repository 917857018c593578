// Preloaded into nbdkit: brings about what is rare.
//
// A late connection. nbdkit counts a connection in the connection's own thread. So it may take one,
// be told to end, find none to wait for and begin to end, and only then the thread starts, which
// negotiates with the client for as long as that likes. Left to chance this takes a busy machine
// and some hundred ends. RL_LATE names a file: while it is there a detached thread that starts
// renames it, to NAME.held, and waits until somebody takes a lock for writing, as nbdkit does when
// it unloads. That one then removes NAME.held and gives the thread a while to come to where it
// waits for its client.
//
// A disk that fails. RL_SYNC_FAILS names a file: while it is there no data is made durable.

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <memory>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <unistd.h>

namespace {

constexpr int LOOK_MS = 2;
constexpr int TO_NEGOTIATE_MS = 300;

std::atomic<bool> isHeld{false};

struct Start
{
    void* (*m_run)(void*);
    void* m_argument;
};

std::string nameIn(const char* variable)
{
    const char* name = std::getenv(variable);
    return name == nullptr ? std::string() : std::string(name);
}

void* startLate(void* argument)
{
    const std::unique_ptr<Start> start(static_cast<Start*>(argument));
    const std::string name = nameIn("RL_LATE");
    if (!name.empty()) {
        isHeld = true;
        if (std::rename(name.c_str(), (name + ".held").c_str()) != 0)
            isHeld = false;
        while (isHeld)
            poll(nullptr, 0, LOOK_MS);
    }
    return start->m_run(start->m_argument);
}

template <class Function> Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" __attribute__((visibility("default"))) int
pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
               void* argument)
{
    static auto* const create = next<decltype(pthread_create)>("pthread_create");
    int state = PTHREAD_CREATE_JOINABLE;
    if (attributes == nullptr || pthread_attr_getdetachstate(attributes, &state) != 0 ||
        state != PTHREAD_CREATE_DETACHED)
        return create(thread, attributes, run, argument);
    auto start = std::make_unique<Start>(Start{run, argument});
    const int error = create(thread, attributes, startLate, start.get());
    if (error == 0)
        static_cast<void>(start.release());
    return error;
}

extern "C" __attribute__((visibility("default"))) int pthread_rwlock_wrlock(pthread_rwlock_t* lock)
{
    static auto* const take = next<decltype(pthread_rwlock_wrlock)>("pthread_rwlock_wrlock");
    if (isHeld) {
        unlink((nameIn("RL_LATE") + ".held").c_str());
        isHeld = false;
        poll(nullptr, 0, TO_NEGOTIATE_MS);
    }
    return take(lock);
}

extern "C" __attribute__((visibility("default"))) int fdatasync(int fd)
{
    static auto* const sync = next<decltype(fdatasync)>("fdatasync");
    const std::string name = nameIn("RL_SYNC_FAILS");
    if (name.empty() || access(name.c_str(), F_OK) != 0)
        return sync(fd);
    errno = EIO;
    return -1;
}
