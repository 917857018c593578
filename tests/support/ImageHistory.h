// What a volume held after each of many requests. An image shares with the one before it what did
// not change, so a thousand of them take the memory of a few; each is put together when it is asked
// for.
//
// Thread safety: any thread may ask while nobody adds.
#pragma once

#include <memory>
#include <vector>

#include "common/infra/Types.h"

class ImageHistory
{
public:
    using Image = std::vector<u8>;

    // Begins with this one.
    explicit ImageHistory(Image first);

    size_t size() const { return m_shares.size(); }

    // A copy: to be kept by whoever looks at it often. REQUIRES: index < size().
    Image operator[](size_t index) const;

    // The last one; good until the history changes.
    const Image& back() const { return m_last; }

    // Adds an image of the same size, which differs from the last one in these bytes alone.
    void add(const Image& image, u64 fromBytes, u64 lengthBytes);

    // Adds one that differs anywhere.
    void push_back(const Image& image) { add(image, 0, image.size()); }

    // Adds the last one again.
    void addSame() { m_shares.push_back(m_shares.back()); }

    // Puts an image in the place of the last one.
    void replaceLast(const Image& image);

    // Forgets all but so many at the beginning. REQUIRES: 0 < count <= size().
    void resize(size_t count);

private:
    // Small beside a request's data it would be many pointers, large many copies.
    static constexpr u64 SHARE_BYTES = 16 * 1024;
    using Share = std::shared_ptr<const std::vector<u8>>;

    std::vector<std::vector<Share>> m_shares; // of each image
    Image m_last;
};
