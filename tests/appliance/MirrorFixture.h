// A host, a mirror in a folder of its own, and what every block of its volume has to hold.
#pragma once

#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "appliance/Mirror.h"
#include "appliance/View.h"
#include "appliance/ViewReader.h"
#include "host/Host.h"
#include "tests/support/ImageHistory.h"

class MirrorFixture : public testing::Test
{
protected:
    static constexpr u64 BLOCKS = 4096;
    using Image = ImageHistory::Image;

    void SetUp() override
    {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "rl-mirror-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_root = pattern;
        HostOptions options;
        options.m_log = LogOutputOptions{LogFormat::Text, "", WarnLevel};
        ASSERT_TRUE(m_host.start(std::move(options)).ok());
    }

    void TearDown() override
    {
        m_mirror.reset();
        EXPECT_TRUE(m_host.stop().ok());
        std::filesystem::remove_all(m_root);
    }

    std::string folder() const { return m_root + "/m"; }

    void makeMirror(Compression compression = Compression::None)
    {
        MirrorSettings settings;
        settings.m_sizeBytes = BLOCKS * BLOCK_BYTES;
        settings.m_compression = compression;
        const Result result = Mirror::create(folder(), settings);
        ASSERT_TRUE(result.ok()) << result.message();
        openMirror();
    }

    void openMirror(MirrorAccess access = MirrorAccess::Writer)
    {
        m_mirror.reset();
        const Result result = Mirror::open(folder(), access, JournalRecovery::Tail, &m_mirror);
        ASSERT_TRUE(result.ok()) << result.message();
    }

    // Journals `count` random requests; m_images gets the volume after each one.
    void writeRandomly(u32 seed, u32 count)
    {
        std::mt19937 random(seed);
        Image image = m_images.back();
        for (u32 i = 0; i < count; ++i) {
            const u32 length = 1 + random() % 40;
            const u64 offset = random() % (BLOCKS - length);
            u8* data = image.data() + offset * BLOCK_BYTES;
            if (random() % 5 == 0) {
                std::memset(data, 0, size_t{length} * BLOCK_BYTES);
                ASSERT_TRUE(m_mirror->writeZeroes(offset, length).ok());
            } else {
                // Half of it compresses.
                for (u32 byte = 0; byte < length * BLOCK_BYTES; ++byte)
                    data[byte] = static_cast<u8>(byte % 2 == 0 ? random() : 7);
                ASSERT_TRUE(m_mirror->write(offset, data, length).ok());
            }
            m_images.add(image, offset * BLOCK_BYTES, u64{length} * BLOCK_BYTES);
        }
        ASSERT_TRUE(m_mirror->flush().ok());
    }

    std::unique_ptr<View> view(u64 items)
    {
        ChosenPoint point;
        point.m_items = items;
        FlowControl control;
        std::unique_ptr<View> built;
        const Result result = View::build(*m_mirror, point, control, &built);
        EXPECT_TRUE(result.ok()) << result.message();
        return built;
    }

    Image readAll(View& from)
    {
        ViewReader reader(from);
        Image image(BLOCKS * BLOCK_BYTES, 0xAA);
        EXPECT_EQ(reader.readNow(m_host.getEngine(), 0, BLOCKS, image.data()), RC_SUCCESS);
        return image;
    }

    std::string m_root;
    Host m_host;
    std::unique_ptr<Mirror> m_mirror;
    ImageHistory m_images{Image(BLOCKS * BLOCK_BYTES)}; // after 0, 1, 2... requests
};
