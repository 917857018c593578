// What carries out the operations that have to wait: an io_uring, or a pool of threads.
#pragma once

#include <atomic>
#include <memory>
#include <sys/uio.h>
#include <vector>

#include "host/volume/AsyncFileIo.h"

// One call of AsyncFileIo::submit() in flight.
struct FileBatch
{
    std::vector<FileOp> m_ops;
    AsyncFileIo::Completion m_completion;
    std::atomic<size_t> m_left{0}; // operations not done, and one for the submitter itself

    // One less; the last one calls the completion.
    void countDown()
    {
        if (m_left.fetch_sub(1, std::memory_order_acq_rel) == 1)
            m_completion(m_ops);
    }
};

// What is left of one operation.
struct FileRequest
{
    FileRequest(std::shared_ptr<FileBatch> batch, size_t index);

    FileOp& op() const { return m_batch->m_ops[m_index]; }
    u64 fileOffset() const { return op().m_offsetBytes + op().m_doneBytes; }

    // The memory that the next call takes: at most as many pieces as the kernel allows.
    const iovec* iov() const { return m_iov.data() + m_firstIov; }
    int iovCount() const;

    // Takes the outcome of a call (bytes, or a negative errno); returns whether another is needed.
    bool advance(s64 outcome);
    bool isDone() const { return m_firstIov == m_iov.size(); }

    std::shared_ptr<FileBatch> m_batch;
    size_t m_index;
    std::vector<iovec> m_iov;
    size_t m_firstIov = 0;
};

class FileIoBackend
{
public:
    // Carries out all that was started, then joins its threads.
    virtual ~FileIoBackend() = default;

    // Takes the request over.
    virtual void start(std::unique_ptr<FileRequest> request) = 0;
    virtual bool isUring() const = 0;

    // Null where the kernel refuses one; *error says why, as an errno.
    static std::unique_ptr<FileIoBackend> makeUring(int* error);
    // Null: there is not even one thread to be had.
    static std::unique_ptr<FileIoBackend> makeThreads();
};
