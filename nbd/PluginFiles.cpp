#include "nbd/PluginFiles.h"

#include <algorithm>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

constexpr u64 LEAST_FILES = 40;
// What serving takes beside the journal's files: standard streams, locks, sockets that listen,
// rings, and what is open for a moment only.
constexpr u64 OWN_FILES = 24;
constexpr u64 MOST_JOURNAL_FILES = 128;
// Whatever the limit is, no more connections than that, so that counting them stays cheap.
constexpr u64 MOST_COUNTED = 12000;

u64 fileLimit()
{
    rlimit limit{};
    return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? u64{limit.rlim_cur} : LEAST_FILES;
}

// The journal keeps a quarter of the limit open, up to a number of its own.
u64 mostSockets()
{
    const u64 limit = std::min(fileLimit(), MOST_COUNTED);
    return limit - std::min(limit, std::min(limit / 4, MOST_JOURNAL_FILES) + OWN_FILES);
}

} // namespace

Result raiseFileLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return Result();
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const u64 files = fileLimit();
    if (files >= LEAST_FILES)
        return Result();
    return Result::failed("only " + std::to_string(files) +
                          " files may be open here (ulimit -n); serving a mirror takes " +
                          std::to_string(LEAST_FILES) + ", and some more for each connection");
}

bool hasRoomForConnections()
{
    // Looked at one by one, as listing them takes one that there may not be. Numbers are given from
    // the lowest on.
    const u64 limit = std::min(fileLimit(), MOST_COUNTED);
    u64 sockets = 0;
    for (u64 fd = 0; fd < limit; ++fd) {
        struct stat status = {};
        if (fstat(static_cast<int>(fd), &status) == 0 && S_ISSOCK(status.st_mode))
            ++sockets;
    }
    return sockets <= mostSockets();
}
