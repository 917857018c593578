// Reads journaled IOs: finds where their bytes are stored, reads, checks and decompresses them.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "Sfs/IDriverProxy.h"
#include "Sfs/IODescriptor.h"
#include "Sfs/ISingleMonitor.h"
#include "Sfs/SfsInterface.h"
#include "common/headers/AsyncFrame.h"

class CancelToken;

// Counters of one reader, in the units of their names; only ever increased.
struct JournalMetricsMonitor
{
    std::string m_context;
    std::atomic<u64> m_plainBytes{0};
    std::atomic<u64> m_compressedBytes{0};   // as stored
    std::atomic<u64> m_uncompressedBytes{0}; // as decompressed
    std::atomic<u64> m_zeroBytes{0};
    std::atomic<u64> m_failures{0};
};

// Thread safety: any thread; a reader keeps no state between reads.
class JournalIoReader
{
public:
    // sfs, drvProxy: not owned; they outlive the reader. journalMetricsContext: for reports.
    JournalIoReader(SfsInterface* sfs, IDriverProxy* drvProxy, std::string journalMetricsContext,
                    u64 mirrorId);
    virtual ~JournalIoReader();
    JournalIoReader(const JournalIoReader&) = delete;
    JournalIoReader& operator=(const JournalIoReader&) = delete;

    // Appends one read for each journal piece to the list of its kind: compressed pieces to
    // `compressed`, all others to `uncompressed`. Copies the buffers' segment lists.
    void fillIoDescriptorVectors(const std::vector<ActiveApplyIO>& journalIos,
                                 std::vector<IODescriptorEx>* uncompressed,
                                 std::vector<IODescriptorExCompressed>* compressed);

    // Reads everything into its buffers. RC_WAIT: the task is resumed with the outcome. The
    // vectors may go as soon as the call returns; the memory that the buffers refer to lives until
    // the outcome. RC_CORRUPTED_OBJECT: stored bytes are intact but do not decompress;
    // RC_BAD_CHECKSUM: stored bytes are not what was written; RC_TIMED_OUT, RC_NO_MEMORY: no
    // memory for compressed bytes before endTimeMs. After a failure the buffers' content is
    // undefined. mmi: what that memory is charged to, null for none; monitors and cancelToken may
    // be null.
    RcStatus performReadFromJournalIoDescriptors(
        AsyncTask* pAsyncTask, std::vector<IODescriptorEx>& uncompressed,
        std::vector<IODescriptorExCompressed>& compressed, AioPriority ioPriority,
        ModuleMemoryInformation* mmi, u64 endTimeMs, ISingleMonitor* readMonitor,
        ISingleMonitor* uncompressMonitor, CancelToken* cancelToken);

    const JournalMetricsMonitor& metrics() const { return m_metricsMonitor; }

protected:
    SfsInterface* m_sfs;
    IDriverProxy* m_drvProxy;
    u32 t_maxBufBytesForUncompress; // compressed IOs are read in rounds of at most this many bytes
    JournalMetricsMonitor m_metricsMonitor;
    u64 m_mirrorId;

private:
    RcStatus readFrame(AsyncTask* pAsyncTask, AsyncFrame* pFrame);
};
