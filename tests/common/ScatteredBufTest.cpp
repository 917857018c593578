#include "common/infra/ScatteredBuf.h"

#include <gtest/gtest.h>

namespace {

// Three pieces of 4, 1 and 3 bytes.
ScatteredBuf threePieces(u8* memory)
{
    ScatteredBuf buf;
    buf.addSegment(MemorySegment(4, memory, nullptr));
    buf.addSegment(MemorySegment(1, memory + 10, nullptr));
    buf.addSegment(MemorySegment(3, memory + 20, nullptr));
    return buf;
}

TEST(ScatteredBufTest, EmptyHasNoBytes)
{
    ScatteredBuf buf;
    EXPECT_EQ(buf.getSize(), 0u);
    EXPECT_EQ(buf.getSegmentsCount(), 0u);
    EXPECT_EQ(buf.getSubBuffer(0, 0).getSize(), 0u);
}

TEST(ScatteredBufTest, EverySubBufferRefersToTheSameBytes)
{
    u8 memory[30];
    const ScatteredBuf buf = threePieces(memory);
    u8* const bytes[] = {memory,      memory + 1,  memory + 2,  memory + 3,
                         memory + 10, memory + 20, memory + 21, memory + 22};
    for (u64 offset = 0; offset <= 8; ++offset) {
        for (u64 length = 0; offset + length <= 8; ++length) {
            const ScatteredBuf sub = buf.getSubBuffer(offset, length);
            EXPECT_EQ(sub.getSize(), length);
            u64 at = offset;
            for (u32 i = 0; i < sub.getSegmentsCount(); ++i) {
                ASSERT_GT(sub.getSegment(i).getSize(), 0u);
                for (u32 k = 0; k < sub.getSegment(i).getSize(); ++k)
                    EXPECT_EQ(sub.getSegment(i).getPtr() + k, bytes[at++]);
            }
            EXPECT_EQ(at, offset + length);
        }
    }
}

TEST(ScatteredBufTest, DeleteContentEmptiesTheList)
{
    u8 memory[30];
    ScatteredBuf buf = threePieces(memory);
    buf.deleteContent();
    EXPECT_EQ(buf.getSize(), 0u);
    EXPECT_EQ(buf.getSegmentsCount(), 0u);
}

TEST(ScatteredBufDeathTest, ARangeOutsideTheBufferStopsTheProcess)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    u8 memory[30];
    const ScatteredBuf buf = threePieces(memory);
    EXPECT_DEATH(buf.getSubBuffer(5, 4), "byteOffset \\+ byteLength <= m_sizeBytes");
}

} // namespace
