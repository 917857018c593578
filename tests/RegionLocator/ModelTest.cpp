// Random operations against a block-by-block oracle, everything compared after each.
//
// A failure prints its seed; RL_MODEL_SEED=n runs that seed alone, RL_MODEL_OPERATIONS=n that many
// operations a seed.

#include <cstdlib>
#include <gtest/gtest.h>
#include <limits>

#include "common/infra/DynamicTweaks.h"
#include "tests/support/Accelerators.h"
#include "tests/support/LocatorModel.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Sanitized.h"

namespace {

constexpr u32 WORLD_BLOCKS = 256;
constexpr u64 SEEDS = 10;

u64 fromEnvironment(const char* name, u64 otherwise)
{
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

u64 operationsPerSeed()
{
    return fromEnvironment("RL_MODEL_OPERATIONS", IS_WATCHED ? 30000 : 100000);
}

// A process-wide pool with a limit, so that a reservation can be too large.
class LimitedPool
{
public:
    LimitedPool() { setLimit(64 << 20); }
    ~LimitedPool() { setLimit(std::numeric_limits<u64>::max()); }

private:
    static void setLimit(u64 bytes)
    {
        MemoryPoolImpl* pool = Singleton<MemoryPoolImpl, MemoryPoolImpl>::instance();
        pool->init(pool->getChunkSize(), 0, bytes);
    }
};

class ModelTest : public testing::TestWithParam<u64>
{
protected:
    LimitedPool m_pool;
};

class ModelRunTest : public testing::Test
{
protected:
    LimitedPool m_pool;
};

TEST_P(ModelTest, RandomOperationsAgreeWithTheOracle)
{
    LogCapture log; // statistics lines and refused inserts
    ModelRun run(fromEnvironment("RL_MODEL_SEED", GetParam()), WORLD_BLOCKS);
    EXPECT_EQ("", run.run(operationsPerSeed()));
}

// The same with everything that speeds a large index up, on this small one, and with nothing of it.
TEST_P(ModelTest, RandomOperationsAgreeWithTheOracleWhenAccelerated)
{
    LogCapture log;
    const Accelerators on(Accelerators::ALL);
    ModelRun run(fromEnvironment("RL_MODEL_SEED", GetParam()), WORLD_BLOCKS);
    EXPECT_EQ("", run.run(operationsPerSeed()));
}

TEST_P(ModelTest, RandomOperationsAgreeWithTheOracleWhenPlain)
{
    LogCapture log;
    const Accelerators on(Accelerators::NONE);
    ModelRun run(fromEnvironment("RL_MODEL_SEED", GetParam()), WORLD_BLOCKS);
    EXPECT_EQ("", run.run(operationsPerSeed() / 4));
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelTest, testing::Range(u64{0}, SEEDS));

TEST_F(ModelRunTest, OneSeedIsOneHistory)
{
    LogCapture log;
    const auto lastDraw = [](u64 seed) {
        ModelRun run(seed, WORLD_BLOCKS);
        EXPECT_EQ("", run.run(2000));
        return run.draw();
    };
    EXPECT_EQ(lastDraw(5), lastDraw(5));
    EXPECT_NE(lastDraw(5), lastDraw(6));
}

TEST_F(ModelRunTest, ChecksOfEachChangeFindNothing)
{
    LogCapture log;
    DynamicTweaks::instance()->t_IOVerboseLogs = true;
    ModelRun run(8, WORLD_BLOCKS);
    const std::string problem = run.run(5000);
    DynamicTweaks::instance()->t_IOVerboseLogs = false;
    EXPECT_EQ("", problem);
    // Where a reader drops the pieces that a lock-and-remove waits for, it says so; nothing else
    // may.
    for (const LogRecord& record : log.softChecks())
        EXPECT_NE(std::string::npos,
                  record.m_text.find("res.size() > 0 failed. Region is not unlocked. desc="))
            << record;
}

// The canary: an oracle that is told something else must be found out.
TEST_F(ModelRunTest, AWriteThatOnlyTheLocatorGetsIsFound)
{
    LogCapture log;
    LocatorModel model(WORLD_BLOCKS);
    model.insert({10, 8, BlockOracle::Plain, 100, 0});
    model.verify();
    ASSERT_EQ("", model.problem());
    RegionLocatorVoucher* voucher = model.locator().getMemPool()->createVoucher();
    model.locator().getMemPool()->fillVoucher(voucher, 2, 0, voucher);
    model.locator().insert(SfsItemDescriptor::genUncompressed(12, 2, 500, 0, false), voucher);
    model.locator().getMemPool()->destroyVoucher(voucher);
    model.verify();
    EXPECT_EQ("unlocked map: region 0 should be [view=10 length=8 fifo=100 offsetInIo=0 "
              "ioBytes=4096 flags=0] and is [view=10 length=2 fifo=100 offsetInIo=0 ioBytes=1024 "
              "flags=0]",
              model.problem());
}

} // namespace
