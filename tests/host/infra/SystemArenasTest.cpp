#include "host/infra/SystemArenas.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <thread>
#include <vector>

#include "common/infra/Tweaks.h"
#include "host/infra/SystemMemory.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define RL_TEST_SANITIZED 1
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define RL_TEST_SANITIZED 1
#endif

namespace {

#ifdef RL_TEST_SANITIZED
constexpr bool IS_SANITIZED = true;
#else
constexpr bool IS_SANITIZED = false;
#endif

constexpr size_t BLOCK = SystemArenas::BLOCK_BYTES;
constexpr size_t UNIT = 8 * BLOCK;
constexpr size_t ARENA = 16 * UNIT;
constexpr size_t PAGE = 4096;

u8* arenaOf(u8* block)
{
    return block - reinterpret_cast<uintptr_t>(block) % ARENA;
}

// How many of a block's pages take memory; none where nothing is mapped.
size_t residentPages(u8* block)
{
    unsigned char pages[BLOCK / PAGE];
    if (mincore(block, BLOCK, pages) != 0)
        return 0;
    return static_cast<size_t>(std::count_if(pages, pages + BLOCK / PAGE,
                                             [](unsigned char page) { return (page & 1) != 0; }));
}

// Whether the kernel has been asked for huge pages where this block lies.
bool isAskedForHugePages(u8* block)
{
    std::ifstream mappings("/proc/self/smaps");
    bool isHere = false;
    for (std::string line; std::getline(mappings, line);) {
        unsigned long from = 0;
        unsigned long to = 0;
        if (sscanf(line.c_str(), "%lx-%lx ", &from, &to) == 2)
            isHere = from <= reinterpret_cast<uintptr_t>(block) &&
                     reinterpret_cast<uintptr_t>(block) < to;
        else if (isHere && line.starts_with("VmFlags:"))
            return line.find(" hg") != std::string::npos;
    }
    return false;
}

class SystemArenasTest : public testing::Test
{
protected:
    ~SystemArenasTest() override
    {
        for (u8* block : m_blocks)
            EXPECT_TRUE(m_arenas.give(block));
        EXPECT_EQ(m_arenas.usedBlocks(), 0u);
        EXPECT_EQ(m_arenas.heldBlocks(), 0u);
        Tweaks::unset("t_HugePages");
    }

    u8* take()
    {
        u8* const block = m_arenas.take();
        EXPECT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % BLOCK, 0u);
        m_blocks.insert(block);
        std::memset(block, 0x5A, BLOCK);
        return block;
    }
    void give(u8* block)
    {
        m_blocks.erase(block);
        EXPECT_TRUE(m_arenas.give(block));
    }

    SystemArenas m_arenas;
    std::set<u8*> m_blocks;
};

TEST_F(SystemArenasTest, BlocksLieSideBySide)
{
    u8* const first = take();
    for (u32 i = 1; i < ARENA / BLOCK; ++i)
        EXPECT_EQ(take(), first + i * BLOCK);
    EXPECT_EQ(arenaOf(first), first);
    EXPECT_NE(arenaOf(take()), first);
    EXPECT_EQ(m_arenas.usedBlocks(), ARENA / BLOCK + 1);
}

TEST_F(SystemArenasTest, HugePagesAreAskedForUnlessTheTweakSaysNo)
{
    if (madvise(nullptr, 0, MADV_HUGEPAGE) != 0)
        GTEST_SKIP() << "this kernel has no huge pages";
    EXPECT_TRUE(isAskedForHugePages(take()));
    for (u32 i = 1; i < ARENA / BLOCK; ++i)
        take();
    Tweaks::set("t_HugePages", 0);
    EXPECT_FALSE(isAskedForHugePages(take()));
}

// The kernel makes huge pages of what has a single page, and what was given back came back.
TEST_F(SystemArenasTest, AUnitOfWhichAPartWasGivenBackIsInPiecesUntilItIsFree)
{
    if (madvise(nullptr, 0, MADV_HUGEPAGE) != 0)
        GTEST_SKIP() << "this kernel has no huge pages";
    constexpr u32 A_UNIT = UNIT / BLOCK;
    std::vector<u8*> blocks;
    for (u32 i = 0; i < 4 * A_UNIT; ++i)
        blocks.push_back(take());
    for (u32 unit = 0; unit < 3; ++unit)
        for (u32 i = 1; i < A_UNIT; ++i)
            give(blocks[unit * A_UNIT + i]);
    ASSERT_LT(m_arenas.heldBlocks(), SystemArenas::LEAST_HELD);
    EXPECT_FALSE(isAskedForHugePages(blocks[0]));
    EXPECT_FALSE(isAskedForHugePages(blocks[A_UNIT]));
    EXPECT_TRUE(isAskedForHugePages(blocks[3 * A_UNIT]));
    give(blocks[0]);
    EXPECT_TRUE(isAskedForHugePages(blocks[0])) << "wholly free";
    EXPECT_FALSE(isAskedForHugePages(blocks[A_UNIT]));
}

TEST_F(SystemArenasTest, AFreeBlockOfAUsedUnitIsTheNextOneTaken)
{
    std::vector<u8*> blocks;
    for (u32 i = 0; i < 3 * UNIT / BLOCK; ++i)
        blocks.push_back(take());
    give(blocks[13]);
    give(blocks[11]);
    EXPECT_EQ(m_arenas.heldBlocks(), 2u);
    EXPECT_EQ(take(), blocks[11]);
    EXPECT_EQ(take(), blocks[13]);
    EXPECT_EQ(m_arenas.heldBlocks(), 0u);
}

