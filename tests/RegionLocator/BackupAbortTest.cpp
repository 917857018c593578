// A backup's feeder, aborted in every state and at every step.
#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

#include "tests/RegionLocator/BackupFeederFixture.h"
#include "tests/support/LimitedMemory.h"
#include "tests/support/Tokens.h"
#include "tests/support/VoucherGuard.h"

namespace {

constexpr u32 CHUNK = 64 * 1024;

using BackupAbortTest = BackupFeederTest;

TEST_F(BackupAbortTest, AbortedInEachStateTheNextItemIsRefused)
{
    // Inserting, reporting, report failed, stopped.
    for (int state = 0; state < 4; ++state) {
        m_manager = FakeManager();
        m_manager.m_failReport = state == 2 ? 1 : 0;
        make(&m_manager);
        if (state > 0)
            reachView();
        if (state == 2) {
            EXPECT_EQ(add(write(0)), RC_SUCCESS);
        }
        if (state == 3) {
            EXPECT_EQ(add(checkpoint(NEWEST)), RC_STOP_EXCLUDE_CURRENT);
        }
        {
            const LogCapture log;
            m_feeder->abort();
            EXPECT_TRUE(isRecord(log.only(), LogModuleXel, InfoLevel, 3,
                                 "virtual void RegionLocatorMetaDataContainer::abort()",
                                 "aborting"));
        }
        expectStopped();
        EXPECT_EQ(m_feeder->reachedBackupViewCheckpoint(), state > 0);
        EXPECT_EQ(m_feeder->ioReportFailureRc(), state == 2 ? RC_NO_MEMORY : RC_SUCCESS);
        // Reserving fails only where anything is reserved.
        EXPECT_EQ(m_feeder->prepareToAdd(5, NONE).get(), state == 0 ? RC_ABORTED : RC_SUCCESS);
        m_feeder->unPrepareToAdd();
        EXPECT_EQ(tokensOut(*m_locator), 0U);
        m_feeder->abort();
        expectStopped();
    }
}

TEST_F(BackupAbortTest, AbortEndsAFillThatWaits)
{
    m_locator.reset();
    const LimitedMemory memory(CHUNK, CHUNK);
    RegionLocatorMemPool holder(6, RL_MMI_MD5);
    const VoucherGuard held(&holder, 1);
    m_locator = std::make_unique<RegionLocator>(7, RL_MMI_View);
    make(&m_manager);
    const FutureStatus future = m_feeder->prepareToAdd(3, NONE);
    EXPECT_FALSE(future.isSet());
    std::thread([&] { m_feeder->abort(); }).join();
    EXPECT_TRUE(future.isSet());
    EXPECT_EQ(future.get(), RC_ABORTED);
    m_feeder->unPrepareToAdd();
    EXPECT_EQ(tokensOut(*m_locator), 0U);
    expectStopped();
    m_feeder.reset();
    m_locator.reset();
}

// A backup as a scanner runs it: two scans, the second from the item that ended the first. Each
// step is a call; `before` is told its number.
struct Backup
{
    std::function<void(u64)> m_before;
    u64 m_steps = 0;
    std::vector<RcStatus> m_answers;
    RcStatus m_prepared = RC_SUCCESS; // the first failure

