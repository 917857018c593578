// Reads and writes of files in the background.
//
// A read is first tried with what the page cache has (preadv2 with RWF_NOWAIT), on the caller's
// thread; what would have to wait for the device goes to an io_uring, or to a pool of threads where
// the kernel refuses one. Files without a descriptor (a simulation's) are used inline.
//
// Thread safety: any thread. A batch's completion is called once, with no lock held, on the
// caller's thread when nothing had to wait, else on a thread of this object; it must not block.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "common/infra/Future.h"
#include "common/infra/ScatteredBuf.h"
#include "host/journal/Storage.h"

struct FileOp
{
    std::shared_ptr<StorageFile> m_file;
    u64 m_offsetBytes = 0;
    ScatteredBuf m_data; // refers to the memory, which lives until the completion
    bool m_write = false;

    // The outcome. A read that ends early at the file's end is RC_SUCCESS with fewer bytes.
    RcStatus m_rc = RC_SUCCESS;
    u64 m_doneBytes = 0;
};

enum class AsyncFileIoMode
{
    Auto,  // io_uring, or threads where it is refused; RL_IO=threads forces threads
    Uring, // as Auto without a look at RL_IO
    Threads,
};

class AsyncFileIo
{
public:
    using Completion = std::function<void(std::vector<FileOp>& ops)>;

    // triesCache: whether to look into the page cache first.
    explicit AsyncFileIo(AsyncFileIoMode mode = AsyncFileIoMode::Auto, bool triesCache = true);

    // Waits for all that is in flight and joins its threads.
    ~AsyncFileIo();
    AsyncFileIo(const AsyncFileIo&) = delete;
    AsyncFileIo& operator=(const AsyncFileIo&) = delete;

    // The process-wide one, made on first use and never destroyed.
    static AsyncFileIo& instance();

    // Starts all operations, in flight together.
    void submit(std::vector<FileOp> ops, Completion completion);

    // Whether an io_uring serves it; decided when the first operation has to wait.
    bool usesUring();

    // Ends the threads when nothing is in flight; the next operation that has to wait starts them
    // again. For a process that wants to end with all its threads joined.
    void stopThreads();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
