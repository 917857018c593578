#include "appliance/IndexTurns.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace {

using Kind = IndexTurns::Kind;

class Stops : public FlowControl
{
public:
    explicit Stops(u64 looks) : m_left(looks) {}
    bool stopRequested() override { return m_left == 0 || --m_left == 0; }

private:
    u64 m_left;
};

TEST(IndexTurnsTest, CopiesShareAndARemovalIsAlone)
{
    IndexTurns turns;
    FlowControl goesOn;
    {
        IndexTurns::Turn one(turns, Kind::Copy);
        IndexTurns::Turn other(turns, Kind::Copy);
        EXPECT_TRUE(one.take(goesOn));
        EXPECT_TRUE(other.take(goesOn));
        Stops stops(2);
        IndexTurns::Turn removal(turns, Kind::Removal);
        EXPECT_FALSE(removal.take(stops));
    }
    {
        IndexTurns::Turn removal(turns, Kind::Removal);
        EXPECT_TRUE(removal.take(goesOn));
        Stops stops(2);
        IndexTurns::Turn copy(turns, Kind::Copy);
        EXPECT_FALSE(copy.take(stops));
        Stops stopsToo(2);
        IndexTurns::Turn another(turns, Kind::Removal);
        EXPECT_FALSE(another.take(stopsToo));
    }
    IndexTurns::Turn copy(turns, Kind::Copy);
    EXPECT_TRUE(copy.take(goesOn)) << "who gave up is in nobody's way";
}

// Or copies that follow one another would keep it waiting for ever.
TEST(IndexTurnsTest, ARemovalThatWaitsComesBeforeTheNextCopy)
{
    IndexTurns turns;
    FlowControl goesOn;
    auto first = std::make_unique<IndexTurns::Turn>(turns, Kind::Copy);
    ASSERT_TRUE(first->take(goesOn));
    std::atomic<bool> hasRemoved{false};
    std::thread remover([&] {
        FlowControl control;
        IndexTurns::Turn removal(turns, Kind::Removal);
        EXPECT_TRUE(removal.take(control));
        hasRemoved = true;
    });
    // As soon as the removal waits no copy comes before it.
    bool isWaiting = false;
    while (!isWaiting) {
        Stops stops(1);
        IndexTurns::Turn copy(turns, Kind::Copy);
        isWaiting = !copy.take(stops);
    }
    EXPECT_FALSE(hasRemoved);
    first.reset();
    IndexTurns::Turn copy(turns, Kind::Copy);
    EXPECT_TRUE(copy.take(goesOn));
    EXPECT_TRUE(hasRemoved);
    remover.join();
}

TEST(IndexTurnsTest, NoCopyMeetsARemoval)
{
    IndexTurns turns;
    std::atomic<int> copies{0};
    std::atomic<int> removals{0};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int id = 0; id < 4; ++id) {
        threads.emplace_back([&, id] {
            FlowControl goesOn;
            for (int i = 0; i < 200; ++i) {
                const bool isCopy = id != 0;
                IndexTurns::Turn turn(turns, isCopy ? Kind::Copy : Kind::Removal);
                wrong += !turn.take(goesOn);
                ++(isCopy ? copies : removals);
                wrong += (isCopy ? removals : copies) != 0;
                std::this_thread::yield();
                --(isCopy ? copies : removals);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

} // namespace
