// Keeps the end of the server within its time.
//
// When nbdkit is told to end it waits for the clients that are connected, and an idle one may stay
// for ever. So a thread of ours hears of the signal too:
//
//   signal -> a moment's patience -> sealed: no request is answered any more, what was answered is
//             durable -> the process ends, with 0
//   signal while the mirror is being opened -> that is interrupted; nothing was answered yet, so
//             where it does not end in time the process does, with 1
//   nbdkit's own end comes first -> only the time is watched
//   the time is over in either -> the process ends, with 1
//   all is closed -> nbdkit has a moment to unload the plugin, then the process ends, with 0
//
// Thread safety: from nbdkit's main thread.
#pragma once

#include <thread>

#include "appliance/ServedMirror.h"

class PluginStopper
{
public:
    PluginStopper() = default;
    ~PluginStopper();
    PluginStopper(const PluginStopper&) = delete;
    PluginStopper& operator=(const PluginStopper&) = delete;

    // From now on, with served yet to be started; nbdkit's own handlers of signals are called as
    // before. served: lives until disarm(). Failed: there is no descriptor for it.
    Result arm(ServedMirror& served, u64 stopSeconds);

    // The mirror has been opened: from here on there are clients.
    void beginServing();

    // All clients have gone, or none ever came: the mirror is closed by the caller, with the time
    // watched. Does not return where the clients did not go in time.
    void beginOrderlyEnd();

    // Done; once more does nothing.
    void disarm();

    // All is closed, and nbdkit goes on to unload the plugin. For that it waits for clients that
    // are negotiating, for good: it counts a connection in the connection's own thread, and may
    // have found none to wait for while that thread was only starting.
    static void limitUnload();

    // Whether a signal has told the process to end.
    static bool isToldToEnd();

private:
    void watch(ServedMirror& served, u64 stopSeconds);
    [[noreturn]] static void endSealed(ServedMirror& served, u64 deadlineMs);

    std::thread m_thread;
};
