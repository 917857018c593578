// A mirror that this process serves, and clients of it that know what they have written.
#pragma once

#include <functional>
#include <thread>

#include "appliance/ServedMirror.h"
#include "tests/appliance/MirrorFixture.h"

class ServedFixture : public MirrorFixture
{
protected:
    void TearDown() override
    {
        stopServing();
        MirrorFixture::TearDown();
    }

    void serve(const std::function<void(ServedOptions&)>& change = {})
    {
        m_mirror.reset();
        ServedOptions options;
        options.m_folder = folder();
        options.m_background = false;
        if (change)
            change(options);
        m_served = std::make_unique<ServedMirror>(m_host.getEngine(), options);
        const Result result = m_served->start();
        ASSERT_TRUE(result.ok()) << result.message();
    }

    void stopServing()
    {
        if (m_served != nullptr) {
            const Result result = m_served->stop();
            EXPECT_TRUE(result.ok()) << result.message();
        }
        m_served.reset();
    }

    LiveVolume& live() { return *m_served->live(); }

    Image readLive()
    {
        Image image(BLOCKS * BLOCK_BYTES, 0xAA);
        EXPECT_EQ(live().read(0, BLOCKS, image.data()), RC_SUCCESS);
        return image;
    }

    std::unique_ptr<ServedMirror> m_served;
};

// Writes to its own part of the volume, and compares what it reads there, until it is stopped. May
// be held between two requests.
class LiveClient
{
public:
    using Image = std::vector<u8>;

    LiveClient(LiveVolume& live, u64 firstBlock, u64 blocks, u32 seed)
        : m_live(live), m_first(firstBlock), m_blocks(blocks), m_random(seed),
          m_image(blocks * BLOCK_BYTES)
    {}
    ~LiveClient() { stop(); }
    LiveClient(const LiveClient&) = delete;
    LiveClient& operator=(const LiveClient&) = delete;

    void start()
    {
        m_thread = std::thread([this] {
            while (!m_stop) {
                {
                    const std::lock_guard<std::mutex> guard(m_between);
                    request();
                }
                std::this_thread::yield();
            }
        });
    }
    void stop()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }

    // Held by whoever wants that no request is under way.
    std::mutex& between() { return m_between; }
    // What its part of the volume holds. REQUIRES: it is held, or stopped.
    const Image& image() const { return m_image; }

    u64 requests() const { return m_requests; }
    u64 writtenBytes() const { return m_writtenBytes; }

private:
    void request()
    {
        const u32 length = 1 + static_cast<u32>(m_random() % 64);
        const u64 offset = m_random() % (m_blocks - length);
        u8* data = m_image.data() + offset * BLOCK_BYTES;
        const size_t bytes = size_t{length} * BLOCK_BYTES;
        const u32 kind = m_random() % 10;
        if (kind < 5) {
            for (size_t i = 0; i < bytes; i += 4) {
                const u32 word = static_cast<u32>(m_random());
                std::memcpy(data + i, &word, sizeof word);
            }
            ASSERT_EQ(m_live.write(m_first + offset, data, length), RC_SUCCESS);
            m_writtenBytes += bytes;
        } else if (kind == 5) {
            std::memset(data, 0, bytes);
            ASSERT_EQ(m_live.writeZeroes(m_first + offset, length), RC_SUCCESS);
            m_writtenBytes += bytes;
        } else {
            Image read(bytes, 0xAA);
            ASSERT_EQ(m_live.read(m_first + offset, length, read.data()), RC_SUCCESS);
            ASSERT_EQ(std::memcmp(read.data(), data, bytes), 0)
                << "blocks " << m_first + offset << " to " << m_first + offset + length - 1;
        }
        ++m_requests;
    }

    LiveVolume& m_live;
    const u64 m_first;
    const u64 m_blocks;
    std::mt19937 m_random;
    std::mutex m_between;
    Image m_image;
    std::atomic<bool> m_stop{false};
    std::atomic<u64> m_requests{0};
    std::atomic<u64> m_writtenBytes{0};
    std::thread m_thread;
};
