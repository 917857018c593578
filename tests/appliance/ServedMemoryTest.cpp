// A served mirror whose memory runs out: what nobody uses goes before a client is refused, and what
// commands take is within the budget.

#include <atomic>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <thread>

#include "appliance/ControlClient.h"
#include "appliance/ServedServices.h"
#include "tests/appliance/ServedFixture.h"
#include "tests/support/LimitedMemory.h"

namespace {

class ServedMemoryTest : public ServedFixture
{
protected:
    // The nth block that is written, none beside the one before.
    static u64 nth(u64 n) { return (2 * n) % BLOCKS + (2 * n) / BLOCKS; }

    void makeMirrorOf(u64 items)
    {
        makeMirror();
        const std::vector<u8> data(BLOCK_BYTES, 7);
        for (u64 n = 0; n < items; ++n)
            ASSERT_TRUE(m_mirror->write(nth(n), data.data(), 1).ok());
        ASSERT_TRUE(m_mirror->close().ok());
        m_mirror.reset();
    }

    static ChosenPoint point(u64 items)
    {
        ChosenPoint chosen;
        chosen.m_items = items;
        return chosen;
    }

    Result command(const std::string& name, const JsonValue& arguments, JsonValue* result)
    {
        std::unique_ptr<ControlClient> client;
        if (Result connected = ControlClient::connect(folder(), &client); !connected.ok())
            return connected;
        CommandControl control;
        return client->run(name, arguments, control, result);
    }

    Result stats(JsonValue* result) { return command("stats", JsonValue::object(), result); }

