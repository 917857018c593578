// Random histories against a plain list.
#include <gtest/gtest.h>
#include <random>

#include "host/journal/JournalVerifier.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"

namespace {

class JournalRandomTest : public testing::TestWithParam<u64>
{};

TEST_P(JournalRandomTest, HoldsWhatWasAppendedInItsOrder)
{
    std::mt19937_64 random(GetParam());
    const auto below = [&](u64 end) { return random() % end; };
    CrashStorage storage;
    JournalOptions options;
    options.compression = static_cast<Compression>(below(3));
    options.autoFlushItems = static_cast<u32>(1 + below(60));
    SCOPED_TRACE(testing::Message() << "seed " << GetParam());
    std::vector<JournalRequest> expected;
    std::vector<u64> checkpointItems;
    auto store = openJournal(storage, JournalMode::Writer, options);
    for (int step = 0; step < 250; ++step) {
        switch (below(10)) {
        case 0: ASSERT_EQ(store->flush(), RC_SUCCESS); break;
        case 1:
            ASSERT_EQ(store->appendCheckpoint(below(2) ? "tag" : "", nullptr), RC_SUCCESS);
            checkpointItems.push_back(expected.size());
            break;
        case 2:
            expected.push_back({below(1000), 1 + below(below(2) ? 100 : 300000), {}});
            ASSERT_EQ(
                store->appendZeroes(expected.back().m_offsetBlocks, expected.back().m_lengthBlocks),
                RC_SUCCESS);
            break;
        case 3:
            if (below(3) == 0) {
                store.reset();
                store = openJournal(storage, JournalMode::Writer, options);
                ASSERT_EQ(store->report().m_text, "");
            }
            break;
        default: {
            const u32 blocks = static_cast<u32>(1 + below(below(12) ? 40 : 9000));
            expected.push_back({below(5000), blocks, patternBlocks(random(), blocks, below(2))});
            ASSERT_EQ(store->append(expected.back().m_offsetBlocks, expected.back().m_bytes.data(),
                                    blocks),
                      RC_SUCCESS);
        }
        }
    }
    ASSERT_EQ(store->flush(), RC_SUCCESS);
    EXPECT_TRUE(readBack(*store) == expected);
    const u64 used = store->bytesUsed();
    store.reset();
    store = openJournal(storage, JournalMode::ReadOnly);
    EXPECT_TRUE(readBack(*store) == expected);
    EXPECT_LE(store->bytesUsed() - used, BLOCK_BYTES) << "but for the page of the orderly end";
    EXPECT_EQ(store->itemCount(), expected.size());
    const std::vector<JournalCheckpoint> checkpoints = store->checkpoints();
    ASSERT_EQ(checkpoints.size(), checkpointItems.size());
    for (size_t i = 0; i < checkpoints.size(); ++i)
        EXPECT_EQ(checkpoints[i].m_itemsBefore, checkpointItems[i]);
    EXPECT_TRUE(verifyJournal(*store).ok());
}

INSTANTIATE_TEST_SUITE_P(Seeds, JournalRandomTest, testing::Range(u64{1}, u64{13}));

} // namespace
