// Compression of single IOs.
//
// A compressed IO is stored as an 8-byte header (which compressor, how many blocks it comes out
// as), then the compressor's output, then zeroes to the end of the block.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common/infra/RcStatus.h"
#include "common/infra/Types.h"

enum class Compression : u8
{
    None = 0,
    Lz4 = 1,
    Zstd = 2,
};

const char* compressionName(Compression compression);
bool compressionFromName(const std::string& name, Compression* compression);

struct CompressedIoHeader
{
    u8 m_compressor; // Compression
    u8 m_zero[3];
    u32 m_lengthBlocks; // uncompressed
};
static_assert(sizeof(CompressedIoHeader) == 8);

// Contexts and scratch memory of the compressors, kept between uses.
// Thread safety: one thread at a time; take one from the pool below for each use.
class CompressionContext
{
public:
    CompressionContext();
    ~CompressionContext();
    CompressionContext(const CompressionContext&) = delete;
    CompressionContext& operator=(const CompressionContext&) = delete;

    // Compresses `blocks` blocks. When that saves at least one block, returns the stored length in
    // bytes, header included, and sets *stored to that many bytes, padded with zeroes to whole
    // blocks, which live until the next use; else returns 0.
    u32 compress(Compression compression, const void* data, u32 blocks, const u8** stored);

    // Decompresses the blocks [0, wantedBlocks) of a stored IO; *plain lives until the next use.
    // RC_CORRUPTED_OBJECT: these bytes are no compressed IO, or one that is shorter.
    RcStatus decompress(const void* stored, u32 storedBytes, u32 wantedBlocks, const u8** plain);

    // Uncompressed blocks by the header; 0 when that is no header.
    static u32 lengthBlocks(const void* stored, u32 storedBytes);

    // Memory to gather a scattered stored IO in; lives until the next call.
    u8* gatherBuffer(u32 bytes);

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// A context from the process-wide stock for the length of a scope. Thread safety: any thread.
class PooledCompressionContext
{
public:
    PooledCompressionContext();
    ~PooledCompressionContext();
    PooledCompressionContext(const PooledCompressionContext&) = delete;
    PooledCompressionContext& operator=(const PooledCompressionContext&) = delete;

    CompressionContext* get() { return m_context.get(); }
    CompressionContext* operator->() { return m_context.get(); }

private:
    std::unique_ptr<CompressionContext> m_context;
};
