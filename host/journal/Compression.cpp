#include "host/journal/Compression.h"

#include <algorithm>
#include <cstring>
#include <lz4.h>
#include <zstd.h>

#include "common/infra/Mutex.h"

namespace {

constexpr u32 HEADER_BYTES = sizeof(CompressedIoHeader);
constexpr int ZSTD_LEVEL = 1; // the journal is on the way of every write
constexpr size_t STOCK_CONTEXTS = 16;

class ContextStock
{
public:
    static ContextStock& instance()
    {
        static ContextStock* stock = new ContextStock; // used until the process is gone
        return *stock;
    }

    std::unique_ptr<CompressionContext> take()
    {
        {
            MutexGuard guard(m_mutex);
            if (!m_contexts.empty()) {
                std::unique_ptr<CompressionContext> context = std::move(m_contexts.back());
                m_contexts.pop_back();
                return context;
            }
        }
        return std::make_unique<CompressionContext>();
    }

    void giveBack(std::unique_ptr<CompressionContext> context)
    {
        MutexGuard guard(m_mutex);
        if (m_contexts.size() < STOCK_CONTEXTS)
            m_contexts.push_back(std::move(context));
    }

private:
    // Giving back is a destructor's, which cannot fail.
    ContextStock() { m_contexts.reserve(STOCK_CONTEXTS); }

    Mutex m_mutex;
    std::vector<std::unique_ptr<CompressionContext>> m_contexts RL_GUARDED_BY(m_mutex);
};

} // namespace

const char* compressionName(Compression compression)
{
    switch (compression) {
    case Compression::None: return "none";
    case Compression::Lz4: return "lz4";
    case Compression::Zstd: return "zstd";
    }
    return "unknown";
}

bool compressionFromName(const std::string& name, Compression* compression)
{
    for (const Compression one : {Compression::None, Compression::Lz4, Compression::Zstd}) {
        if (name == compressionName(one)) {
            *compression = one;
            return true;
        }
    }
    return false;
}

struct CompressionContext::Impl
{
    ~Impl()
    {
        ZSTD_freeCCtx(m_zstdCompress);
        ZSTD_freeDCtx(m_zstdDecompress);
    }

    u32 compressLz4(const void* data, u32 bytes, u8* out, u32 limit)
    {
        m_lz4State.resize(static_cast<size_t>(LZ4_sizeofState()) / sizeof(u64) + 1);
        const int n = LZ4_compress_fast_extState(
            m_lz4State.data(), static_cast<const char*>(data), reinterpret_cast<char*>(out),
            static_cast<int>(bytes), static_cast<int>(limit), 1);
        return n > 0 ? static_cast<u32>(n) : 0;
    }

    u32 compressZstd(const void* data, u32 bytes, u8* out, u32 limit)
    {
        if (m_zstdCompress == nullptr)
            m_zstdCompress = ZSTD_createCCtx();
        const size_t n = ZSTD_compressCCtx(m_zstdCompress, out, limit, data, bytes, ZSTD_LEVEL);
        return ZSTD_isError(n) ? 0 : static_cast<u32>(n);
    }

    bool decompressLz4(const u8* in, u32 bytes, u8* out, u32 wanted)
    {
        const int n = LZ4_decompress_safe_partial(
            reinterpret_cast<const char*>(in), reinterpret_cast<char*>(out),
            static_cast<int>(bytes), static_cast<int>(wanted), static_cast<int>(wanted));
        return n >= 0 && static_cast<u32>(n) == wanted;
    }

    bool decompressZstd(const u8* in, u32 bytes, u8* out, u32 wanted)
    {
        if (m_zstdDecompress == nullptr)
            m_zstdDecompress = ZSTD_createDCtx();
        ZSTD_DCtx_reset(m_zstdDecompress, ZSTD_reset_session_only);
        ZSTD_inBuffer source{in, bytes, 0};
        ZSTD_outBuffer target{out, wanted, 0};
        while (target.pos < target.size) {
            const size_t before = target.pos;
            const size_t left = ZSTD_decompressStream(m_zstdDecompress, &target, &source);
            if (ZSTD_isError(left))
                return false;
            // Either the frame is over or its bytes are: nothing more will come.
            if (left == 0 || (target.pos == before && source.pos == source.size))
                break;
        }
        return target.pos == wanted;
    }

