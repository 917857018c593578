#include "nbd/PluginStopper.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

#include "host/infra/Clock.h"
#include "nbd/Nbdkit.h"
#include "nbd/PluginLog.h"

namespace {

// For clients that are at work: these go with the answer to what they have asked for.
constexpr u64 PATIENCE_MS = 2000;

constexpr std::array<int, 4> SIGNALS = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

// What a signal handler may touch.
int wakeUps = -1;
std::atomic<bool> toldToEnd{false};
std::array<struct sigaction, SIGNALS.size()> nbdkitActions;

// What the main thread has come to, and the right to end the process.
enum class Phase
{
    Starting,
    Serving,
    Ending, // in order
    Ended,
};
std::mutex phaseMutex;
Phase phase = Phase::Starting;

void wakeUp()
{
    const u64 one = 1;
    const ssize_t ignored = write(wakeUps, &one, sizeof(one));
    static_cast<void>(ignored);
}

void onSignal(int number)
{
    const int error = errno;
    toldToEnd = true;
    wakeUp();
    for (size_t i = 0; i < SIGNALS.size(); ++i) {
        if (SIGNALS[i] == number && nbdkitActions[i].sa_handler != SIG_DFL &&
            nbdkitActions[i].sa_handler != SIG_IGN)
            nbdkitActions[i].sa_handler(number);
    }
    errno = error;
}

Phase currentPhase()
{
    std::lock_guard<std::mutex> guard(phaseMutex);
    return phase;
}

// Sleeps until the phase has changed or the deadline has come.
void waitForPhase(Phase from, u64 deadlineMs)
{
    while (currentPhase() == from) {
        const u64 nowMs = Clock::instance()->nowMs();
        if (nowMs >= deadlineMs)
            return;
        poll(nullptr, 0, static_cast<int>(std::min<u64>(deadlineMs - nowMs, 20)));
    }
}

} // namespace

PluginStopper::~PluginStopper()
{
    disarm();
}

Result PluginStopper::arm(ServedMirror& served, u64 stopSeconds)
{
    wakeUps = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeUps < 0)
        return Result::fromErrno(errno, "cannot watch for signals");
    for (size_t i = 0; i < SIGNALS.size(); ++i) {
        if (sigaction(SIGNALS[i], nullptr, &nbdkitActions[i]) != 0 ||
            (nbdkitActions[i].sa_flags & SA_SIGINFO) != 0)
            continue;
        struct sigaction ours = nbdkitActions[i];
        ours.sa_handler = onSignal;
        sigaction(SIGNALS[i], &ours, nullptr);
    }
    m_thread = std::thread([this, &served, stopSeconds] { watch(served, stopSeconds); });
    return Result();
}

void PluginStopper::watch(ServedMirror& served, u64 stopSeconds)
{
    pollfd woken = {wakeUps, POLLIN, 0};
    while (poll(&woken, 1, -1) < 0 && errno == EINTR) {
    }
    const u64 startMs = Clock::instance()->nowMs();
    const u64 deadlineMs = startMs + stopSeconds * 1000;
    {
        // Served is there as long as it is being opened, which ends under the mutex.
        std::lock_guard<std::mutex> guard(phaseMutex);
        if (phase == Phase::Starting)
            served.interruptStart();
    }
    waitForPhase(Phase::Starting, deadlineMs);
    waitForPhase(Phase::Serving, startMs + std::min(PATIENCE_MS, stopSeconds * 500));
    {
        // Whoever gets here first ends the process.
        std::unique_lock<std::mutex> guard(phaseMutex);
        if (phase == Phase::Starting) {
            nbdkit_error("opening the mirror could not be stopped in time");
            _exit(EXIT_FAILURE);
        }
        if (phase == Phase::Serving)
            endSealed(served, deadlineMs);
    }
    waitForPhase(Phase::Ending, deadlineMs);
    if (currentPhase() == Phase::Ended)
        return;
    nbdkit_error("the mirror could not be closed in time");
    _exit(EXIT_FAILURE);
}

void PluginStopper::endSealed(ServedMirror& served, u64 deadlineMs)
{
    // On a thread of its own, as a disk that does not answer holds a flush up for good.
    std::atomic<bool> done{false};
    Result result;
    std::thread sealing([&] {
        result = served.seal(deadlineMs);
        done = true;
    });
    sealing.detach();
    while (!done && Clock::instance()->nowMs() < deadlineMs)
        poll(nullptr, 0, 5);
    logRest();
    if (done && result.ok()) {
        nbdkit_debug("rl: ended without waiting for clients that stay connected");
        _exit(EXIT_SUCCESS);
    }
    nbdkit_error("ended before all was durable: %s",
                 done ? result.message().c_str() : "the time is over");
    _exit(EXIT_FAILURE);
}

void PluginStopper::beginServing()
{
    std::lock_guard<std::mutex> guard(phaseMutex);
    if (phase == Phase::Starting)
        phase = Phase::Serving;
}

bool PluginStopper::isToldToEnd()
{
    return toldToEnd;
}

void PluginStopper::beginOrderlyEnd()
{
    std::lock_guard<std::mutex> guard(phaseMutex);
    if (phase == Phase::Starting || phase == Phase::Serving)
        phase = Phase::Ending;
    if (wakeUps >= 0)
        wakeUp();
}

void PluginStopper::limitUnload()
{
    try {
        // Nothing but calls of the system: what else the plugin has may be gone by then.
        std::thread([] {
            std::this_thread::sleep_for(std::chrono::milliseconds(PATIENCE_MS));
            _exit(EXIT_SUCCESS);
        }).detach();
    } catch (const std::system_error&) {
        nbdkit_debug("rl: no thread to limit the time that unloading takes");
    }
}

void PluginStopper::disarm()
{
    {
        std::lock_guard<std::mutex> guard(phaseMutex);
        phase = Phase::Ended;
    }
    if (!m_thread.joinable())
        return;
    wakeUp();
    m_thread.join();
    for (size_t i = 0; i < SIGNALS.size(); ++i)
        sigaction(SIGNALS[i], &nbdkitActions[i], nullptr);
}
