// Grains as files of a folder: "d-%010llu" and "m-%010llu".
//
// A data grain's file holds its blocks from offset 0, and from the offset that a full grain ends at
// a table of one crc32c a block; between the last block and the table the file is a hole. A
// metadata grain's file is its blocks.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "common/infra/Mutex.h"
#include "host/journal/ChecksumCache.h"
#include "host/journal/FilePieces.h"
#include "host/journal/GrainStore.h"
#include "host/journal/Storage.h"
#include "host/journal/UnwrittenChecksums.h"

class AsyncFileIo;

class FileGrainStore : public GrainStore
{
public:
    // storage, io: not owned; they outlive the store. A read-only store opens its files so.
    FileGrainStore(Storage& storage, std::string folder, bool readOnly, AsyncFileIo& io);
    ~FileGrainStore() override;

    RcStatus create(GrainKind kind, u64 grain) override;
    RcStatus reserve(GrainKind kind, u64 grain, u32 firstBlock, u32 blocks) override;
    RcStatus append(GrainKind kind, u64 grain, u32 firstBlock, const void* data, u32 blocks,
                    const u32* checksums) override;
    RcStatus complete(u64 grain) override;
    void startSync(u64 grain, u32 firstBlock, u32 blocks) override;
    RcStatus sync(GrainKind kind, u64 grain) override;
    RcStatus readMeta(u64 grain, u32 firstBlock, u32 blocks, void* data, u32* doneBlocks) override;
    FutureStatus readData(std::vector<GrainRead> reads, AioPriority priority) override;
    RcStatus readDataNow(std::span<const StoredPiece> pieces, u64* badAddress) override;
    RcStatus list(GrainKind kind, std::vector<u64>* grains) override;
    RcStatus metaBlocks(u64 grain, u32* blocks) override;
    RcStatus cutMeta(u64 grain, u32 firstBlock) override;
    RcStatus remove(GrainKind kind, u64 grain) override;
    RcStatus syncRemovals() override;

    static std::string fileName(GrainKind kind, u64 grain);

private:
    using FilePtr = std::shared_ptr<StorageFile>;
    using Key = std::pair<GrainKind, u64>;

    // An open file, and when it was used last.
    struct OpenFile
    {
        FilePtr m_file;
        u64 m_lastUse = 0;
    };

    RcStatus file(GrainKind kind, u64 grain, FilePtr* file) RL_EXCLUDES(m_mutex);
    RcStatus openGrain(GrainKind kind, u64 grain, StorageAccess access,
                       std::unique_ptr<StorageFile>* opened) RL_REQUIRES(m_mutex);
    void closeOldest() RL_REQUIRES(m_mutex);
    std::string path(GrainKind kind, u64 grain) const;
    RcStatus readOfGrainNow(u64 grain, std::span<const StoredPiece> pieces, u64* badAddress);
    RcStatus checkNow(StorageFile& source, u64 grain, const FilePiece& piece, u64* badAddress);
    RcStatus readChecksums(StorageFile& source, u64 grain, u32 firstBlock, u32 blocks,
                           u32* checksums);

    Storage& m_storage;
    std::string m_folder;
    bool m_readOnly;
    AsyncFileIo& m_io;
    ChecksumCache m_checksums; // what readDataNow() has read of the tables
    UnwrittenChecksums m_unwritten;

    const size_t m_maxOpenFiles;
    Mutex m_mutex;
    std::map<Key, OpenFile> m_files RL_GUARDED_BY(m_mutex);
    u64 m_uses RL_GUARDED_BY(m_mutex) = 0;
    u64 m_nameChanges RL_GUARDED_BY(m_mutex) = 0; // of the folder: grains created and removed

    Mutex m_namesMutex; // taken before m_mutex, by the one thread that syncs the folder
    u64 m_durableNameChanges RL_GUARDED_BY(m_namesMutex) = 0;
    // A failed sync is told once by the system, so that all later ones would seem to succeed.
    RcStatus m_namesFailed RL_GUARDED_BY(m_namesMutex) = RC_SUCCESS;
};