    std::vector<u8> m_out;
    std::vector<u8> m_gather;
    std::vector<u64> m_lz4State;
    ZSTD_CCtx* m_zstdCompress = nullptr;
    ZSTD_DCtx* m_zstdDecompress = nullptr;
};

CompressionContext::CompressionContext() : m_impl(std::make_unique<Impl>()) {}
CompressionContext::~CompressionContext() = default;

u32 CompressionContext::compress(Compression compression, const void* data, u32 blocks,
                                 const u8** stored)
{
    if (compression == Compression::None || blocks < 2)
        return 0;
    // Only what saves a block is kept, so the compressor gets no more room than that.
    const u32 limit = (blocks - 1) * BLOCK_BYTES;
    if (m_impl->m_out.size() < limit)
        m_impl->m_out.resize(limit);
    u8* out = m_impl->m_out.data();
    const u32 n = compression == Compression::Lz4
                      ? m_impl->compressLz4(data, blocks * BLOCK_BYTES, out + HEADER_BYTES,
                                            limit - HEADER_BYTES)
                      : m_impl->compressZstd(data, blocks * BLOCK_BYTES, out + HEADER_BYTES,
                                             limit - HEADER_BYTES);
    if (n == 0)
        return 0;
    const CompressedIoHeader header{static_cast<u8>(compression), {0, 0, 0}, blocks};
    std::memcpy(out, &header, HEADER_BYTES);
    const u32 bytes = HEADER_BYTES + n;
    const u32 tail = bytes % BLOCK_BYTES;
    if (tail != 0)
        std::memset(out + bytes, 0, BLOCK_BYTES - tail);
    *stored = out;
    return bytes;
}

u32 CompressionContext::lengthBlocks(const void* stored, u32 storedBytes)
{
    if (storedBytes <= HEADER_BYTES)
        return 0;
    CompressedIoHeader header;
    std::memcpy(&header, stored, HEADER_BYTES);
    const bool known = header.m_compressor == static_cast<u8>(Compression::Lz4) ||
                       header.m_compressor == static_cast<u8>(Compression::Zstd);
    const bool zero = header.m_zero[0] == 0 && header.m_zero[1] == 0 && header.m_zero[2] == 0;
    return known && zero ? header.m_lengthBlocks : 0;
}

RcStatus CompressionContext::decompress(const void* stored, u32 storedBytes, u32 wantedBlocks,
                                        const u8** plain)
{
    if (wantedBlocks == 0 || wantedBlocks > lengthBlocks(stored, storedBytes))
        return RC_CORRUPTED_OBJECT;
    const u8* in = static_cast<const u8*>(stored);
    const u32 wanted = wantedBlocks * BLOCK_BYTES;
    if (m_impl->m_out.size() < wanted)
        m_impl->m_out.resize(wanted);
    u8* out = m_impl->m_out.data();
    const bool done =
        in[0] == static_cast<u8>(Compression::Lz4)
            ? m_impl->decompressLz4(in + HEADER_BYTES, storedBytes - HEADER_BYTES, out, wanted)
            : m_impl->decompressZstd(in + HEADER_BYTES, storedBytes - HEADER_BYTES, out, wanted);
    *plain = out;
    return done ? RC_SUCCESS : RC_CORRUPTED_OBJECT;
}

u8* CompressionContext::gatherBuffer(u32 bytes)
{
    if (m_impl->m_gather.size() < bytes)
        m_impl->m_gather.resize(bytes);
    return m_impl->m_gather.data();
}

PooledCompressionContext::PooledCompressionContext() : m_context(ContextStock::instance().take()) {}

PooledCompressionContext::~PooledCompressionContext()
{
    ContextStock::instance().giveBack(std::move(m_context));
}
