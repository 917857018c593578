#include "appliance/GracePeriod.h"

#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

#include "appliance/FlagControl.h"

namespace {

constexpr u32 THREADS = 300; // more than one block has slots

TEST(GracePeriodTest, AllReadAtOnceHoweverManyAndAreWaitedFor)
{
    GracePeriod period;
    std::atomic<u32> reading{0};
    std::atomic<u32> gone{0};
    std::atomic<bool> leave{false};
    std::vector<std::thread> threads;
    for (u32 i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            const GracePeriod::Reader reader(period);
            reading.fetch_add(1);
            reading.notify_all();
            leave.wait(false);
            gone.fetch_add(1);
        });
    }
    // Ends only when each of them has a slot while all the others keep theirs.
    for (u32 now = reading.load(); now != THREADS; now = reading.load())
        reading.wait(now);
    EXPECT_FALSE(period.wait(0)) << "they are all there";
    leave = true;
    leave.notify_all();
    EXPECT_TRUE(period.wait());
    EXPECT_EQ(gone, THREADS);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(period.wait(0)) << "slots are given back";
}

TEST(GracePeriodTest, AReaderThatStaysIsNotWaitedForAfterAStop)
{
    GracePeriod period;
    std::atomic<bool> stop{false};
    FlagControl control(stop);
    auto reader = std::make_unique<GracePeriod::Reader>(period);
    std::thread stopper([&] { stop = true; });
    EXPECT_FALSE(period.wait(control));
    stopper.join();
    reader.reset();
    EXPECT_TRUE(period.wait(control)) << "there is nobody to wait for";
}

// What a remover overwrites after its wait, without a lock, is what readers read: a race between
// the two is one that the thread sanitizer sees, and one that the readers see themselves.
TEST(GracePeriodTest, NobodyReadsWhatIsTakenAway)
{
    GracePeriod period;
    std::vector<u64> places(2, 7);
    std::atomic<u32> current{0};
    std::atomic<bool> stop{false};
    std::atomic<u32> failures{0};
    std::vector<std::thread> threads;
    for (u32 i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            while (!stop) {
                const GracePeriod::Reader reader(period);
                const u64& place = places[current.load()];
                failures += place != 7;
                std::this_thread::yield();
                failures += place != 7;
            }
        });
    }
    for (int round = 0; round < 30; ++round) {
        const u32 old = current.load();
        places[1 - old] = 7;
        current = 1 - old;
        EXPECT_TRUE(period.wait());
        places[old] = 0;
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0u);
}

} // namespace
