#include "tests/support/ImageHistory.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <utility>

ImageHistory::ImageHistory(Image first) : m_shares(1), m_last(std::move(first))
{
    replaceLast(Image(m_last));
}

ImageHistory::Image ImageHistory::operator[](size_t index) const
{
    Image image;
    image.reserve(m_last.size());
    for (const Share& share : m_shares.at(index))
        image.insert(image.end(), share->begin(), share->end());
    return image;
}

void ImageHistory::add(const Image& image, u64 fromBytes, u64 lengthBytes)
{
    ASSERT_EQ(image.size(), m_last.size());
    ASSERT_LE(fromBytes + lengthBytes, image.size());
    addSame();
    if (lengthBytes == 0)
        return;
    std::vector<Share>& shares = m_shares.back();
    for (u64 i = fromBytes / SHARE_BYTES; i * SHARE_BYTES < fromBytes + lengthBytes; ++i) {
        const u64 end = std::min<u64>((i + 1) * SHARE_BYTES, image.size());
        shares[i] = std::make_shared<const std::vector<u8>>(image.data() + i * SHARE_BYTES,
                                                            image.data() + end);
    }
    std::copy_n(image.data() + fromBytes, lengthBytes, m_last.data() + fromBytes);
}

void ImageHistory::replaceLast(const Image& image)
{
    m_last = image;
    std::vector<Share>& shares = m_shares.back();
    shares.clear();
    for (u64 from = 0; from < image.size(); from += SHARE_BYTES) {
        const u64 end = std::min<u64>(from + SHARE_BYTES, image.size());
        shares.push_back(
            std::make_shared<const std::vector<u8>>(image.data() + from, image.data() + end));
    }
}

void ImageHistory::resize(size_t count)
{
    ASSERT_GT(count, 0u);
    ASSERT_LE(count, m_shares.size());
    m_shares.resize(count);
    m_last = (*this)[count - 1];
}
