// The N-th write, sync, creation or read fails, for every N; beside a sanitizer for the first ones
// and every third of the others.
#include <gtest/gtest.h>

#include "common/infra/LogItem.h"
#include "host/journal/JournalStore.h"
#include "host/journal/JournalVerifier.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"
#include "tests/support/Sanitized.h"

namespace {

using Call = CrashStorage::Call;

// The call that fails after the n-th; `shift`, another one for each kind of failure, has them try
// different thirds.
u64 nextCall(u64 n, u64 shift = 0)
{
    return IS_WATCHED && n >= 6 + shift % 3 ? n + 3 : n + 1;
}

class JournalFaultTest : public testing::Test
{
protected:
    JournalFaultTest()
        : m_sink(LogItem::setSink(
              [](LogModule, LogLevel, const std::string&, int, const std::string&) {}))
    {}
    ~JournalFaultTest() override { LogItem::setSink(m_sink); }

    // Appends, flushes and sets checkpoints, whatever fails; `accepted` are the requests that were
    // taken, `durable` of them were promised.
    void play(JournalStore& store, std::vector<JournalRequest>* accepted, size_t* durable,
              RcStatus* firstFailure)
    {
        const auto note = [&](RcStatus rc) {
            if (rc != RC_SUCCESS && *firstFailure == RC_SUCCESS)
                *firstFailure = rc;
            return rc == RC_SUCCESS;
        };
        for (u64 i = 0; i < 6; ++i) {
            const u32 blocks = i == 3 ? 40000 : 2;
            const std::vector<u8> data = patternBlocks(i, blocks);
            if (note(store.append(i, data.data(), blocks)))
                accepted->push_back({i, blocks, data});
            if (note(i == 4 ? store.appendCheckpoint("tag", nullptr) : store.flush()))
                *durable = accepted->size();
        }
    }

private:
    LogItem::Sink m_sink;
};

// Nothing is lost by these: there may be room, or a descriptor, a moment later. Of syncs it is the
// opening that finds none; what a sync itself fails to write is gone.
TEST_F(JournalFaultTest, PassingWantAtEveryCallChangesNothingAndGoesOnAfterwards)
{
    struct Want
    {
        Call m_call;
        RcStatus m_rc;
        bool m_stays; // until the play is over
    };
    u64 shift = 0;
    for (const Want& want :
         {Want{Call::Write, RC_NO_SPACE, false}, Want{Call::Create, RC_NO_SPACE, false},
          Want{Call::Write, RC_NO_SPACE, true}, Want{Call::Create, RC_NO_SPACE, true},
          Want{Call::Reserve, RC_NO_SPACE, false}, Want{Call::Reserve, RC_NO_SPACE, true},
          Want{Call::Open, RC_NO_MEMORY, false}, Want{Call::Open, RC_NO_MEMORY, true},
          Want{Call::Sync, RC_NO_MEMORY, false}, Want{Call::Sync, RC_NO_MEMORY, true}}) {
        bool failed = true;
        for (u64 n = 1; failed; n = nextCall(n, shift)) {
            SCOPED_TRACE(testing::Message() << rcStatusText(want.m_rc) << " at call " << n);
            CrashStorage storage;
            std::vector<JournalRequest> accepted;
            size_t durable = 0;
            RcStatus first = RC_SUCCESS;
            {
                auto store = openJournal(storage, JournalMode::Writer);
                storage.failCall(want.m_call, n, want.m_rc, want.m_stays);
                play(*store, &accepted, &durable, &first);
                failed = first != RC_SUCCESS;
                if (failed) {
                    EXPECT_EQ(first, want.m_rc);
                    EXPECT_EQ(store->itemCount(), accepted.size());
                }
                // There is room again: what was accepted becomes durable after all.
                storage.noFaults();
                ASSERT_EQ(store->flush(), RC_SUCCESS);
                EXPECT_EQ(readBack(*store), accepted);
                const std::vector<u8> more = patternBlocks(99, 3);
                ASSERT_EQ(store->append(7, more.data(), 3), RC_SUCCESS);
                accepted.push_back({7, 3, more});
            }
            const auto store = openJournal(storage, JournalMode::Writer);
            EXPECT_EQ(store->report().m_text, "");
            EXPECT_EQ(readBack(*store), accepted);
            EXPECT_TRUE(verifyJournal(*store).ok());
            ASSERT_FALSE(HasFailure());
        }
        ++shift;
    }
}

TEST_F(JournalFaultTest, DiskThatStaysFullKeepsWhatWasAcknowledged)
{
    bool failed = true;
    for (u64 n = 1; failed; n = nextCall(n)) {
        SCOPED_TRACE(testing::Message() << "write " << n);
        CrashStorage storage;
        std::vector<JournalRequest> accepted;
        size_t durable = 0;
        RcStatus first = RC_SUCCESS;
        {
            auto store = openJournal(storage, JournalMode::Writer);
            storage.failCall(Call::Write, n, RC_NO_SPACE, true);
            play(*store, &accepted, &durable, &first);
            failed = first != RC_SUCCESS;
        }
        const auto image = storage.crash([](size_t) { return CrashStorage::Fate(); });
        const auto store = openJournal(*image, JournalMode::ReadOnly);
        const std::vector<JournalRequest> found = readBack(*store);
        ASSERT_GE(found.size(), durable);
        ASSERT_LE(found.size(), accepted.size());
        EXPECT_TRUE(std::equal(found.begin(), found.end(), accepted.begin()));
    }
}

TEST_F(JournalFaultTest, ErrorAtEveryCallRefusesAllUntilOpenedAnew)
{
    u64 shift = 0;
    for (const Call call : {Call::Write, Call::Sync, Call::Create}) {
        bool failed = true;
        for (u64 n = 1; failed; n = nextCall(n, shift)) {
            SCOPED_TRACE(testing::Message() << "call " << n);
            CrashStorage storage;
            std::vector<JournalRequest> accepted;
            size_t durable = 0;
            RcStatus first = RC_SUCCESS;
            {
                auto store = openJournal(storage, JournalMode::Writer);
                storage.failCall(call, n, RC_IO_ERROR);
                play(*store, &accepted, &durable, &first);
                failed = first != RC_SUCCESS;
                if (failed) {
                    EXPECT_EQ(first, RC_IO_ERROR);
                    const std::vector<u8> data(BLOCK_BYTES);
                    EXPECT_EQ(store->append(0, data.data(), 1), RC_IO_ERROR);
                    EXPECT_EQ(store->appendZeroes(0, 1), RC_IO_ERROR);
                    EXPECT_EQ(store->flush(), RC_IO_ERROR);
                    EXPECT_EQ(store->appendCheckpoint("", nullptr), RC_IO_ERROR);
                    EXPECT_EQ(store->close(), RC_IO_ERROR);
                }
            }
            storage.noFaults();
            const auto store = openJournal(storage, JournalMode::Writer);
            const std::vector<JournalRequest> found = readBack(*store);
            ASSERT_GE(found.size(), durable);
            ASSERT_LE(found.size(), accepted.size());
            EXPECT_TRUE(std::equal(found.begin(), found.end(), accepted.begin()));
            const std::vector<u8> data(BLOCK_BYTES);
            EXPECT_EQ(store->append(0, data.data(), 1), RC_SUCCESS);
            EXPECT_EQ(store->flush(), RC_SUCCESS);
        }
        ++shift;
    }
}

TEST_F(JournalFaultTest, EveryFailedReadIsToldAndNothingIsServed)
{
    CrashStorage storage;
    std::vector<JournalRequest> accepted;
    {
        size_t durable = 0;
        RcStatus first = RC_SUCCESS;
        auto store = openJournal(storage, JournalMode::Writer);
        play(*store, &accepted, &durable, &first);
        ASSERT_EQ(first, RC_SUCCESS);
    }
    bool failed = true;
    for (u64 n = 1; failed; ++n) {
        SCOPED_TRACE(testing::Message() << "read " << n);
        storage.failCall(Call::Read, n, RC_IO_ERROR);
        const JournalStore::Opened opened = JournalStore::open(storage, {});
        failed = !opened.m_store;
        if (failed) {
            EXPECT_EQ(opened.m_rc, RC_IO_ERROR);
            EXPECT_NE(opened.m_message, "");
            continue;
        }
        std::string failure;
        const std::vector<JournalRequest> found = readBack(*opened.m_store, &failure);
        failed = !failure.empty();
        if (!failed) {
            EXPECT_EQ(found, accepted);
        }
    }
}

} // namespace
