#include "nbd/PluginFiles.h"

#include <algorithm>
#include <string>
#include <sys/resource.h>

namespace {

constexpr u64 LEAST_FILES = 40;
// What serving takes beside the journal's files: standard streams, locks, sockets that listen,
// rings, commands and whoever asks for metrics, and what is open for a moment only.
constexpr u64 LEAST_OWN_FILES = 24;
constexpr u64 MOST_OWN_FILES = 64;
constexpr u64 MOST_JOURNAL_FILES = 128;

u64 fileLimit()
{
    rlimit limit{};
    return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? u64{limit.rlim_cur} : LEAST_FILES;
}

// The journal keeps a quarter of the limit open, up to a number of its own.
u64 mostClientFiles()
{
    const u64 limit = fileLimit();
    const u64 journal = std::min(limit / 4, MOST_JOURNAL_FILES);
    const u64 own = std::clamp(limit / 8, LEAST_OWN_FILES, MOST_OWN_FILES);
    return limit - std::min(limit, journal + own);
}

} // namespace

Result raiseFileLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    clientFiles().setMost(mostClientFiles());
    const u64 files = fileLimit();
    if (files >= LEAST_FILES)
        return Result();
    return Result::failed("only " + std::to_string(files) +
                          " files may be open here (ulimit -n); serving a mirror takes " +
                          std::to_string(LEAST_FILES) + ", and some more for each connection");
}

FileBudget& clientFiles()
{
    // Never destroyed: threads of connections may end later than all else.
    static FileBudget* const files = new FileBudget(0);
    return *files;
}

bool takeConnectionFile()
{
    thread_local FileBudget::Share socket;
    socket.keep(0);
    return socket.take(&clientFiles(), 1);
}
