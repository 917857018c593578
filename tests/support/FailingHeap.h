// A heap whose n-th allocation from here on fails, on one thread.
//
//   FailingHeap heap(3);
//   store.append(...);          // its third allocation throws std::bad_alloc
//   EXPECT_TRUE(heap.failed());
//
// Works in programs of which one file includes ReplacedHeap.h. What is asked for without exceptions
// is let through: so are the tracked objects of the shield, for want of which a process stops by
// design.
#pragma once

#include <cstdlib>
#include <new>

#include "common/infra/Types.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HEAP_CAN_FAIL 0
#else
#define HEAP_CAN_FAIL 1
#endif

class FailingHeap
{
public:
    explicit FailingHeap(u64 nth) { s_left = nth; }
    ~FailingHeap() { s_left = 0; }
    FailingHeap(const FailingHeap&) = delete;
    FailingHeap& operator=(const FailingHeap&) = delete;

    // Whether the n-th was asked for.
    bool failed() const { return s_left == 0; }

    static void* take(size_t bytes)
    {
        if (s_left != 0 && --s_left == 0)
            throw std::bad_alloc();
        void* memory = std::malloc(bytes != 0 ? bytes : 1);
        if (memory == nullptr)
            throw std::bad_alloc();
        return memory;
    }

private:
    inline static thread_local u64 s_left = 0; // 0: none fails
};
