// nbdkit as a child of this process: started, watched and ended.
//
// Thread safety: the main thread only.
#pragma once

#include <string>
#include <vector>

#include "appliance/Result.h"
#include "cli/ServeAddress.h"
#include "common/infra/Types.h"

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

    // Waits until the child answers there, or a signal has been passed on: then *answers is false.
    // Failed: the child ended by itself first.
    Result waitUntilAnswers(ServeListener& listener, bool* answers);

    // Waits for the child's end; after a signal that was passed on so many seconds at most, then
    // it is killed. Failed: it failed, or had to be killed, or not even that ended it, as a disk
    // does not answer it.
    Result waitForEnd(u64 stopSeconds);

private:
    bool waitFor(u64 milliseconds);

    int m_pid = -1;
    int m_status = 0;
};
