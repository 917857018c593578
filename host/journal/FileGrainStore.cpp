#include "host/journal/FileGrainStore.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>

#include "host/journal/Crc32c.h"
#include "host/volume/AsyncFileIo.h"

namespace {

constexpr u64 TABLE_OFFSET_BYTES = u64{SFS_GRAIN_BLOCKS} * BLOCK_BYTES;
constexpr size_t MAX_OPEN_FILES = 128;
constexpr size_t KEPT_OPEN_FILES = 4;

// A quarter of what the process may have open is ours: the rest is its connections' and whatever
// else it does.
size_t maxOpenFiles()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return MAX_OPEN_FILES;
    return static_cast<size_t>(
        std::clamp<u64>(limit.rlim_cur / 4, KEPT_OPEN_FILES, MAX_OPEN_FILES));
}

// Most bytes of one call. A journal writes to pages that are new to the page cache, and the kernel
// takes them in runs up to the call's length. Long runs cost less than short ones; but the longer,
// the rarer they come from memory that was in use a moment ago, and other memory a virtual machine
// may first have to ask its host for.
constexpr u64 MOST_WRITE_BYTES = u64{256} << 10;

// What readDataNow() reads before it checks it: half of what a processor's own cache has, or so.
constexpr u32 STEP_BLOCKS = 512;
constexpr size_t STEP_PIECES = 64;
static_assert(STEP_BLOCKS <= ChecksumCache::CHUNK_BLOCKS); // so its checksums lie in two chunks

// Whether the blocks in a scattered buffer have these checksums.
bool checkBlocks(const ScatteredBuf& data, const u32* checksums)
{
    u32 crc = 0;
    u32 inBlock = 0; // bytes of the current block that crc covers
    for (u32 i = 0; i < data.getSegmentsCount(); ++i) {
        const u8* next = data.getSegment(i).getPtr();
        u32 left = data.getSegment(i).getSize();
        while (left > 0) {
            const u32 step = std::min(left, BLOCK_BYTES - inBlock);
            crc = crc32c(next, step, crc);
            next += step;
            left -= step;
            inBlock += step;
            if (inBlock == BLOCK_BYTES) {
                if (crc != *checksums++)
                    return false;
                crc = 0;
                inBlock = 0;
            }
        }
    }
    return true;
}

// One call of readData() in flight.
struct DataReads
{
    std::vector<GrainRead> m_reads;
    std::vector<std::vector<u32>> m_checksums; // of each read
    FutureStatus m_future;

    // ops: for each read its data, then its checksums.
    void finish(const std::vector<FileOp>& ops)
    {
        RcStatus rc = RC_SUCCESS;
        for (size_t i = 0; i < m_reads.size() && rc == RC_SUCCESS; ++i) {
            const FileOp& data = ops[2 * i];
            const FileOp& table = ops[2 * i + 1];
            if (data.m_rc != RC_SUCCESS || table.m_rc != RC_SUCCESS)
                rc = data.m_rc != RC_SUCCESS ? data.m_rc : table.m_rc;
            else if (data.m_doneBytes < data.m_data.getSize() ||
                     table.m_doneBytes < table.m_data.getSize())
                rc = RC_DAMAGED;
            else if (!checkBlocks(data.m_data, m_checksums[i].data()))
                rc = RC_BAD_CHECKSUM;
        }
        m_future.set(rc);
    }
};

} // namespace

FileGrainStore::FileGrainStore(Storage& storage, std::string folder, bool readOnly, AsyncFileIo& io)
    : m_storage(storage), m_folder(std::move(folder)), m_readOnly(readOnly), m_io(io),
      m_unwritten(TABLE_OFFSET_BYTES), m_maxOpenFiles(maxOpenFiles())
{}

FileGrainStore::~FileGrainStore() = default;

std::string FileGrainStore::fileName(GrainKind kind, u64 grain)
{
    char name[32];
    std::snprintf(name, sizeof(name), "%c-%010llu", kind == GrainKind::Data ? 'd' : 'm',
                  static_cast<unsigned long long>(grain));
    return name;
}

std::string FileGrainStore::path(GrainKind kind, u64 grain) const
{
    return m_folder + "/" + fileName(kind, grain);
}

void FileGrainStore::closeOldest()
{
    m_files.erase(
        std::min_element(m_files.begin(), m_files.end(), [](const auto& a, const auto& b) {
            return a.second.m_lastUse < b.second.m_lastUse;
        }));
}

// Those that are kept open for later must not be what the next one has no descriptor for. Only one
// is given up for it, and none of the last few, which are those that are written: where others take
// every descriptor there is, ours would be theirs as well.
RcStatus FileGrainStore::openGrain(GrainKind kind, u64 grain, StorageAccess access,
                                   std::unique_ptr<StorageFile>* opened)
{
    RcStatus rc = m_storage.open(path(kind, grain), access, opened);
    if (rc == RC_NO_MEMORY && m_files.size() > KEPT_OPEN_FILES) {
        closeOldest();
        rc = m_storage.open(path(kind, grain), access, opened);
    }
    return rc;
}

