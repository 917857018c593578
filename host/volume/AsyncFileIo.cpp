#include "host/volume/AsyncFileIo.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "common/infra/LogItem.h"
#include "common/infra/Mutex.h"
#include "host/journal/FileStorage.h"
#include "host/volume/AsyncFileIoBackend.h"

FileRequest::FileRequest(std::shared_ptr<FileBatch> batch, size_t index)
    : m_batch(std::move(batch)), m_index(index)
{
    const ScatteredBuf& data = op().m_data;
    m_iov.reserve(data.getSegmentsCount());
    for (u32 i = 0; i < data.getSegmentsCount(); ++i)
        if (data.getSegment(i).getSize() > 0)
            m_iov.push_back({data.getSegment(i).getPtr(), data.getSegment(i).getSize()});
}

int FileRequest::iovCount() const
{
    return static_cast<int>(std::min<size_t>(m_iov.size() - m_firstIov, IOV_MAX));
}

bool FileRequest::advance(s64 outcome)
{
    if (outcome == -EINTR || outcome == -EAGAIN)
        return true;
    if (outcome < 0 || (outcome == 0 && op().m_write)) {
        op().m_rc = outcome < 0 ? rcFromErrno(static_cast<int>(-outcome)) : RC_IO_ERROR;
        return false;
    }
    if (outcome == 0)
        return false; // the file ends here
    op().m_doneBytes += static_cast<u64>(outcome);
    size_t bytes = static_cast<size_t>(outcome);
    while (bytes > 0) {
        iovec& first = m_iov[m_firstIov];
        const size_t step = std::min(bytes, first.iov_len);
        first.iov_base = static_cast<u8*>(first.iov_base) + step;
        first.iov_len -= step;
        bytes -= step;
        if (first.iov_len == 0)
            ++m_firstIov;
    }
    return !isDone();
}

struct AsyncFileIo::Impl
{
    Impl(AsyncFileIoMode mode, bool triesCache) : m_mode(mode), m_triesCache(triesCache) {}

    // A file that is nothing but an object: its own calls, here and now.
    static void runInline(FileOp& op)
    {
        u64 offset = op.m_offsetBytes;
        for (u32 i = 0; i < op.m_data.getSegmentsCount() && op.m_rc == RC_SUCCESS; ++i) {
            const MemorySegment& segment = op.m_data.getSegment(i);
            u64 done = segment.getSize();
            op.m_rc = op.m_write
                          ? op.m_file->pwrite(segment.getPtr(), segment.getSize(), offset)
                          : op.m_file->pread(segment.getPtr(), segment.getSize(), offset, &done);
            if (op.m_rc != RC_SUCCESS)
                return;
            op.m_doneBytes += done;
            offset += done;
            if (done < segment.getSize())
                return;
        }
    }

    // Takes what the page cache has; returns whether the request is done.
    bool tryCache(FileRequest& request)
    {
        while (m_triesCache.load(std::memory_order_relaxed)) {
            const ssize_t n =
                ::preadv2(request.op().m_file->fd(), request.iov(), request.iovCount(),
                          static_cast<off_t>(request.fileOffset()), RWF_NOWAIT);
            if (n < 0) {
                // Some file systems know no such read: never mind.
                if (errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL)
                    m_triesCache = false;
                return false;
            }
            if (!request.advance(n))
                return true;
        }
        return false;
    }

    // False: nobody is there to take it, and the caller does it here and now.
    bool start(std::unique_ptr<FileRequest> request) RL_EXCLUDES(m_mutex)
    {
        MutexGuard guard(m_mutex);
        FileIoBackend* backend = backendLocked();
        if (backend != nullptr)
            backend->start(std::move(request));
        return backend != nullptr;
    }

    // Null: no thread is to be had; it is tried again the next time.
    FileIoBackend* backendLocked() RL_REQUIRES(m_mutex)
    {
        if (m_backend)
            return m_backend.get();
        const char* wish = m_mode == AsyncFileIoMode::Auto ? std::getenv("RL_IO") : nullptr;
        const bool threads =
            m_mode == AsyncFileIoMode::Threads || (wish && std::strcmp(wish, "threads") == 0);
        if (!threads) {
            int error = 0;
            m_backend = FileIoBackend::makeUring(&error);
            static std::atomic<bool> said{false};
            if (!m_backend && !said.exchange(true))
                LogItem(LogModuleCommon, InfoLevel, __PRETTY_FUNCTION__, 3)
                    << "io_uring is refused (" << std::strerror(error)
                    << "); files are read by threads" << std::endl;
        }
        if (!m_backend)
            m_backend = FileIoBackend::makeThreads();
        return m_backend.get();
    }

    const AsyncFileIoMode m_mode;
    std::atomic<bool> m_triesCache;
    Mutex m_mutex;
    std::unique_ptr<FileIoBackend> m_backend RL_GUARDED_BY(m_mutex);
};

AsyncFileIo::AsyncFileIo(AsyncFileIoMode mode, bool triesCache)
    : m_impl(std::make_unique<Impl>(mode, triesCache))
{}

AsyncFileIo::~AsyncFileIo()
{
    stopThreads();
}

AsyncFileIo& AsyncFileIo::instance()
{
    static AsyncFileIo* io = new AsyncFileIo; // code that runs while the process ends may use it
    return *io;
}

void AsyncFileIo::submit(std::vector<FileOp> ops, Completion completion)
{
    auto batch = std::make_shared<FileBatch>();
    batch->m_ops = std::move(ops);
    batch->m_completion = std::move(completion);
    // Counted before anything starts, so that the completion comes once and last.
    batch->m_left = batch->m_ops.size() + 1;
    for (size_t i = 0; i < batch->m_ops.size(); ++i) {
        FileOp& op = batch->m_ops[i];
        if (op.m_file->fd() < 0) {
            Impl::runInline(op);
            batch->countDown();
            continue;
        }
        auto request = std::make_unique<FileRequest>(batch, i);
        if (request->isDone() || (!op.m_write && m_impl->tryCache(*request)))
            batch->countDown();
        else if (!m_impl->start(std::move(request))) {
            op.m_doneBytes = 0;
            Impl::runInline(op);
            batch->countDown();
        }
    }
    batch->countDown();
}

bool AsyncFileIo::usesUring()
{
    MutexGuard guard(m_impl->m_mutex);
    const FileIoBackend* backend = m_impl->backendLocked();
    return backend != nullptr && backend->isUring();
}

void AsyncFileIo::stopThreads()
{
    std::unique_ptr<FileIoBackend> backend;
    {
        MutexGuard guard(m_impl->m_mutex);
        backend = std::move(m_impl->m_backend);
    }
    // Joined outside the lock: a completion may start something new.
}
