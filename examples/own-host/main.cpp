// The region locator in a process that brings a host of its own: nothing is linked here but the
// component, the files beside this one, the standard library and threads.
//
// It indexes three journaled writes, reads a range of the view while a second reader waits for it,
// and checks every step; it exits with 1 on the first thing that is not as it should be.
#include <cstdlib>
#include <iostream>
#include <vector>

#include "RegionLocator/RegionLocator.h"
#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "RegionLocator/RlIoReader.h"
#include "Storage.h"
#include "Tasks.h"
#include "common/infra/Semaphore.h"

namespace {

using Pieces = std::vector<SubRegionDescriptor>;

void expect(bool condition, const char* what)
{
    std::cout << (condition ? "ok      " : "WRONG   ") << what << "\n";
    if (!condition)
        std::exit(1);
}

// A voucher for one operation on up to 16 regions, filled at once.
class Voucher
{
public:
    Voucher(RegionLocatorMemPool* pool, RegionLocatorMemPool::ActionType action)
        : m_pool(pool), m_voucher(pool->createVoucher())
    {
        const int count = RegionLocatorMemPool::getVoucherRequirement(action, 16);
        expect(pool->fillVoucher(m_voucher, count, 0, this).get() == RC_SUCCESS, "voucher filled");
    }
    ~Voucher() { m_pool->destroyVoucher(m_voucher); }
    Voucher(const Voucher&) = delete;
    Voucher& operator=(const Voucher&) = delete;

    RegionLocatorVoucher* get() { return m_voucher; }

private:
    RegionLocatorMemPool* m_pool;
    RegionLocatorVoucher* m_voucher;
};

// A task that a plain thread can wait for.
class WaitableTask : public AsyncTask
{
public:
    RcStatus wait()
    {
        m_done.wait();
        return m_outcome;
    }

protected:
    void finished(RcStatus rc) override
    {
        m_outcome = rc;
        m_done.post();
    }

private:
    RcStatus m_outcome = RC_WAIT;
    Semaphore m_done{0};
};

// Locks what covers a range; sleeps while another reader holds any of it.
class LockTask : public WaitableTask
{
public:
    LockTask(RegionLocator& locator, u64 offsetBlocks, u32 lengthBlocks)
        : m_locator(locator), m_offsetBlocks(offsetBlocks), m_lengthBlocks(lengthBlocks),
          m_voucher(locator.getMemPool(), RegionLocatorMemPool::LOOKUP_LOCKED)
    {}

    void waitUntilAsked() { m_asked.wait(); }

    RcStatus m_firstAnswer = RC_SUCCESS;
    Pieces m_pieces;

protected:
    RcStatus run() override
    {
        const RcStatus rc = m_locator.lookup(this, m_offsetBlocks, m_lengthBlocks, &m_pieces, true,
                                             m_voucher.get());
        m_firstAnswer = rc;
        m_asked.post();
        return rc;
    }

private:
    RegionLocator& m_locator;
    u64 m_offsetBlocks;
    u32 m_lengthBlocks;
    Voucher m_voucher;
    Semaphore m_asked{0};
};

// Reads the range's bytes, from the journal where pieces cover it and from the target elsewhere.
class ReadTask : public WaitableTask
{
public:
    ReadTask(RlIoReader& reader, u64 offsetBlocks, u32 lengthBlocks, Pieces& pieces)
        : m_reader(reader), m_bytes(u64{lengthBlocks} * BLOCK_BYTES)
    {
        ScatteredBuf buf(m_bytes.data(), static_cast<u32>(m_bytes.size()));
        m_requests.emplace_back(offsetBlocks, lengthBlocks, pieces, buf);
    }

