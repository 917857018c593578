// The binary event log: fixed-size records for what text would be too slow for.
#pragma once

#include <functional>
#include <mutex>
#include <utility>

#include "common/infra/Singleton.h"
#include "common/infra/Types.h"

// Singleton<BinaryLogger, BinaryLogger>::instance() is the process-wide logger.
// Thread safety: any thread.
class BinaryLogger
{
public:
    using Sink = std::function<void(u32 code, u64 viewOffsetBlocks, u8 kind, u64 lengthBlocks,
                                    u64 journalAddressBlocks)>;

    void log(u32 code, u64 viewOffsetBlocks, u8 kind, u64 lengthBlocks, u64 journalAddressBlocks)
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        if (s_sink)
            s_sink(code, viewOffsetBlocks, kind, lengthBlocks, journalAddressBlocks);
    }

    // Replaces where records go and returns the sink before; an empty sink drops them, which is
    // the default. The sink runs under the logger's mutex, so it must not log here itself.
    static Sink setSink(Sink sink)
    {
        std::lock_guard<std::mutex> lock(s_mutex);
        std::swap(s_sink, sink);
        return sink;
    }

private:
    static inline std::mutex s_mutex;
    static inline Sink s_sink;
};
