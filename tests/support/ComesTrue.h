// Waiting for what other threads or processes bring about, however slow the machine is.
#pragma once

#include <chrono>
#include <gtest/gtest.h>
#include <thread>

// What has no time limit of its own is waited for as long as it takes: the far end is there only so
// that a test which waits in vain ends, and says where.
constexpr std::chrono::minutes FAR_END{15};

// Returns whether the condition has come true.
template <class Condition> bool comesTrue(Condition condition)
{
    const auto farEnd = std::chrono::steady_clock::now() + FAR_END;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= farEnd)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Repeats the step for so long, and beyond that until it was enough; or a check was fatal.
template <class Enough, class Step>
void atLeastFor(std::chrono::milliseconds time, Enough isEnough, Step step)
{
    const auto begin = std::chrono::steady_clock::now();
    while (true) {
        const auto spent = std::chrono::steady_clock::now() - begin;
        if (testing::Test::HasFatalFailure() || spent >= FAR_END || (spent >= time && isEnough()))
            return;
        step();
    }
}