TEST_F(SystemArenasTest, AWhollyFreeUnitTakesNoMemory)
{
    std::vector<u8*> blocks;
    for (u32 i = 0; i < 2 * UNIT / BLOCK; ++i)
        blocks.push_back(take());
    for (u32 i = 0; i < UNIT / BLOCK; ++i) {
        EXPECT_EQ(residentPages(blocks[i]), BLOCK / PAGE);
        give(blocks[i]);
    }
    EXPECT_EQ(m_arenas.heldBlocks(), 0u);
    for (u32 i = 0; i < UNIT / BLOCK; ++i)
        EXPECT_EQ(residentPages(blocks[i]), 0u);
    EXPECT_EQ(residentPages(blocks[UNIT / BLOCK]), BLOCK / PAGE);
    EXPECT_EQ(take(), blocks[0]);
}

TEST_F(SystemArenasTest, TheLastBlockOfAnArenaTakesItAlong)
{
    u8* const first = take();
    u8* const second = take();
    give(first);
    EXPECT_EQ(residentPages(second), BLOCK / PAGE);
    give(second);
    unsigned char page = 0;
    EXPECT_NE(mincore(arenaOf(first), PAGE, &page), 0) << "still mapped";
}

TEST_F(SystemArenasTest, NoMoreThanAnEighthOfWhatIsUsedIsHeld)
{
    std::vector<u8*> blocks;
    for (u32 i = 0; i < 3 * ARENA / BLOCK; ++i)
        blocks.push_back(take());
    const auto mostHeld = [this] {
        return std::max<u64>(SystemArenas::LEAST_HELD, m_arenas.usedBlocks() / 8);
    };
    std::mt19937 random(7);
    std::shuffle(blocks.begin(), blocks.end(), random);
    bool hasHeld = false;
    while (blocks.size() > 40) {
        give(blocks.back());
        blocks.pop_back();
        ASSERT_LE(m_arenas.heldBlocks(), mostHeld());
        hasHeld |= m_arenas.heldBlocks() > SystemArenas::LEAST_HELD;
    }
    EXPECT_TRUE(hasHeld);
    for (u8* block : blocks) {
        EXPECT_EQ(block[0], 0x5A);
        EXPECT_EQ(block[BLOCK - 1], 0x5A);
    }
    // What is held, and what is used.
    size_t resident = 0;
    std::set<u8*> arenas;
    for (u8* block : blocks)
        arenas.insert(arenaOf(block));
    for (u8* arena : arenas)
        for (size_t i = 0; i < ARENA / BLOCK; ++i)
            resident += residentPages(arena + i * BLOCK);
    EXPECT_EQ(resident, (blocks.size() + m_arenas.heldBlocks()) * (BLOCK / PAGE));
}

TEST_F(SystemArenasTest, AnythingElseIsNotTakenBack)
{
    take();
    u8* const other = allocateSystemMapping(BLOCK);
    ASSERT_NE(other, nullptr);
    EXPECT_FALSE(m_arenas.give(other));
    EXPECT_EQ(other[BLOCK - 1], 0);
    freeSystemMapping(other, BLOCK);
}

TEST_F(SystemArenasTest, ManyThreadsTakeAndGive)
{
    std::vector<std::thread> threads;
    for (u32 i = 0; i < 3; ++i)
        threads.emplace_back([this, i] {
            std::mt19937 random(i);
            std::vector<u8*> own;
            for (u32 turn = 0; turn < 400; ++turn) {
                if (own.empty() || (own.size() < 20 && random() % 2 == 0)) {
                    own.push_back(m_arenas.take());
                    own.back()[1] = static_cast<u8>(i);
                } else {
                    std::swap(own[random() % own.size()], own.back());
                    EXPECT_EQ(own.back()[1], i);
                    EXPECT_TRUE(m_arenas.give(own.back()));
                    own.pop_back();
                }
            }
            for (u8* block : own)
                EXPECT_TRUE(m_arenas.give(block));
        });
    for (std::thread& thread : threads)
        thread.join();
}

TEST(SystemMemoryTest, EverySizeIsAlignedAndComesBack)
{
    for (const u32 size : {4096u, 200'000u, 256u * 1024, 300'000u, 4u << 20}) {
        u8* const memory = allocateSystemMemory(size);
        ASSERT_NE(memory, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(memory) % std::bit_ceil(size), 0u);
        std::memset(memory, 1, size);
        freeSystemMemory(memory, size);
    }
}

// A child with too little address space for an arena still gets its block.
int takeWithoutRoomForAnArena()
{
    u64 pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit limit = {};
    if (getrlimit(RLIMIT_AS, &limit) != 0)
        return 1;
    limit.rlim_cur = pages * PAGE + (4 << 20);
    if (setrlimit(RLIMIT_AS, &limit) != 0)
        return 1;
    SystemArenas arenas;
    if (arenas.take() != nullptr)
        return 2;
    u8* const block = allocateSystemMemory(BLOCK);
    if (block == nullptr)
        return 3;
    std::memset(block, 1, BLOCK);
    freeSystemMemory(block, BLOCK);
    return 0;
}

TEST(SystemMemoryTest, WithoutRoomForAnArenaABlockIsAMappingOfItsOwn)
{
    if (IS_SANITIZED)
        GTEST_SKIP() << "sanitizers take all address space";
    EXPECT_EXIT(std::_Exit(takeWithoutRoomForAnArena()), testing::ExitedWithCode(0), "");
}

} // namespace
