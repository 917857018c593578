#include "host/infra/BinaryEventLog.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include "common/infra/BinaryLogger.h"
#include "host/infra/BinaryEventFormat.h"
#include "tests/support/OwnPath.h"
#include "tests/support/ScopedManualClock.h"

namespace {

constexpr u64 RECORDS = 5;
constexpr u64 BLOCK = BinaryEventFormat::BLOCK;

class BinaryEventLogTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(BinaryEventLog::open(m_path).ok());
        BinaryLogger* logger = Singleton<BinaryLogger, BinaryLogger>::instance();
        for (u64 i = 0; i < RECORDS; ++i) {
            logger->log(100 + static_cast<u32>(i), ~u64{0} - i, static_cast<u8>(i), 8 * i,
                        u64{1} << (40 + i));
            m_clock.advanceMs(1);
        }
        ASSERT_TRUE(BinaryEventLog::close().ok());
        std::ifstream file(m_path, std::ios::binary);
        std::stringstream text;
        text << file.rdbuf();
        m_bytes = text.str();
    }
    void TearDown() override { std::remove(m_path.c_str()); }

    Outcome read(const std::string& bytes, BinaryEventFile* result)
    {
        std::ofstream(m_path, std::ios::binary | std::ios::trunc) << bytes;
        return readBinaryEvents(m_path, result);
    }

    ScopedManualClock m_clock;
    const std::string m_path = ownPath("binary_event_log_test.bin");
    std::string m_bytes;
};

TEST_F(BinaryEventLogTest, RecordsComeBackAsTheyWereLogged)
{
    EXPECT_EQ(m_bytes.size(), BLOCK * (1 + RECORDS));
    BinaryEventFile file;
    ASSERT_TRUE(read(m_bytes, &file).ok());
    ASSERT_EQ(file.m_events.size(), RECORDS);
    for (u64 i = 0; i < RECORDS; ++i) {
        const BinaryEvent& event = file.m_events[i];
        EXPECT_EQ(event.m_number, i);
        EXPECT_EQ(event.m_monotonicUs, (1000 + i) * 1000);
        EXPECT_EQ(event.m_wallTimeUs, 1'000'000'000'000'000 + i * 1000);
        EXPECT_EQ(event.m_code, 100 + i);
        EXPECT_EQ(event.m_kind, i);
        EXPECT_EQ(event.m_viewOffsetBlocks, ~u64{0} - i);
        EXPECT_EQ(event.m_lengthBlocks, 8 * i);
        EXPECT_EQ(event.m_journalAddressBlocks, u64{1} << (40 + i));
    }
    EXPECT_TRUE(file.m_damagedAtBytes.empty());
    EXPECT_EQ(file.m_cutBytes, 0u);
}

TEST_F(BinaryEventLogTest, AFileCutAtAnyByteGivesTheWholeRecordsBeforeIt)
{
    for (size_t length = 0; length < m_bytes.size(); ++length) {
        BinaryEventFile file;
        const Outcome outcome = read(m_bytes.substr(0, length), &file);
        if (length < BLOCK) {
            ASSERT_EQ(outcome.m_rc, RC_DAMAGED) << length;
            continue;
        }
        ASSERT_TRUE(outcome.ok()) << length;
        ASSERT_EQ(file.m_events.size(), length / BLOCK - 1) << length;
        ASSERT_EQ(file.m_cutBytes, length % BLOCK) << length;
    }
}

TEST_F(BinaryEventLogTest, ADamagedByteCostsItsOwnRecordOnly)
{
    for (size_t at = 0; at < m_bytes.size(); ++at) {
        std::string damaged = m_bytes;
        damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
        BinaryEventFile file;
        const Outcome outcome = read(damaged, &file);
        if (at < BLOCK) {
            ASSERT_EQ(outcome.m_rc, RC_DAMAGED) << at;
            continue;
        }
        ASSERT_TRUE(outcome.ok()) << at;
        ASSERT_EQ(file.m_events.size(), RECORDS - 1) << at;
        ASSERT_EQ(file.m_damagedAtBytes, std::vector<u64>{at / BLOCK * BLOCK}) << at;
    }
}

TEST_F(BinaryEventLogTest, AFileThatIsNoneOrNotThereIsRefused)
{
    BinaryEventFile file;
    EXPECT_EQ(read(std::string(1000, 'x'), &file).m_rc, RC_DAMAGED);
    EXPECT_EQ(readBinaryEvents(m_path + ".none", &file).m_rc, RC_IO_ERROR);
    EXPECT_EQ(BinaryEventLog::open("/proc/no/such/file").m_rc, RC_IO_ERROR);
}

TEST_F(BinaryEventLogTest, FlushBringsRecordsOutAndASecondLogIsRefused)
{
    ASSERT_TRUE(BinaryEventLog::open(m_path).ok());
    EXPECT_EQ(BinaryEventLog::open(m_path + "2").m_rc, RC_IN_USE);
    Singleton<BinaryLogger, BinaryLogger>::instance()->log(1, 2, 3, 4, 5);
    BinaryEventFile file;
    ASSERT_TRUE(BinaryEventLog::flush().ok());
    ASSERT_TRUE(readBinaryEvents(m_path, &file).ok());
    EXPECT_EQ(file.m_events.size(), 1u);
    ASSERT_TRUE(BinaryEventLog::close().ok());
    ASSERT_TRUE(BinaryEventLog::close().ok());
    Singleton<BinaryLogger, BinaryLogger>::instance()->log(1, 2, 3, 4, 5);
}

TEST_F(BinaryEventLogTest, AWriteThatFailsIsToldAtTheClose)
{
    ASSERT_TRUE(BinaryEventLog::open("/dev/full").ok());
    EXPECT_EQ(BinaryEventLog::flush().m_rc, RC_IO_ERROR);
    EXPECT_EQ(BinaryEventLog::close().m_rc, RC_IO_ERROR);
}

} // namespace
