// What runs on a thread of its own may not throw: nobody is there to catch it, and the process
// would end. A turn of such a thread that finds no memory fails, and the next one may find some.
#pragma once

#include <exception>
#include <new>

#include "appliance/Result.h"

// The body's result; Failed for whatever it threw.
template <class Body> Result caught(Body body) noexcept
{
    try {
        try {
            return body();
        } catch (const std::bad_alloc&) {
            throw;
        } catch (const std::exception& failure) {
            return Result::failed(failure.what());
        }
    } catch (const std::bad_alloc&) {
        return Result::failed("no memory left"); // so short that it takes none
    }
}