RcStatus FileGrainStore::file(GrainKind kind, u64 grain, FilePtr* out)
{
    MutexGuard guard(m_mutex);
    auto found = m_files.find({kind, grain});
    if (found == m_files.end()) {
        std::unique_ptr<StorageFile> opened;
        const RcStatus rc = openGrain(
            kind, grain, m_readOnly ? StorageAccess::ReadOnly : StorageAccess::ReadWrite, &opened);
        if (rc != RC_SUCCESS)
            return rc;
        found = m_files.emplace(Key{kind, grain}, OpenFile{std::move(opened), 0}).first;
    }
    found->second.m_lastUse = ++m_uses;
    *out = found->second.m_file;
    if (m_files.size() > m_maxOpenFiles)
        closeOldest();
    return RC_SUCCESS;
}

RcStatus FileGrainStore::create(GrainKind kind, u64 grain)
{
    if (kind == GrainKind::Data)
        m_unwritten.forget(grain);
    MutexGuard guard(m_mutex);
    std::unique_ptr<StorageFile> opened;
    RcStatus rc = openGrain(kind, grain, StorageAccess::Create, &opened);
    if (rc != RC_SUCCESS)
        return rc;
    ++m_nameChanges;
    rc = opened->truncate(0);
    if (rc == RC_SUCCESS)
        m_files[{kind, grain}] = {std::move(opened), ++m_uses};
    return rc;
}

RcStatus FileGrainStore::reserve(GrainKind kind, u64 grain, u32 firstBlock, u32 blocks)
{
    FilePtr target;
    RcStatus rc = file(kind, grain, &target);
    if (rc == RC_SUCCESS)
        rc = target->reserve(u64{firstBlock} * BLOCK_BYTES, u64{blocks} * BLOCK_BYTES);
    if (rc == RC_SUCCESS && kind == GrainKind::Data)
        rc = target->reserve(TABLE_OFFSET_BYTES + u64{firstBlock} * sizeof(u32),
                             u64{blocks} * sizeof(u32));
    return rc;
}

RcStatus FileGrainStore::append(GrainKind kind, u64 grain, u32 firstBlock, const void* data,
                                u32 blocks, const u32* checksums)
{
    FilePtr target;
    RcStatus rc = file(kind, grain, &target);
    if (kind == GrainKind::Data)
        m_checksums.forget(grain, firstBlock, blocks);
    const u8* next = static_cast<const u8*>(data);
    const u64 bytes = u64{blocks} * BLOCK_BYTES;
    for (u64 done = 0; done < bytes && rc == RC_SUCCESS; done += MOST_WRITE_BYTES)
        rc = target->pwrite(next + done, std::min(bytes - done, MOST_WRITE_BYTES),
                            u64{firstBlock} * BLOCK_BYTES + done);
    if (rc == RC_SUCCESS && kind == GrainKind::Data)
        rc = m_unwritten.add(grain, target, firstBlock, checksums, blocks);
    return rc;
}

RcStatus FileGrainStore::complete(u64 grain)
{
    return m_unwritten.write(grain, 0, SFS_GRAIN_BLOCKS);
}

void FileGrainStore::startSync(u64 grain, u32 firstBlock, u32 blocks)
{
    FilePtr target;
    if (file(GrainKind::Data, grain, &target) == RC_SUCCESS)
        target->startSync(u64{firstBlock} * BLOCK_BYTES, u64{blocks} * BLOCK_BYTES);
}

RcStatus FileGrainStore::sync(GrainKind kind, u64 grain)
{
    FilePtr target;
    RcStatus rc = file(kind, grain, &target);
    if (rc == RC_SUCCESS && kind == GrainKind::Data)
        rc = complete(grain);
    if (rc == RC_SUCCESS)
        rc = target->sync();
    return rc == RC_SUCCESS ? syncRemovals() : rc;
}

RcStatus FileGrainStore::syncRemovals()
{
    // Held during the call: who comes meanwhile needs the end of it, or one more.
    MutexGuard syncing(m_namesMutex);
    u64 changes = 0;
    {
        MutexGuard guard(m_mutex);
        changes = m_nameChanges; // a grain that is created from here on needs another call
    }
    if (m_namesFailed != RC_SUCCESS || m_durableNameChanges == changes)
        return m_namesFailed;
    const RcStatus rc = m_storage.syncDir(m_folder);
    if (rc == RC_SUCCESS)
        m_durableNameChanges = changes;
    else if (rc != RC_NO_MEMORY) // then it was not even opened
        m_namesFailed = RC_IO_ERROR;
    return m_namesFailed != RC_SUCCESS ? m_namesFailed : rc;
}

