#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

#include "host/volume/AsyncFileIoBackend.h"

namespace {

constexpr unsigned THREADS = 4;

class ThreadsBackend : public FileIoBackend
{
public:
    // Has as many threads as there are to be had, or none.
    ThreadsBackend()
    {
        m_threads.reserve(THREADS);
        try {
            while (m_threads.size() < THREADS)
                m_threads.emplace_back([this] { run(); });
        } catch (const std::system_error&) { // fewer do it too
        }
    }

    bool hasThreads() const { return !m_threads.empty(); }

    ~ThreadsBackend() override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stopping = true;
        }
        m_wake.notify_all();
        for (std::thread& thread : m_threads)
            thread.join();
    }

    void start(std::unique_ptr<FileRequest> request) override
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_queue.push_back(std::move(request));
        }
        m_wake.notify_one();
    }

    bool isUring() const override { return false; }

private:
    void run()
    {
        while (true) {
            std::unique_ptr<FileRequest> request;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_wake.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
                if (m_queue.empty())
                    return;
                request = std::move(m_queue.front());
                m_queue.pop_front();
            }
            while (request->advance(call(*request)))
                ;
            request->m_batch->countDown();
        }
    }

    static s64 call(const FileRequest& request)
    {
        const int fd = request.op().m_file->fd();
        const off_t offset = static_cast<off_t>(request.fileOffset());
        const ssize_t n = request.op().m_write
                              ? ::pwritev(fd, request.iov(), request.iovCount(), offset)
                              : ::preadv(fd, request.iov(), request.iovCount(), offset);
        return n < 0 ? -s64{errno} : s64{n};
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::unique_ptr<FileRequest>> m_queue;
    std::vector<std::thread> m_threads;
    bool m_stopping = false;
};

} // namespace

std::unique_ptr<FileIoBackend> FileIoBackend::makeThreads()
{
    auto backend = std::make_unique<ThreadsBackend>();
    return backend->hasThreads() ? std::move(backend) : nullptr;
}
