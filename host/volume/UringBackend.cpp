#include <algorithm>
#include <array>
#include <cerrno>
#include <deque>
#include <liburing.h>
#include <sched.h>
#include <system_error>
#include <thread>

#include "common/infra/Mutex.h"
#include "host/volume/AsyncFileIoBackend.h"

namespace {

constexpr unsigned RING_ENTRIES = 256;

// Requests beyond the ring's entries wait in a queue. One thread takes the completions; submitters
// and that thread fill the ring under the mutex.
class UringBackend : public FileIoBackend
{
public:
    static std::unique_ptr<FileIoBackend> make(int* error)
    {
        std::unique_ptr<UringBackend> backend(new UringBackend);
        const int rc = io_uring_queue_init(RING_ENTRIES, &backend->m_ring, 0);
        if (rc < 0) {
            *error = -rc;
            return nullptr;
        }
        try {
            backend->m_thread = std::thread([raw = backend.get()] { raw->run(); });
        } catch (const std::system_error& refused) {
            io_uring_queue_exit(&backend->m_ring);
            *error = refused.code().value();
            return nullptr;
        }
        return backend;
    }

    ~UringBackend() override
    {
        if (!m_thread.joinable())
            return; // there was no ring
        {
            MutexGuard guard(m_mutex);
            m_stopping = true;
            // A request of nothing wakes the thread.
            m_queue.push_back(nullptr);
            pumpLocked();
        }
        m_thread.join();
        io_uring_queue_exit(&m_ring);
    }

    void start(std::unique_ptr<FileRequest> request) override
    {
        MutexGuard guard(m_mutex);
        m_queue.push_back(std::move(request));
        pumpLocked();
    }

    bool isUring() const override { return true; }

private:
    void pumpLocked() RL_REQUIRES(m_mutex)
    {
        unsigned added = 0;
        while (!m_queue.empty() && m_inFlight < RING_ENTRIES) {
            io_uring_sqe* sqe = io_uring_get_sqe(&m_ring);
            if (sqe == nullptr)
                break;
            FileRequest* request = m_queue.front().release();
            m_queue.pop_front();
            prepare(sqe, request);
            io_uring_sqe_set_data(sqe, request);
            ++m_inFlight;
            ++added;
        }
        while (added > 0) {
            const int rc = io_uring_submit(&m_ring);
            if (rc > 0)
                added -= std::min(added, static_cast<unsigned>(rc));
            else
                sched_yield(); // the kernel is short of memory for the moment
        }
    }

    static void prepare(io_uring_sqe* sqe, FileRequest* request)
    {
        if (request == nullptr) {
            io_uring_prep_nop(sqe);
            return;
        }
        const int fd = request->op().m_file->fd();
        const unsigned count = static_cast<unsigned>(request->iovCount());
        if (request->op().m_write)
            io_uring_prep_writev(sqe, fd, request->iov(), count, request->fileOffset());
        else
            io_uring_prep_readv(sqe, fd, request->iov(), count, request->fileOffset());
    }

    void run()
    {
        std::array<io_uring_cqe*, 64> cqes;
        std::vector<std::pair<FileRequest*, int>> done;
        while (true) {
            io_uring_cqe* first = nullptr;
            if (io_uring_wait_cqe(&m_ring, &first) < 0)
                continue; // interrupted
            const unsigned count = io_uring_peek_batch_cqe(&m_ring, cqes.data(), cqes.size());
            done.clear();
            for (unsigned i = 0; i < count; ++i)
                done.emplace_back(static_cast<FileRequest*>(io_uring_cqe_get_data(cqes[i])),
                                  cqes[i]->res);
            io_uring_cq_advance(&m_ring, count);
            {
                // The kernel handed the requests over; the lock tells so to tools that watch
                // threads.
                MutexGuard guard(m_mutex);
            }
            std::vector<std::unique_ptr<FileRequest>> again;
            for (const auto& [raw, outcome] : done) {
                std::unique_ptr<FileRequest> request(raw);
                if (request == nullptr)
                    continue;
                if (request->advance(outcome))
                    again.push_back(std::move(request));
                else
                    request->m_batch->countDown();
            }
            MutexGuard guard(m_mutex);
            m_inFlight -= count;
            for (auto& request : again)
                m_queue.push_back(std::move(request));
            pumpLocked();
            if (m_stopping && m_inFlight == 0 && m_queue.empty())
                return;
        }
    }

    io_uring m_ring{};
    std::thread m_thread;
    Mutex m_mutex;
    std::deque<std::unique_ptr<FileRequest>> m_queue RL_GUARDED_BY(m_mutex);
    unsigned m_inFlight RL_GUARDED_BY(m_mutex) = 0;
    bool m_stopping RL_GUARDED_BY(m_mutex) = false;
};

} // namespace

std::unique_ptr<FileIoBackend> FileIoBackend::makeUring(int* error)
{
    return UringBackend::make(error);
}