RcStatus FileGrainStore::readMeta(u64 grain, u32 firstBlock, u32 blocks, void* data,
                                  u32* doneBlocks)
{
    *doneBlocks = 0;
    FilePtr source;
    RcStatus rc = file(GrainKind::Meta, grain, &source);
    if (rc != RC_SUCCESS)
        return rc;
    u64 doneBytes = 0;
    rc = source->pread(data, u64{blocks} * BLOCK_BYTES, u64{firstBlock} * BLOCK_BYTES, &doneBytes);
    *doneBlocks = static_cast<u32>(doneBytes / BLOCK_BYTES);
    return rc;
}

FutureStatus FileGrainStore::readData(std::vector<GrainRead> reads, AioPriority)
{
    auto state = std::make_shared<DataReads>();
    state->m_reads = std::move(reads);
    FutureStatus future = state->m_future;
    std::vector<FileOp> ops;
    ops.reserve(2 * state->m_reads.size());
    state->m_checksums.reserve(state->m_reads.size());
    for (const GrainRead& read : state->m_reads) {
        FilePtr source;
        RcStatus rc = file(GrainKind::Data, read.m_grain, &source);
        if (rc == RC_SUCCESS)
            rc = m_unwritten.write(read.m_grain, read.m_firstBlock, read.m_blocks);
        if (rc != RC_SUCCESS) {
            future.set(rc == RC_NOT_FOUND ? RC_DAMAGED : rc);
            return future;
        }
        state->m_checksums.emplace_back(read.m_blocks);
        FileOp op;
        op.m_file = source;
        op.m_offsetBytes = u64{read.m_firstBlock} * BLOCK_BYTES;
        op.m_data = read.m_data;
        ops.push_back(op);
        op.m_offsetBytes = TABLE_OFFSET_BYTES + u64{read.m_firstBlock} * sizeof(u32);
        op.m_data = ScatteredBuf(reinterpret_cast<u8*>(state->m_checksums.back().data()),
                                 read.m_blocks * static_cast<u32>(sizeof(u32)));
        ops.push_back(std::move(op));
    }
    m_io.submit(std::move(ops), [state](std::vector<FileOp>& done) { state->finish(done); });
    return future;
}

// Reads the chunks that these blocks are part of, and keeps those that are there whole.
RcStatus FileGrainStore::readChecksums(StorageFile& source, u64 grain, u32 firstBlock, u32 blocks,
                                       u32* checksums)
{
    constexpr u32 CHUNK = ChecksumCache::CHUNK_BLOCKS;
    std::array<u32, 2 * CHUNK> table;
    const u32 begin = firstBlock - firstBlock % CHUNK;
    const u32 end = (firstBlock + blocks + CHUNK - 1) / CHUNK * CHUNK;
    u64 doneBytes = 0;
    RcStatus rc = m_unwritten.write(grain, begin, end - begin);
    if (rc == RC_SUCCESS)
        rc = source.pread(table.data(), u64{end - begin} * sizeof(u32),
                          TABLE_OFFSET_BYTES + u64{begin} * sizeof(u32), &doneBytes);
    if (rc != RC_SUCCESS)
        return rc;
    const u64 done = begin + doneBytes / sizeof(u32);
    if (done < firstBlock + blocks)
        return RC_DAMAGED;
    for (u32 chunk = begin; chunk + CHUNK <= done; chunk += CHUNK)
        m_checksums.keep(grain, chunk, &table[chunk - begin]);
    std::copy_n(&table[firstBlock - begin], blocks, checksums);
    return RC_SUCCESS;
}

// Checks a piece that was read.
RcStatus FileGrainStore::checkNow(StorageFile& source, u64 grain, const FilePiece& piece,
                                  u64* badAddress)
{
    const u32 firstBlock = static_cast<u32>(piece.m_offsetBytes / BLOCK_BYTES);
    const u32 blocks = static_cast<u32>(piece.m_bytes / BLOCK_BYTES);
    std::array<u32, STEP_BLOCKS> checksums;
    bool kept = m_checksums.find(grain, firstBlock, blocks, checksums.data());
    if (!kept) {
        const RcStatus rc = readChecksums(source, grain, firstBlock, blocks, checksums.data());
        if (rc != RC_SUCCESS)
            return rc;
    }
    if (piece.m_doneBytes < piece.m_bytes)
        return RC_DAMAGED;
    const u8* block = piece.m_data;
    for (u32 i = 0; i < blocks; ++i, block += BLOCK_BYTES) {
        const u32 checksum = crc32c(block, BLOCK_BYTES);
        if (checksum != checksums[i] && kept) {
            // The blocks may have been written anew since the checksums were read.
            kept = false;
            const RcStatus rc = readChecksums(source, grain, firstBlock, blocks, checksums.data());
            if (rc != RC_SUCCESS)
                return rc;
        }
        if (checksum == checksums[i])
            continue;
        *badAddress += i;
        return RC_BAD_CHECKSUM;
    }
    return RC_SUCCESS;
}