    void run(BackupInsertAndReportContainer& feeder)
    {
        const std::vector<SfsDiskMetaItem> items = {write(0),
                                                    io(SfsMetaType::ZEROS, 2, 4),
                                                    checkpoint(VIEW - 1),
                                                    write(20),
                                                    checkpoint(VIEW, 1010),
                                                    write(30),
                                                    checkpoint(VIEW + 1),
                                                    io(SfsMetaType::ZEROS, 40, 9),
                                                    write(50),
                                                    checkpoint(NEWEST),
                                                    write(60)};
        size_t next = 0;
        for (int scan = 0; scan < 2; ++scan) {
            const auto step = [&] { m_before(++m_steps); };
            step();
            const RcStatus rc = feeder.prepareToAdd(static_cast<int>(items.size()), NONE).get();
            m_prepared = m_prepared == RC_SUCCESS ? rc : m_prepared;
            step();
            feeder.metaGrainStarted(1 << 15);
            // A scanner would not go on without memory; the items of an aborted scan need none.
            for (bool more = rc == RC_SUCCESS || rc == RC_ABORTED; more && next < items.size();) {
                step();
                m_answers.push_back(feeder.addMetaData(items[next], PLACE));
                more = m_answers.back() == RC_SUCCESS;
                next += more ? 1 : 0;
            }
            step();
            feeder.unPrepareToAdd();
            step();
            feeder.done();
        }
        m_before(++m_steps);
    }
};

TEST_F(BackupAbortTest, ABackupInsertsUpToTheViewAndReportsUpToTheNewest)
{
    make(&m_manager);
    Backup backup;
    backup.m_before = [](u64) {};
    backup.run(*m_feeder);
    EXPECT_EQ(contents(),
              (Regions{plainRegion(0, 2, 40000), zeroesRegion(2, 4), plainRegion(20, 4, 40020)}));
    EXPECT_EQ(m_manager.m_calls,
              (Calls{"timestamp 1010", reportCall(30, 4), reportCall(40, 9), reportCall(50, 4)}));
    EXPECT_EQ(tokensOut(*m_locator), 3U);
    // Asked once at the view, and once with each item after it.
    EXPECT_EQ(m_manager.m_asked, 7U);
}

TEST_F(BackupAbortTest, AbortedFromAnotherThreadBeforeEveryStep)
{
    u64 steps = 0;
    for (u64 at = 1; at <= steps || steps == 0; ++at) {
        m_feeder.reset(); // it gives its voucher back to the locator
        m_locator = std::make_unique<RegionLocator>(7, RL_MMI_View);
        m_manager = FakeManager();
        make(&m_manager);
        Regions contentsAtAbort;
        Calls callsAtAbort;
        size_t answersAtAbort = 0;
        bool reachedAtAbort = false;
        Backup backup;
        backup.m_before = [&](u64 step) {
            if (step != at)
                return;
            std::thread([&] { m_feeder->abort(); }).join();
            contentsAtAbort = contents();
            callsAtAbort = m_manager.m_calls;
            answersAtAbort = backup.m_answers.size();
            reachedAtAbort = m_feeder->reachedBackupViewCheckpoint();
        };
        const LogCapture log;
        backup.run(*m_feeder);
        steps = std::max(steps, backup.m_steps);
        // Nothing was taken after it, and every later item was refused with its line.
        EXPECT_EQ(contents(), contentsAtAbort) << at;
        EXPECT_EQ(m_manager.m_calls, callsAtAbort) << at;
        EXPECT_EQ(m_feeder->reachedBackupViewCheckpoint(), reachedAtAbort);
        for (size_t i = answersAtAbort; i < backup.m_answers.size(); ++i)
            EXPECT_EQ(backup.m_answers[i], RC_STOP_EXCLUDE_CURRENT) << at;
        EXPECT_EQ(log.beginningWith("Ltr<42> stopped - ").size(),
                  backup.m_answers.size() - answersAtAbort);
        EXPECT_EQ(backup.m_prepared == RC_ABORTED, !reachedAtAbort) << at;
        EXPECT_EQ(tokensOut(*m_locator), contents().size()) << at;
        EXPECT_TRUE(log.softChecks().empty());
        expectStopped();
    }
    EXPECT_GT(steps, 15U);
}

TEST_F(BackupAbortTest, AbortedFromAnotherThreadWithinEveryCallOfTheManager)
{
    // Seven questions whether it is enabled, the timestamp, three reports; one more for none.
    constexpr u64 CALLS = 11;
    for (u64 at = 1; at <= CALLS + 1; ++at) {
        m_feeder.reset(); // it gives its voucher back to the locator
        m_locator = std::make_unique<RegionLocator>(7, RL_MMI_View);
        m_manager = FakeManager();
        make(&m_manager);
        u64 seen = 0;
        size_t answersAtAbort = ~size_t{0} - 1;
        u64 reportsAtAbort = 3;
        Backup backup;
        backup.m_before = [](u64) {};
        m_manager.m_onCall = [&](u64 number) {
            seen = number;
            if (number != at)
                return;
            std::thread([&] { m_feeder->abort(); }).join();
            answersAtAbort = backup.m_answers.size();
            reportsAtAbort = m_manager.m_reports;
        };
        const LogCapture quiet;
        backup.run(*m_feeder);
        EXPECT_EQ(seen >= at, at <= CALLS);
        // The item in hand may still be taken; its successor is refused.
        EXPECT_TRUE(m_feeder->reachedBackupViewCheckpoint());
        EXPECT_EQ(m_manager.m_calls.front(), "timestamp 1010");
        EXPECT_LE(m_manager.m_reports, reportsAtAbort + 1);
        for (size_t i = answersAtAbort + 1; i < backup.m_answers.size(); ++i)
            EXPECT_EQ(backup.m_answers[i], RC_STOP_EXCLUDE_CURRENT) << at;
        EXPECT_EQ(m_feeder->ioReportFailureRc(), RC_SUCCESS);
        EXPECT_EQ(tokensOut(*m_locator), contents().size());
        m_manager.m_onCall = nullptr;
        expectStopped();
    }
}

TEST_F(BackupAbortTest, AbortedFromAnotherThreadAtAnyMoment)
{
    const LogCapture quiet;
    for (int round = 0; round < 200; ++round) {
        m_feeder.reset(); // it gives its voucher back to the locator
        m_locator = std::make_unique<RegionLocator>(7, RL_MMI_View);
        m_manager = FakeManager();
        make(&m_manager);
        Backup backup;
        std::atomic<u64> step{0};
        backup.m_before = [&](u64 number) { step = number; };
        std::thread aborter([&] {
            while (step < static_cast<u64>(round % 20))
                std::this_thread::yield();
            m_feeder->abort();
        });
        // The scan is over before the abort where that waits for a step that does not come.
        backup.run(*m_feeder);
        step = NONE;
        aborter.join();
        EXPECT_TRUE(backup.m_prepared == RC_SUCCESS || backup.m_prepared == RC_ABORTED);
        // Whatever was taken is a beginning of what a whole backup takes.
        const Calls whole = {"timestamp 1010", reportCall(30, 4), reportCall(40, 9),
                             reportCall(50, 4)};
        ASSERT_LE(m_manager.m_calls.size(), whole.size());
        EXPECT_TRUE(std::equal(m_manager.m_calls.begin(), m_manager.m_calls.end(), whole.begin()));
        EXPECT_LE(contents().size(), 3U);
        EXPECT_EQ(tokensOut(*m_locator), contents().size());
        EXPECT_EQ(add(write(0)), RC_STOP_EXCLUDE_CURRENT);
    }
}

} // namespace
