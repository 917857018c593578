// What runs on a thread of its own may not throw: nobody is there to catch it, and the process
// would end. A turn of such a thread that finds no memory fails, and the next one may find some.
#pragma once

#include <exception>

#include "appliance/Result.h"

// The body's result; Failed for whatever it threw.
template <class Body> Result caught(Body body) noexcept
{
    try {
        return body();
    } catch (const std::exception&) {
        return Result::failed("no memory left"); // so short that it takes none
    }
}
