#include "host/journal/JournalScanner.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "host/journal/JournalRecovery.h"
#include "host/journal/JournalScanSink.h"

namespace {

constexpr u32 CHUNK_PAGES = 2048; // a megabyte

struct Chunk
{
    std::vector<JournalPage> m_pages; // grown to what a read needs
    u32 m_count = 0;
};

// Reads and checks pages in order.
class PageReader
{
public:
    PageReader(JournalStore& store, u64 firstPage, u64 endPage)
        : m_store(store), m_next(firstPage), m_end(endPage)
    {}

    bool isDone() const { return m_next >= m_end; }
    u64 next() const { return m_next; }

    // RC_DAMAGED: a page that was intact when the journal was opened, or that was written since, is
    // not any more; the pages before it are in the chunk.
    RcStatus read(Chunk* chunk, std::string* message)
    {
        const u64 first = m_next;
        const u32 wanted = static_cast<u32>(std::min<u64>(
            {CHUNK_PAGES, m_end - first, JOURNAL_PAGES_PER_GRAIN - pageInGrain(first)}));
        chunk->m_count = 0;
        if (chunk->m_pages.size() < wanted)
            chunk->m_pages.resize(wanted);
        u32 done = 0;
        const RcStatus rc =
            readPages(m_store.grains(), first, wanted, chunk->m_pages.data(), &done);
        if (rc != RC_SUCCESS) {
            *message = "cannot read " + pagesText(first, first) + ": " + readFailureText(rc);
            return rc;
        }
        for (u32 i = 0; i < wanted; ++i) {
            JournalPage& page = chunk->m_pages[i];
            const char* fault = i < done ? faultOf(page, first + i) : "not there";
            if (fault != nullptr) {
                if (!m_store.skipsDamage()) {
                    *message =
                        "the journal is damaged: " + pagesText(first + i, first + i) + ": " + fault;
                    return RC_DAMAGED;
                }
                page.m_magic = 0;
                page.m_count = 0;
            }
            chunk->m_count = i + 1;
            m_next = first + i + 1;
        }
        return RC_SUCCESS;
    }

private:
    const char* faultOf(const JournalPage& page, u64 number) const
    {
        if (!isPageIntact(page, number))
            return "not intact";
        for (u32 slot = 0; slot < page.m_count; ++slot)
            if (const char* fault = itemFault(page.m_items[slot], m_store.volumeBlocks()))
                return fault;
        return nullptr;
    }

    JournalStore& m_store;
    u64 m_next;
    const u64 m_end;
};

// Hands chunks from the reading thread to the one that calls the container.
class ChunkQueue
{
public:
    // The reader's: a chunk to fill; null when no more are wanted.
    Chunk* takeEmpty()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_stopped || m_filled < CHUNKS; });
        return m_stopped ? nullptr : &m_chunks[m_write % CHUNKS];
    }

    void putFilled()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_write;
        ++m_filled;
        m_changed.notify_all();
    }

    // No more chunks come.
    void close()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
        m_changed.notify_all();
    }

    // The consumer's: the next chunk; null when there is none any more.
    Chunk* takeFilled()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_closed || m_filled > 0; });
        return m_filled > 0 ? &m_chunks[m_read % CHUNKS] : nullptr;
    }

    void putEmpty()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_read;
        --m_filled;
        m_changed.notify_all();
    }

    // No more chunks are wanted.
    void stop()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopped = true;
        m_changed.notify_all();
    }

private:
    static constexpr size_t CHUNKS = 3;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    Chunk m_chunks[CHUNKS];
    size_t m_read = 0;
    size_t m_write = 0;
    size_t m_filled = 0;
    bool m_closed = false;
    bool m_stopped = false;
};

// A heap that gives nothing ends a scan, and never the process: the thread that reads would leave
// the other one behind, and on that one nobody could catch it.
template <class Function> RcStatus withoutThrowing(Function function)
{
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return RC_NO_MEMORY;
    }
}

