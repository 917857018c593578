// Where an exported image goes. Data arrives in ascending order; what lies between reads as zeroes.
//
// Thread safety: one thread.
#pragma once

#include <memory>
#include <string>

#include "appliance/NewFile.h"
#include "appliance/Result.h"
#include "common/infra/Types.h"

class ImageSink
{
public:
    virtual ~ImageSink() = default;

    virtual Result write(u64 offsetBytes, const u8* data, u64 bytes) = 0;

    // Everything has been written: makes the image whole, under its name, and durable if it is to
    // be.
    virtual Result finish() = 0;

    // The sink for a path, as exportView() tells; sizeBytes: of the whole image. A sink that is
    // destroyed without finish() leaves no regular file behind.
    static Result open(const std::string& path, u64 sizeBytes, Durability durability,
                       std::unique_ptr<ImageSink>* sink);
};