RcStatus FileGrainStore::readOfGrainNow(u64 grain, std::span<const StoredPiece> pieces,
                                        u64* badAddress)
{
    *badAddress = pieces[0].m_address;
    FilePtr source;
    RcStatus rc = file(GrainKind::Data, grain, &source);
    if (rc != RC_SUCCESS)
        return rc == RC_NOT_FOUND ? RC_DAMAGED : rc;
    u32 takenBlocks = 0; // of the first piece
    while (!pieces.empty()) {
        std::array<FilePiece, STEP_PIECES> step;
        size_t count = 0;
        u32 leftBlocks = STEP_BLOCKS;
        while (!pieces.empty() && count < step.size() && leftBlocks > 0) {
            const StoredPiece& piece = pieces[0];
            const u32 blocks = std::min(piece.m_blocks - takenBlocks, leftBlocks);
            const u64 firstBlock = piece.m_address % SFS_GRAIN_BLOCKS + takenBlocks;
            step[count++] = {firstBlock * BLOCK_BYTES, u64{blocks} * BLOCK_BYTES,
                             piece.m_data + u64{takenBlocks} * BLOCK_BYTES, RC_SUCCESS, 0};
            leftBlocks -= blocks;
            takenBlocks += blocks;
            if (takenBlocks == piece.m_blocks) {
                takenBlocks = 0;
                pieces = pieces.subspan(1);
            }
        }
        static_cast<void>(readPieces(*source, {step.data(), count}));
        for (size_t i = 0; i < count; ++i) {
            *badAddress = grain * SFS_GRAIN_BLOCKS + step[i].m_offsetBytes / BLOCK_BYTES;
            rc = step[i].m_rc == RC_SUCCESS ? checkNow(*source, grain, step[i], badAddress)
                                            : step[i].m_rc;
            if (rc != RC_SUCCESS)
                return rc;
        }
    }
    return RC_SUCCESS;
}

RcStatus FileGrainStore::readDataNow(std::span<const StoredPiece> pieces, u64* badAddress)
{
    while (!pieces.empty()) {
        const u64 grain = SFS_GRAIN_OF(pieces[0].m_address);
        size_t count = 1;
        while (count < pieces.size() && SFS_GRAIN_OF(pieces[count].m_address) == grain)
            ++count;
        const RcStatus rc = readOfGrainNow(grain, pieces.first(count), badAddress);
        if (rc != RC_SUCCESS)
            return rc;
        pieces = pieces.subspan(count);
    }
    return RC_SUCCESS;
}

RcStatus FileGrainStore::list(GrainKind kind, std::vector<u64>* grains)
{
    grains->clear();
    std::vector<std::string> names;
    const RcStatus rc = m_storage.list(m_folder, &names);
    if (rc != RC_SUCCESS)
        return rc;
    for (const std::string& name : names) {
        const u64 grain = name.size() > 2 ? std::strtoull(name.c_str() + 2, nullptr, 10) : 0;
        // Whatever is not exactly a name of ours belongs to somebody else.
        if (grain != 0 && name == fileName(kind, grain))
            grains->push_back(grain);
    }
    std::sort(grains->begin(), grains->end());
    return RC_SUCCESS;
}

RcStatus FileGrainStore::metaBlocks(u64 grain, u32* blocks)
{
    FilePtr source;
    RcStatus rc = file(GrainKind::Meta, grain, &source);
    if (rc != RC_SUCCESS)
        return rc;
    u64 bytes = 0;
    rc = source->size(&bytes);
    *blocks =
        static_cast<u32>(std::min<u64>((bytes + BLOCK_BYTES - 1) / BLOCK_BYTES, SFS_GRAIN_BLOCKS));
    return rc;
}

RcStatus FileGrainStore::cutMeta(u64 grain, u32 firstBlock)
{
    FilePtr target;
    RcStatus rc = file(GrainKind::Meta, grain, &target);
    if (rc == RC_SUCCESS)
        rc = target->truncate(u64{firstBlock} * BLOCK_BYTES);
    if (rc == RC_SUCCESS)
        rc = target->sync();
    return rc;
}

RcStatus FileGrainStore::remove(GrainKind kind, u64 grain)
{
    if (kind == GrainKind::Data)
        m_unwritten.forget(grain);
    MutexGuard guard(m_mutex);
    m_files.erase({kind, grain});
    ++m_nameChanges;
    return m_storage.remove(path(kind, grain));
}