RcStatus scanInline(PageReader& reader, JournalScanSink& sink, const std::atomic<bool>& cancelled,
                    const std::function<void()>& progress, std::string* message)
{
    Chunk chunk;
    while (!reader.isDone()) {
        if (cancelled)
            return RC_ABORTED;
        const RcStatus rc = reader.read(&chunk, message);
        if (!sink.takePages(chunk.m_pages.data(), chunk.m_count))
            return RC_SUCCESS;
        if (rc != RC_SUCCESS)
            return rc;
        progress();
    }
    return RC_SUCCESS;
}

// The thread that calls the container. rc: how reading went, written before the queue was closed.
void consume(ChunkQueue& queue, JournalScanSink& sink, const std::function<void(RcStatus)>& finish,
             const RcStatus& rc)
{
    RcStatus taken = RC_SUCCESS;
    while (Chunk* chunk = queue.takeFilled()) {
        bool more = false;
        taken = withoutThrowing([&] {
            more = sink.takePages(chunk->m_pages.data(), chunk->m_count);
            return RC_SUCCESS;
        });
        queue.putEmpty();
        if (!more) {
            queue.stop();
            finish(taken);
            return;
        }
    }
    finish(rc);
}

RcStatus readAhead(ChunkQueue& queue, PageReader& reader, const std::atomic<bool>& cancelled,
                   const std::function<void()>& progress, std::string* message)
{
    RcStatus rc = RC_SUCCESS;
    while (!reader.isDone() && rc == RC_SUCCESS) {
        Chunk* chunk = queue.takeEmpty();
        if (chunk == nullptr)
            break;
        rc = cancelled ? RC_ABORTED : reader.read(chunk, message);
        if (rc != RC_ABORTED)
            queue.putFilled();
        progress();
    }
    return rc;
}

void scanOffloaded(PageReader& reader, JournalScanSink& sink, const std::atomic<bool>& cancelled,
                   const std::function<void()>& progress,
                   const std::function<void(RcStatus)>& finish, std::string* message)
{
    ChunkQueue queue;
    RcStatus rc = RC_SUCCESS;
    std::thread consumer;
    try {
        consumer = std::thread([&] { consume(queue, sink, finish, rc); });
    } catch (const std::exception&) { // no thread to be had, or no memory for one
        finish(withoutThrowing(
            [&] { return scanInline(reader, sink, cancelled, progress, message); }));
        return;
    }
    rc = withoutThrowing([&] { return readAhead(queue, reader, cancelled, progress, message); });
    queue.close();
    consumer.join();
}

} // namespace

ScanResult JournalScanner::scan(SfsMetaDataContainer& container, const ScanOptions& options)
{
    const u64 endPage = m_store.endPage();
    const bool fromStart = options.start.grain == SFS_DEV_ADDR_INVALID;
    const JournalBegin begin = m_store.begin();
    const u64 firstPage = fromStart ? begin.m_page : pageOfJournalPtr(options.start);
    JournalScanSink sink(container, options, m_cancelled);
    if (fromStart)
        sink.result().itemsBefore = begin.m_items; // also where nothing follows
    if (firstPage > endPage || firstPage < begin.m_page ||
        (!fromStart && options.start.grain < SFS_GRAIN_BLOCKS)) {
        sink.finish(RC_BAD_ARGUMENT, endPage);
        sink.result().message = "the scan begins outside of the journal";
        return sink.result();
    }

    PageReader reader(m_store, firstPage, endPage);
    std::string message;
    const auto tell = [&] {
        if (options.progress)
            options.progress(reader.next(), endPage);
    };
    const std::function<void()> progress = std::cref(tell); // takes no memory
    if (container.isAddMetaDataDesireOffload())
        scanOffloaded(
            reader, sink, m_cancelled, progress, [&](RcStatus rc) { sink.finish(rc, endPage); },
            &message);
    else
        sink.finish(withoutThrowing(
                        [&] { return scanInline(reader, sink, m_cancelled, progress, &message); }),
                    endPage);
    ScanResult& result = sink.result();
    if (result.rc != RC_SUCCESS)
        result.message = message;
    return result;
}
