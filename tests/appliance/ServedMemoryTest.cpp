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

    Result stats(JsonValue* result)
    {
        std::unique_ptr<ControlClient> client;
        if (Result connected = ControlClient::connect(folder(), &client); !connected.ok())
            return connected;
        CommandControl control;
        return client->run("stats", JsonValue::object(), control, result);
    }
};

TEST_F(ServedMemoryTest, AViewThatNobodyHasOpenGoesBeforeAWriteIsRefused)
{
    makeMirrorOf(1000);
    const LimitedMemory limited(16 << 10, 288 << 10);
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
