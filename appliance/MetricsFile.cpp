#include "appliance/MetricsFile.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "appliance/Caught.h"
#include "common/infra/LogItem.h"

Result MetricsFile::write()
{
    const std::string text = m_text();
    const std::string making = m_path + ".new-" + std::to_string(getpid());
    const int fd = open(making.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool good = fd >= 0;
    for (size_t done = 0; good && done < text.size();) {
        const ssize_t count = ::write(fd, text.data() + done, text.size() - done);
        good = count > 0;
        done += good ? static_cast<size_t>(count) : 0;
    }
    good = good && rename(making.c_str(), m_path.c_str()) == 0;
    Result result = good ? Result() : Result::fromErrno(errno, "cannot write metrics to " + m_path);
    if (fd >= 0)
        close(fd);
    if (!good)
        unlink(making.c_str());
    return result;
}

Result MetricsFile::start()
{
    if (Result result = write(); !result.ok())
        return result;
    m_thread = std::thread([this] {
        bool failed = false;
        bool stop = false;
        while (!stop) {
            stop = m_stop.waitMs(m_everyMs);
            const Result result = caught([this] { return write(); });
            if (!result.ok() && !failed)
                LogItem(LogModuleCommon, WarnLevel, __PRETTY_FUNCTION__, 3)
                    << result.message() << "; it is tried again" << std::endl;
            failed = !result.ok();
        }
    });
    return Result();
}

void MetricsFile::stop()
{
    m_stop.set();
    if (m_thread.joinable())
        m_thread.join();
}
