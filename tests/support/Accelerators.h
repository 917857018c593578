// Which of a locator's accelerators are on.
#pragma once

#include "common/infra/Tweaks.h"

// For the locators that are made while it lives.
class Accelerators
{
public:
    // The bits of t_RlAccelerators.
    static constexpr u64 DIRECTORY = 1;
    static constexpr u64 FINGER = 2;
    static constexpr u64 DESCENT = 4;
    static constexpr u64 SCANS = 8;
    static constexpr u64 LOCKS = 16;
    static constexpr u64 ALL = 31;
    static constexpr u64 NONE = 0;

    explicit Accelerators(u64 which, u64 fromRegions = 1)
    {
        Tweaks::set("t_RlAccelerators", which);
        Tweaks::set("t_RlAcceleratorsFromRegions", fromRegions);
    }
    ~Accelerators()
    {
        Tweaks::unset("t_RlAccelerators");
        Tweaks::unset("t_RlAcceleratorsFromRegions");
    }
    Accelerators(const Accelerators&) = delete;
    Accelerators& operator=(const Accelerators&) = delete;
};
