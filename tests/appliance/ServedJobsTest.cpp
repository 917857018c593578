// Apply, trim and checkpoints while clients write and read, block by block; what runs by itself
// beside them; and who goes first.

#include <future>
#include <gtest/gtest.h>

#include "appliance/BackgroundApply.h"
#include "appliance/CheckpointTimer.h"
#include "tests/appliance/ServedFixture.h"
#include "tests/support/ComesTrue.h"

namespace {

using namespace std::chrono_literals;

class ServedJobsTest : public ServedFixture
{
protected:
    static constexpr u32 CLIENTS = 4;
    static constexpr u64 PART = BLOCKS / CLIENTS;

    void startClients(u32 seed)
    {
        for (u32 i = 0; i < CLIENTS; ++i)
            m_clients.push_back(std::make_unique<LiveClient>(live(), i * PART, PART, seed + i));
        for (auto& client : m_clients)
            client->start();
    }

    void stopClients()
    {
        for (auto& client : m_clients)
            client->stop();
    }

    // A checkpoint, and the volume as it is there.
    std::pair<CheckpointInfo, Image> checkpoint(MirrorJobs& jobs)
    {
        std::vector<std::unique_lock<std::mutex>> held;
        for (auto& client : m_clients)
            held.emplace_back(client->between());
        std::pair<CheckpointInfo, Image> made;
        EXPECT_TRUE(jobs.checkpoint("", &made.first).ok());
        made.second = clientsImage();
        return made;
    }

    Image clientsImage() const
    {
        Image image;
        for (const auto& client : m_clients)
            image.insert(image.end(), client->image().begin(), client->image().end());
        return image;
    }

    static ChosenPoint pointOf(const CheckpointInfo& checkpoint)
    {
        ChosenPoint point;
        point.m_isCheckpoint = true;
        point.m_checkpoint = checkpoint;
        point.m_items = checkpoint.m_items;
        return point;
    }

    Image readView(const CheckpointInfo& checkpoint)
    {
        ViewShelf::Lease lease;
        const Result result = m_served->views().open(pointOf(checkpoint), &lease);
        EXPECT_TRUE(result.ok()) << result.message();
        Image image(BLOCKS * BLOCK_BYTES, 0xAA);
        if (result.ok()) {
            EXPECT_EQ(lease->reader().read(0, BLOCKS, image.data()), RC_SUCCESS);
        }
        return image;
    }

    template <class Condition> static void waitFor(Condition condition)
    {
        EXPECT_TRUE(comesTrue(condition));
    }

    void someRequests()
    {
        const u64 before = m_clients[0]->requests();
        waitFor([&] { return m_clients[0]->requests() >= before + 200 || HasFailure(); });
    }

