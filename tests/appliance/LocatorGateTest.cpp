#include "appliance/LocatorGate.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

namespace {

using Kind = LocatorGate::Kind;
using Ticket = LocatorGate::Ticket;

TEST(LocatorGateTest, FirstEntersAtOnceAndSecondAfterItIsSettled)
{
    LocatorGate gate;
    Ticket a, b;
    EXPECT_TRUE(gate.enter(&a, Kind::Locker).isSet());
    FutureStatus second = gate.enter(&b, Kind::Locker);
    EXPECT_FALSE(second.isSet());
    gate.settled(&a);
    EXPECT_EQ(second.get(), RC_SUCCESS);
    EXPECT_EQ(gate.holding(), 1u);
    gate.leave(&b);
    gate.leave(&a);
    EXPECT_EQ(gate.holding(), 0u);
}

TEST(LocatorGateTest, ParkedOneHoldsBackAllNewLockers)
{
    LocatorGate gate;
    Ticket holder, parked, late[3];
    gate.enter(&holder, Kind::Locker);
    gate.settled(&holder);
    EXPECT_TRUE(gate.enter(&parked, Kind::Locker).isSet());
    std::vector<FutureStatus> futures;
    for (Ticket& ticket : late)
        futures.push_back(gate.enter(&ticket, Kind::Locker));
    // The holder's leaving is what the parked one waits for in the locator; the late ones stay out.
    gate.leave(&holder);
    for (const FutureStatus& future : futures)
        EXPECT_FALSE(future.isSet());
    gate.settled(&parked);
    EXPECT_TRUE(futures[0].isSet());
    EXPECT_FALSE(futures[1].isSet());
    for (Ticket& ticket : late)
        gate.leave(&ticket);
    gate.leave(&parked);
}

TEST(LocatorGateTest, AloneWaitsForHoldersAndIsNotOvertaken)
{
    LocatorGate gate;
    Ticket holder, alone, late;
    gate.enter(&holder, Kind::Locker);
    gate.settled(&holder);
    FutureStatus aloneFuture = gate.enter(&alone, Kind::Alone);
    FutureStatus lateFuture = gate.enter(&late, Kind::Locker);
    EXPECT_FALSE(aloneFuture.isSet());
    EXPECT_FALSE(lateFuture.isSet());
    gate.leave(&holder);
    EXPECT_TRUE(aloneFuture.isSet());
    EXPECT_FALSE(lateFuture.isSet());
    gate.leave(&alone);
    EXPECT_TRUE(lateFuture.isSet());
    gate.leave(&late);
}

TEST(LocatorGateTest, CancelEndsWaitingAndLetsOthersPass)
{
    LocatorGate gate;
    Ticket holder, alone, late;
    gate.enter(&holder, Kind::Locker);
    gate.settled(&holder);
    FutureStatus aloneFuture = gate.enter(&alone, Kind::Alone);
    FutureStatus lateFuture = gate.enter(&late, Kind::Locker);
    gate.cancel(&alone);
    EXPECT_EQ(aloneFuture.get(), RC_ABORTED);
    EXPECT_EQ(lateFuture.get(), RC_SUCCESS);
    gate.cancel(&late); // inside: nothing happens
    gate.leave(&alone);
    gate.leave(&late);
    gate.leave(&holder);
    // A ticket serves again.
    EXPECT_TRUE(gate.enter(&alone, Kind::Alone).isSet());
    gate.leave(&alone);
    gate.leave(&alone); // idle: nothing happens
}

TEST(LocatorGateTest, DeadlineIsToLeaveTheQueue)
{
    LocatorGate gate;
    Ticket a, b, c;
    gate.enter(&a, Kind::Locker);
    FutureStatus second = gate.enter(&b, Kind::Locker);
    FutureStatus third = gate.enter(&c, Kind::Locker);
    EXPECT_FALSE(second.waitFor(1));
    gate.leave(&b);
    EXPECT_EQ(second.get(), RC_ABORTED);
    gate.settled(&a);
    EXPECT_EQ(third.get(), RC_SUCCESS);
    gate.leave(&c);
    gate.leave(&a);
}

// Lockers that come without a pause, and one that needs to be alone now and then: everybody gets
// in, nobody twice, and never an "alone" beside a holder.
TEST(LocatorGateTest, NobodyStarvesUnderLoad)
{
    constexpr int ROUNDS = 2000;
    LocatorGate gate;
    std::atomic<int> entered{0}, holders{0}, wrong{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            Ticket ticket;
            while (!stop) {
                gate.enter(&ticket, Kind::Locker).get();
                wrong += entered++ != 0;
                ++holders;
                --entered;
                gate.settled(&ticket);
                --holders;
                gate.leave(&ticket);
            }
        });
    Ticket alone;
    for (int i = 0; i < ROUNDS; ++i) {
        ASSERT_EQ(gate.enter(&alone, Kind::Alone).get(), RC_SUCCESS);
        wrong += entered++ != 0;
        wrong += holders != 0;
        --entered;
        gate.leave(&alone);
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(gate.queued(), 0u);
    EXPECT_EQ(gate.holding(), 0u);
}

} // namespace