    // Writes from the nth block on, until one is refused or so many are written.
    u64 writeFrom(u64 n, u64 most)
    {
        std::vector<u8> data(BLOCK_BYTES);
        u64 done = 0;
        for (; done < most; ++done) {
            data.assign(BLOCK_BYTES, static_cast<u8>(n + done));
            const RcStatus rc = live().write(nth(n + done), data.data(), 1);
            if (rc == RC_NO_MEMORY)
                break;
            EXPECT_EQ(rc, RC_SUCCESS) << rcStatusText(rc);
        }
        return done;
    }
};

TEST_F(ServedMemoryTest, AViewThatNobodyHasOpenGoesBeforeAWriteIsRefused)
{
    makeMirrorOf(1000);
    const LimitedMemory limited(16 << 10, 352 << 10);
    serve();
    {
        ViewShelf::Lease lease;
        const Result result = m_served->views().open(point(1000), &lease);
        ASSERT_TRUE(result.ok()) << result.message();
    }
    ASSERT_EQ(m_served->views().report().m_views, 1u);
    const std::vector<u8> data(BLOCK_BYTES, 9);
    u64 refused = 0;
    for (u64 n = 1000; n < 3700; ++n) {
        const RcStatus rc = live().write(nth(n), data.data(), 1);
        ASSERT_TRUE(rc == RC_SUCCESS || rc == RC_NO_MEMORY) << rcStatusText(rc);
        refused += rc == RC_NO_MEMORY;
    }
    EXPECT_EQ(refused, 0u);
    const ViewShelfReport report = m_served->views().report();
    EXPECT_EQ(report.m_views, 0u);
    EXPECT_EQ(report.m_dropped, 1u);
    stopServing();
}

TEST_F(ServedMemoryTest, WhereWritesAreRefusedApplyAndTrimMakeRoomAgain)
{
    makeMirrorOf(1);
    const LimitedMemory limited(16 << 10, 256 << 10);
    serve();
    const u64 written = writeFrom(1, 4000);
    ASSERT_GT(written, 2000u);
    ASSERT_LT(written, 4000u) << "the limit was never reached";
    Image image = readLive();
    JsonValue result;
    for (int round = 0; round < 2; ++round) {
        // The same index fits again.
        stopServing();
        serve();
        if (HasFatalFailure())
            return;
        EXPECT_EQ(writeFrom(4000, 10), 0u);
        const Result applied = command("apply", {{"to", "latest"}}, &result);
        ASSERT_TRUE(applied.ok()) << applied.message();
        const Result trimmed = command("trim", {{"to", "latest"}}, &result);
        ASSERT_TRUE(trimmed.ok()) << trimmed.message();
        EXPECT_EQ(readLive(), image);
        const u64 again = writeFrom(1, 4000);
        EXPECT_GT(again, written / 2);
        EXPECT_LT(again, 4000u);
        image = readLive();
    }
    stopServing();
}

TEST_F(ServedMemoryTest, AnIndexThatLeavesNothingBesideItTakesNothingIn)
{
    makeMirrorOf(3000);
    const LimitedMemory limited(16 << 10, 208 << 10);
    serve();
    if (HasFatalFailure())
        return;
    EXPECT_EQ(writeFrom(3000, 1), 0u);
    stopServing();
}

TEST_F(ServedMemoryTest, AServerThatFindsTooLittleSaysWhatDoesWithLess)
{
    makeMirrorOf(3000);
    const LimitedMemory limited(16 << 10, 96 << 10);
    ServedOptions options;
    options.m_folder = folder();
    ServedMirror served(m_host.getEngine(), options);
    const Result refused = served.start();
    EXPECT_EQ(refused.code(), ResultCode::Failed);
    EXPECT_NE(refused.message().find("rlctl apply"), std::string::npos) << refused.message();
    openMirror();
    MirrorJobs jobs(*m_mirror, m_host.getEngine());
    FlowControl control;
    ApplyStatistics applied;
    Result result = jobs.apply(JobOrigin::Command, point(3000), {}, control, &applied);
    ASSERT_TRUE(result.ok()) << result.message();
    TrimStatistics trimmed;
    result = jobs.trim(JobOrigin::Command, point(3000), {}, control, &trimmed);
    ASSERT_TRUE(result.ok()) << result.message();
    ASSERT_TRUE(m_mirror->close().ok());
    serve();
    if (HasFatalFailure())
        return;
    stopServing();
}

TEST_F(ServedMemoryTest, StatisticsAreBuiltWithinTheViewsBudget)
{
    makeMirrorOf(3000);
    serve([](ServedOptions& options) { options.m_viewsBudgetBytes = 100 << 10; });
    JsonValue result;
    const Result refused = stats(&result);
    EXPECT_EQ(refused.code(), ResultCode::NoSpace);
    EXPECT_NE(refused.message().find("100 KiB"), std::string::npos) << refused.message();
    stopServing();
    serve();
    const Result done = stats(&result);
    ASSERT_TRUE(done.ok()) << done.message();
    EXPECT_EQ(result["ios_inserted"], 3000);
    EXPECT_EQ(result["regions"], 3000);
    EXPECT_EQ(m_served->views().report().m_bytes, 0u);
    EXPECT_EQ(m_served->views().report().m_views, 0u);
}

TEST_F(ServedMemoryTest, ReservationsThatWaitAreCounted)
{
    makeMirrorOf(1);
    const LimitedMemory limited(16 << 10, 1 << 20);
    serve();
    const auto value = [&](const std::string& name) {
        const std::string text = m_served->services().metrics().text();
        const size_t at = text.find("\n" + name + "{");
        return at == std::string::npos ? -1 : std::stod(text.substr(text.find("} ", at) + 2));
    };
    const double waitsBefore = value("rl_reservation_waits_total");
    EXPECT_GE(waitsBefore, 0);
    const auto expect = [&](double waiting, double waits) {
        EXPECT_EQ(value("rl_reservations_waiting"), waiting);
        EXPECT_EQ(value("rl_reservation_waits_total"), waitsBefore + waits);
    };
    MemoryPoolImpl* pool = LimitedMemory::pool();
    ModuleMemoryInformation* group = pool->getMmi("View_reads");
    constexpr u32 BYTES = 700 << 10;
    ScatteredBuf first;
    ScatteredBuf second;
    ScatteredBuf third;
    ASSERT_EQ(pool->fillBufFuture(0, &first, BYTES, group, this).get(), RC_SUCCESS);
    expect(0, 0);
    EXPECT_EQ(pool->fillBufFutureWithTimeout(0, &second, BYTES, group, 0, this).get(),
              RC_TIMED_OUT);
    expect(0, 0);
    const FutureStatus waits = pool->fillBufFuture(0, &third, BYTES, group, this);
    expect(1, 1);
    first.deleteContent();
    EXPECT_EQ(waits.get(), RC_SUCCESS);
    expect(0, 1);
    third.deleteContent();
    stopServing();
}

} // namespace