    // The byte that fills the n-th block of the range, or -1 when its bytes differ.
    int blockValue(u32 n) const
    {
        const u8* block = &m_bytes[u64{n} * BLOCK_BYTES];
        for (u32 i = 1; i < BLOCK_BYTES; ++i)
            if (block[i] != block[0])
                return -1;
        return block[0];
    }

protected:
    RcStatus run() override
    {
        return m_reader.performReadFromSegments(this, m_requests, 1, AioPriority::Normal, nullptr,
                                                ~u64{0}, nullptr, nullptr, nullptr);
    }

private:
    RlIoReader& m_reader;
    std::vector<u8> m_bytes;
    std::vector<RlIoReader::IoReadRequests> m_requests;
};

SfsDiskMetaItem write(u64 offsetBlocks, u32 lengthBlocks, u64 journalAddress, SfsMetaType type)
{
    SfsDiskMetaItem item;
    item.m_ioData = {journalAddress, offsetBlocks};
    item.setUncompressedLengthBlocks(lengthBlocks);
    item.setType(type);
    return item;
}

bool isPiece(const SubRegionDescriptor& piece, u64 offsetBlocks, u32 lengthBlocks, u64 address)
{
    return piece.m_viewOffsetBlocks == offsetBlocks && piece.m_lengthBlocks == lengthBlocks &&
           piece.m_fifoOffsetOfIoStartBlocks == address;
}

// 16 blocks are written, then 4 in their middle, then 2 become zeroes.
void feed(RegionLocator& locator)
{
    RegionLocatorMetaDataContainer_Insert* feeder = locator.getInsertContainer();
    expect(feeder->prepareToAdd(3, 0).get() == RC_SUCCESS, "batch prepared");
    const SfsDiskMetaItem items[] = {write(100, 16, 0, SfsMetaType::UNCOMPRESSED_IO),
                                     write(104, 4, 32, SfsMetaType::UNCOMPRESSED_IO),
                                     write(112, 2, 0, SfsMetaType::ZEROS)};
    for (const SfsDiskMetaItem& item : items)
        expect(feeder->addMetaData(item, JournalPtr::invalid) == RC_SUCCESS, "item taken");
    feeder->unPrepareToAdd();
    expect(locator.getItemCount() == 5, "the first write was cut into three pieces");
    expect(locator.getTotalRegionBlocks() == 16, "every block is covered once");
}

void checkPieces(const Pieces& pieces)
{
    std::cout << pieces;
    expect(pieces.size() == 5 && isPiece(pieces[0], 102, 2, 2) && isPiece(pieces[1], 104, 4, 32) &&
               isPiece(pieces[2], 108, 4, 8) && isPiece(pieces[3], 112, 2, SFS_DEV_ADDR_INVALID) &&
               isPiece(pieces[4], 114, 2, 14),
           "the pieces of the range");
}

// Journal block j holds the byte 10 + j, target block t the byte t, modulo 256.
void checkBytes(const ReadTask& read)
{
    for (u32 n = 0; n < 16; ++n) {
        const u32 block = 102 + n;
        u32 expected = block - 100 + 10;
        if (block >= 104 && block < 108)
            expected = block - 104 + 32 + 10;
        else if (block >= 112 && block < 114)
            expected = 0;
        else if (block >= 116)
            expected = block;
        expect(read.blockValue(n) == static_cast<int>(expected), "block read");
    }
}

void demonstrate(RegionLocator& locator, RlIoReader& reader, TaskRunner& runner)
{
    feed(locator);

    LockTask first(locator, 102, 16);
    runner.start(&first);
    expect(first.wait() == RC_SUCCESS, "the first reader has its range");
    checkPieces(first.m_pieces);

    Voucher insertVoucher(locator.getMemPool(), RegionLocatorMemPool::INSERT);
    const SubRegionDescriptor late(SfsItemDescriptor::genUncompressed(110, 1, 64, 0, false));
    expect(!locator.insert(late, insertVoucher.get()), "nobody overrides what a reader holds");

    LockTask second(locator, 114, 1);
    runner.start(&second);
    second.waitUntilAsked();
    expect(second.m_firstAnswer == RC_WAIT, "the second reader waits");

    ReadTask read(reader, 102, 16, first.m_pieces);
    runner.start(&read);
    expect(read.wait() == RC_SUCCESS, "the range is read");
    checkBytes(read);

    Voucher unlockVoucher(locator.getMemPool(), RegionLocatorMemPool::LOOKUP_LOCKED);
    locator.unlockAndRestore(first.m_pieces, unlockVoucher.get());
    expect(second.wait() == RC_SUCCESS, "and goes on when the first one is done");
    expect(second.m_pieces.size() == 1 && isPiece(second.m_pieces[0], 114, 1, 14),
           "with its piece");
    locator.unlockAndRemove(second.m_pieces, unlockVoucher.get());

    expect(locator.getTotalRegionBlocks() == 15, "what it consumed is gone");
    expect(locator.insert(late, insertVoucher.get()), "now the late write gets in");
    const RegionLocatorStatistics statistics = locator.getStatistics();
    std::cout << "inserted " << statistics.m_numIOsInserted << " IOs, "
              << statistics.m_bytesInserted << " bytes, of which "
              << statistics.m_uniqueBytesIosCover << " are live in "
              << statistics.m_numRegionsCreated << " regions\n";
    expect(statistics.m_numIOsInserted == 4 && statistics.m_bytesInserted == 23 * BLOCK_BYTES &&
               statistics.m_uniqueBytesIosCover == 15 * BLOCK_BYTES,
           "the statistics");
}

} // namespace

int main()
{
    const MemoryDevice journalBlocks(128, 10);
    const MemoryDevice targetBlocks(128, 0);
    MemoryJournal journal(journalBlocks);
    MemoryVolume volume(targetBlocks);
    TaskRunner runner;
    RlIoReader reader(&journal, &volume, "example", 1);
    RegionLocator locator(1, RL_MMI_View);
    demonstrate(locator, reader, runner);
    return 0;
}
