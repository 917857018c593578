// The tasks that are ready, by priority and kind. A plain data structure: its owner holds the lock.
//
// Normal goes before Low before Lowest, and tasks that go on before tasks that start. What has been
// passed over for long enough goes first once, so that nothing starves.
#pragma once

#include <array>

#include "common/headers/AsyncTaskControl.h"

class ReadyQueues
{
public:
    // A queue that has been passed over so many times in a row while it held tasks goes first.
    static constexpr u32 PATIENCE_LOWER_PRIORITY = 16;
    static constexpr u32 PATIENCE_STARTING = 64;

    void push(AsyncTask* task, AsyncTaskQueue::AsyncTaskQueueID queue);

    // Takes the next task out; null when there is none.
    AsyncTask* pop();

    u64 size() const { return m_size; }

private:
    struct Fifo
    {
        AsyncTask* m_first = nullptr;
        AsyncTask* m_last = nullptr;
        bool empty() const { return m_first == nullptr; }
        void push(AsyncTask* task);
        AsyncTask* pop();
    };
    struct Level
    {
        Fifo m_starting;
        Fifo m_goingOn;
        u32 m_passedOver = 0;         // the level, while it held tasks
        u32 m_startingPassedOver = 0; // its starting tasks
        bool empty() const { return m_starting.empty() && m_goingOn.empty(); }
        AsyncTask* pop();
    };

    std::array<Level, 3> m_levels;
    u64 m_size = 0;
};