    std::vector<std::unique_ptr<LiveClient>> m_clients;
};

TEST_F(ServedJobsTest, ApplyAndTrimBesideLiveRequests)
{
    makeMirror(Compression::Lz4);
    serve();
    MirrorJobs jobs(m_served->mirror(), m_host.getEngine());
    startClients(1);
    std::vector<std::pair<CheckpointInfo, Image>> made;
    FlowControl control;
    for (u32 round = 0; round < 12 && !HasFailure(); ++round) {
        someRequests();
        made.push_back(checkpoint(jobs));
        someRequests();
        if (made.size() < 3)
            continue;
        // The oldest but two: it is applied and trimmed, and the later ones stay as they were.
        m_served->views().dropUnused(made[made.size() - 3].first.m_items);
        const ChosenPoint point = pointOf(made[made.size() - 3].first);
        ApplyStatistics applied;
        Result result = jobs.apply(JobOrigin::Command, point, ApplyOptions(), control, &applied);
        ASSERT_TRUE(result.ok()) << result.message();
        for (size_t i = made.size() - 3; i < made.size(); ++i)
            ASSERT_EQ(readView(made[i].first), made[i].second)
                << "before trimming, round " << round;
        TrimStatistics trimmed;
        result = jobs.trim(JobOrigin::Command, point, TrimOptions(), control, &trimmed);
        ASSERT_TRUE(result.ok()) << result.message();
        for (size_t i = made.size() - 3; i < made.size(); ++i)
            ASSERT_EQ(readView(made[i].first), made[i].second) << "after trimming, round " << round;
    }
    EXPECT_GT(m_served->mirror().journal().begin().m_items, 0u);
    stopClients();
    EXPECT_EQ(readLive(), clientsImage());
    // What was answered is there after a restart, as is the rest of the past.
    stopServing();
    serve();
    EXPECT_EQ(readLive(), clientsImage());
    for (size_t i = made.size() - 2; i < made.size(); ++i)
        EXPECT_EQ(readView(made[i].first), made[i].second);
}

TEST_F(ServedJobsTest, EverythingIsAppliedAndTrimmedWhileClientsGoOn)
{
    makeMirror();
    serve();
    MirrorJobs jobs(m_served->mirror(), m_host.getEngine());
    startClients(77);
    FlowControl control;
    for (u32 round = 0; round < 20 && !HasFailure(); ++round) {
        someRequests();
        ChosenPoint point;
        point.m_items = m_served->mirror().window().m_items;
        ApplyStatistics applied;
        Result result = jobs.apply(JobOrigin::Command, point, ApplyOptions(), control, &applied);
        ASSERT_TRUE(result.ok()) << result.message();
        TrimStatistics trimmed;
        result = jobs.trim(JobOrigin::Command, point, TrimOptions(), control, &trimmed);
        ASSERT_TRUE(result.ok()) << result.message();
    }
    stopClients();
    EXPECT_EQ(readLive(), clientsImage());
    stopServing();
    serve();
    EXPECT_EQ(readLive(), clientsImage());
}

TEST_F(ServedJobsTest, ATrimThatWasStoppedIsFinishedByTheNextOne)
{
    class StopsAmid : public FlowControl
    {
    public:
        explicit StopsAmid(Mirror& mirror) : m_mirror(mirror) {}
        bool stopRequested() override { return m_mirror.untakenPage() != ~u64{0}; }

    private:
        Mirror& m_mirror;
    };
    makeMirror();
    writeRandomly(31, 1500);
    ASSERT_TRUE(m_mirror->close().ok());
    serve();
    MirrorJobs jobs(m_served->mirror(), m_host.getEngine());
    FlowControl control;
    ApplyStatistics applied;
    ChosenPoint point;
    point.m_items = 1500;
    ASSERT_TRUE(jobs.apply(JobOrigin::Command, point, ApplyOptions(), control, &applied).ok());
    // As soon as it is among the items that go.
    StopsAmid stops(m_served->mirror());
    TrimStatistics trimmed;
    EXPECT_EQ(jobs.trim(JobOrigin::Command, point, TrimOptions(), stops, &trimmed).code(),
              ResultCode::Interrupted);
    EXPECT_EQ(m_served->mirror().journal().begin().m_items, 1500u);
    EXPECT_NE(m_served->mirror().untakenPage(), ~u64{0});
    EXPECT_EQ(readLive(), m_images.back());
    EXPECT_GT(live().locator().getItemCount(), 0u);
    // There is nothing more to trim, and yet everything to take out.
    ASSERT_TRUE(jobs.trim(JobOrigin::Command, point, TrimOptions(), control, &trimmed).ok());
    EXPECT_EQ(m_served->mirror().untakenPage(), ~u64{0});
    EXPECT_EQ(readLive(), m_images.back());
    for (const SubRegionDescriptor& piece : live().pieces(0, BLOCKS))
        EXPECT_TRUE(piece.isAllZeroes());
}

TEST_F(ServedJobsTest, BackgroundKeepsToTheSettings)
{
    makeMirror();
    ASSERT_TRUE(m_mirror->changeSettings(3, std::nullopt, std::nullopt).ok());
    ASSERT_TRUE(m_mirror->close().ok());
    serve([](ServedOptions& options) {
        options.m_background = true;
        options.m_backgroundEveryMs = 20;
        options.m_checkpoints.m_everyBytes = 1 << 20;
    });
    startClients(5);
    // The data path's counters are the exports'; these clients are below them.
    std::atomic<bool> counting{true};
    std::thread counter([&] {
        while (counting) {
            u64 bytes = 0;
            for (auto& client : m_clients)
                bytes += client->writtenBytes();
            m_served->counters().of(ServedOp::Write).m_bytes = bytes;
            std::this_thread::sleep_for(1ms);
        }
    });
    // More checkpoints than are kept, however fast the clients are.
    waitFor([&] {
        const std::vector<CheckpointInfo> made = m_served->mirror().window().m_checkpoints;
        return HasFailure() || (m_served->mirror().journal().begin().m_items > 1000 &&
                                !made.empty() && made.back().m_id >= 6);
    });
    counting = false;
    counter.join();
    stopClients();
    const auto kept = [&] {
        const RecoverableWindow window = m_served->mirror().window();
        const size_t count = window.m_checkpoints.size();
        // More than three stay where some hold the same items as the oldest that is kept.
        return count >= 3 && window.m_firstItems == window.m_checkpoints.front().m_items &&
               window.m_firstItems == window.m_checkpoints[count - 3].m_items &&
               m_served->mirror().applyState().m_items == window.m_firstItems;
    };
    waitFor(kept);
    EXPECT_EQ(readLive(), clientsImage());
    // A hold before the point that is wanted is a limit, and no failure.
    stopServing();
    serve();
    EXPECT_EQ(readLive(), clientsImage());
}

TEST_F(ServedJobsTest, BackgroundStopsBeforeAHold)
{
    makeMirror();
    ASSERT_TRUE(m_mirror->changeSettings(1, std::nullopt, std::nullopt).ok());
    CpId_t ids[3] = {};
    std::vector<u64> items;
    for (CpId_t& id : ids) {
        writeRandomly(static_cast<u32>(items.size()), 50);
        ASSERT_TRUE(m_mirror->checkpoint("", &id).ok());
        items.push_back(m_mirror->window().m_items);
    }
    Hold hold{"audit", items[1], "cp:2"};
    ASSERT_TRUE(m_mirror->hold(&hold, nullptr).ok());
    ASSERT_TRUE(m_mirror->close().ok());
    serve([](ServedOptions& options) {
        options.m_background = true;
        options.m_backgroundEveryMs = 10;
    });
    waitFor([&] { return m_served->mirror().applyState().m_items == items[1]; });
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(m_served->mirror().applyState().m_items, items[1]);
    ASSERT_TRUE(m_served->mirror().release("audit").ok());
    waitFor([&] { return m_served->mirror().applyState().m_items == items[2]; });
    EXPECT_EQ(readLive(), m_images.back());
}

TEST_F(ServedJobsTest, BackgroundAppliesInPartsAndKeepsToItsRate)
{
    makeMirror();
    writeRandomly(3, 400);
    CpId_t id = 0;
    ASSERT_TRUE(m_mirror->checkpoint("", &id).ok());
    ASSERT_TRUE(m_mirror->changeSettings(1, std::nullopt, std::nullopt).ok());
    MirrorJobs jobs(*m_mirror, m_host.getEngine());
    BackgroundApply::Options options;
    options.m_everyMs = 5;
    options.m_itemsAtATime = 50;
    options.m_bytesPerSecond = u64{4} << 20;
    const u64 started = Clock::instance()->nowMs();
    BackgroundApply apply(jobs, options);
    apply.start();
    waitFor([&] { return m_mirror->applyState().m_items == 400; });
    apply.stop();
    EXPECT_EQ(jobs.applies().m_done, 8u);
    EXPECT_GT(jobs.applies().m_lastSuccessUs, 0u);
    // 400 requests of 20 blocks, a fifth of which are zeroes: at least half of that is written.
    EXPECT_GE(Clock::instance()->nowMs() - started, 400u * 20 * BLOCK_BYTES / 2 * 1000 / (4 << 20));
    EXPECT_EQ(readAll(*view(400)), m_images.back());
}

TEST_F(ServedJobsTest, ACommandPreemptsBackgroundWorkAndAnotherCommandIsRefused)
{
    makeMirror();
    writeRandomly(9, 600);
    MirrorJobs jobs(*m_mirror, m_host.getEngine());
    // Runs until it is told to stop.
    class Endless : public FlowControl
    {
    public:
        void progress(u64, u64) override
        {
            while (!stopRequested())
                std::this_thread::sleep_for(1ms);
        }
        bool stopRequested() override
        {
            m_asked = true;
            return m_stop || m_isUnwanted();
        }
        std::function<bool()> m_isUnwanted;
        std::atomic<bool> m_asked{false};
        std::atomic<bool> m_stop{false};
    };
    Endless endless;
    endless.m_isUnwanted = [&] { return jobs.isCommandWaiting(); };
    ChosenPoint far;
    far.m_items = 500;
    ApplyOptions inSteps;
    inSteps.m_stepBlocks = 64;
    auto background = std::async(std::launch::async, [&] {
        ApplyStatistics statistics;
        return jobs.apply(JobOrigin::Background, far, inSteps, endless, &statistics).code();
    });
    waitFor([&] { return endless.m_asked.load(); });
    // The point of the one that is cut off is the first that can be had then.
    ChosenPoint farther;
    farther.m_items = 550;
    FlowControl control;
    ApplyStatistics statistics;
    const Result command =
        jobs.apply(JobOrigin::Command, farther, ApplyOptions(), control, &statistics);
    EXPECT_TRUE(command.ok()) << command.message();
    EXPECT_EQ(background.get(), ResultCode::Interrupted);
    EXPECT_EQ(m_mirror->applyState().m_items, 550u);

    Endless held;
    held.m_isUnwanted = [] { return false; };
    ChosenPoint last;
    last.m_items = 600;
    auto first = std::async(std::launch::async, [&] {
        ApplyStatistics own;
        return jobs.apply(JobOrigin::Command, last, inSteps, held, &own).code();
    });
    waitFor([&] { return held.m_asked.load(); });
    EXPECT_EQ(jobs.apply(JobOrigin::Command, last, inSteps, control, &statistics).code(),
              ResultCode::InUse);
    TrimStatistics trimmed;
    EXPECT_EQ(jobs.trim(JobOrigin::Background, farther, TrimOptions(), control, &trimmed).code(),
              ResultCode::InUse);
    held.m_stop = true;
    EXPECT_EQ(first.get(), ResultCode::Interrupted);
    EXPECT_TRUE(jobs.apply(JobOrigin::Command, last, inSteps, control, &statistics).ok());
    EXPECT_EQ(readAll(*view(600)), m_images.back());
    EXPECT_EQ(jobs.applies().m_failed, 0u);
}

TEST_F(ServedJobsTest, CheckpointsByTimeAreSetWhereSomethingWasWritten)
{
    makeMirror();
    MirrorJobs jobs(*m_mirror, m_host.getEngine());
    CheckpointTimer timer(jobs, {20, 0}, [] { return u64{0}; });
    timer.start();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(m_mirror->window().m_checkpoints.size(), 0u);
    writeRandomly(1, 1);
    waitFor([&] { return m_mirror->window().m_checkpoints.size() == 1; });
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(m_mirror->window().m_checkpoints.size(), 1u);
    writeRandomly(2, 1);
    waitFor([&] { return m_mirror->window().m_checkpoints.size() == 2; });
    timer.stop();
    EXPECT_EQ(jobs.checkpoints().m_done, 2u);
}

TEST_F(ServedJobsTest, CheckpointsByAmount)
{
    makeMirror();
    MirrorJobs jobs(*m_mirror, m_host.getEngine());
    std::atomic<u64> written{0};
    CheckpointTimer timer(jobs, {0, 1000}, [&] { return written.load(); });
    timer.start();
    writeRandomly(1, 1);
    written = 999;
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(m_mirror->window().m_checkpoints.size(), 0u);
    written = 1000;
    waitFor([&] { return m_mirror->window().m_checkpoints.size() == 1; });
    timer.stop();
}

TEST_F(ServedJobsTest, SettingsHoldAtOnce)
{
    makeMirror();
    serve();
    std::vector<u8> data(64 * BLOCK_BYTES, 7);
    ASSERT_TRUE(m_served->mirror().changeSettings(std::nullopt, std::nullopt, 40000).ok());
    ASSERT_EQ(live().write(0, data.data(), 64), RC_SUCCESS);
    EXPECT_EQ(live().write(64, data.data(), 64), RC_NO_SPACE);
    ASSERT_TRUE(m_served->mirror().changeSettings(std::nullopt, std::nullopt, 0).ok());
    EXPECT_EQ(live().write(64, data.data(), 64), RC_SUCCESS);
}

} // namespace
