// The two checks of the house.
//
// SOFT_CHECK writes one record and goes on as if the condition had held: the data path must
// rather serve on than stop. HARD_CHECK writes one record and stops the process at once, by a
// write through a null pointer: going on would destroy data, and unwinding would run code on a
// state that is known to be wrong.
//
//   SOFT_CHECK(found <= 1, << " found=" << found);
//   HARD_CHECK(desc.m_lengthBlocks > 0);
//
// The texts are read by people and by programs, so the condition is written so that its text comes
// out as wanted. A soft check prints its condition with macros replaced, a hard one as it stands.
// A condition has no side effects.
#pragma once

#include <cstddef>
#include <ostream>

#include "common/infra/LogItem.h"

#define SOFT_CHECK(condition, ...) SOFT_CHECK_EXPANDED(__PRETTY_FUNCTION__, condition, __VA_ARGS__)

// The same, reported under another function's signature: for a step that several functions share.
#define SOFT_CHECK_IN(signature, condition, ...)                                                   \
    SOFT_CHECK_EXPANDED(signature, condition, __VA_ARGS__)

#define SOFT_CHECK_EXPANDED(signature, condition, ...)                                             \
    do {                                                                                           \
        if (__builtin_expect(!(condition), 0)) {                                                   \
            LogItem(LogModuleXel, AssertLevel, signature, 3)                                       \
                << " " << __FILE__ << " " << __LINE__ << ": " << #condition                        \
                << " failed. " __VA_ARGS__ << std::endl;                                           \
        }                                                                                          \
    } while (false)

#define HARD_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (__builtin_expect(!(condition), 0)) {                                                   \
            LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)                           \
                << "Assertion (" << #condition << ") failed " << __FILE__ << " " << __LINE__       \
                << std::endl;                                                                      \
            stopProcess();                                                                         \
        }                                                                                          \
    } while (false)

// Stops the process where it stands. The pointer is volatile so that the compiler keeps the write.
[[noreturn]] inline void stopProcess()
{
    volatile int* volatile nowhere = nullptr;
    *nowhere = 0;
    __builtin_trap();
}
