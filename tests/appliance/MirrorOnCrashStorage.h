// A mirror in a storage that loses power, for enumerating every moment at which it can.
#pragma once

#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "appliance/Mirror.h"
#include "appliance/View.h"
#include "appliance/ViewReader.h"
#include "host/Host.h"
#include "tests/support/CrashStorage.h"

class MirrorOnCrashStorage : public testing::Test
{
protected:
    static constexpr u64 BLOCKS = 256;
    using Image = std::vector<u8>;

    void SetUp() override
    {
        HostOptions options;
        options.m_log = LogOutputOptions{LogFormat::Text, "", ErrorLevel};
        ASSERT_TRUE(m_host.start(std::move(options)).ok());
    }
    void TearDown() override
    {
        m_mirror.reset();
        EXPECT_TRUE(m_host.stop().ok());
    }

    // An empty mirror, durable.
    static std::unique_ptr<CrashStorage> emptyMirror()
    {
        auto storage = std::make_unique<CrashStorage>();
        MirrorSettings settings;
        settings.m_id = 1;
        settings.m_sizeBytes = BLOCKS * BLOCK_BYTES;
        EXPECT_TRUE(storeSettings(*storage, settings).ok());
        std::unique_ptr<StorageFile> target;
        EXPECT_EQ(storage->open("target", StorageAccess::Create, &target), RC_SUCCESS);
        EXPECT_EQ(target->truncate(BLOCKS * BLOCK_BYTES), RC_SUCCESS);
        EXPECT_EQ(target->sync(), RC_SUCCESS);
        EXPECT_EQ(storage->syncDir(""), RC_SUCCESS);
        return storage;
    }

    // The storage stays reachable while the mirror owns it.
    Result open(std::unique_ptr<CrashStorage> storage, MirrorAccess access)
    {
        m_mirror.reset();
        m_storage = storage.get();
        return Mirror::openIn(std::move(storage), "mirror", access, JournalRecovery::Tail,
                              &m_mirror);
    }

    // Journals random requests, flushed now and then; m_images gets the volume after each.
    void writeRandomly(u32 seed, u32 count, u32 maxBlocks = 20)
    {
        std::mt19937 random(seed);
        Image image = m_images.back();
        for (u32 i = 0; i < count; ++i) {
            const u32 length = 1 + random() % maxBlocks;
            const u64 offset = random() % (BLOCKS - length);
            u8* data = image.data() + offset * BLOCK_BYTES;
            if (random() % 5 == 0) {
                std::fill_n(data, size_t{length} * BLOCK_BYTES, u8{0});
                ASSERT_TRUE(m_mirror->writeZeroes(offset, length).ok());
            } else {
                for (u32 byte = 0; byte < length * BLOCK_BYTES; ++byte)
                    data[byte] = static_cast<u8>(random());
                ASSERT_TRUE(m_mirror->write(offset, data, length).ok());
            }
            m_images.push_back(image);
            if (random() % 4 == 0) {
                ASSERT_TRUE(m_mirror->flush().ok());
            }
        }
        ASSERT_TRUE(m_mirror->flush().ok());
    }

    static ChosenPoint point(u64 items)
    {
        ChosenPoint chosen;
        chosen.m_items = items;
        return chosen;
    }

    // Every point that the window names reads as the volume was; the others are refused.
    void checkPoints(const std::string& where, u64 step = 1)
    {
        const RecoverableWindow window = m_mirror->window();
        ASSERT_EQ(window.m_items, m_images.size() - 1) << where;
        for (u64 items = window.m_firstItems; items <= window.m_items; items += step)
            checkPoint(items, where);
        checkPoint(window.m_items, where);
        if (window.m_firstItems > 0) {
            FlowControl control;
            std::unique_ptr<View> view;
            EXPECT_EQ(View::build(*m_mirror, point(window.m_firstItems - 1), control, &view).code(),
                      ResultCode::NotFound)
                << where;
        }
    }

    void checkPoint(u64 items, const std::string& where)
    {
        FlowControl control;
        std::unique_ptr<View> view;
        const Result built = View::build(*m_mirror, point(items), control, &view);
        ASSERT_TRUE(built.ok()) << where << ": " << built.message();
        Image image(BLOCKS * BLOCK_BYTES, 0xAA);
        ViewReader reader(*view);
        ASSERT_EQ(reader.readNow(m_host.getEngine(), 0, BLOCKS, image.data()), RC_SUCCESS) << where;
        ASSERT_EQ(image, m_images[items]) << where << ": item:" << items;
    }

    Image targetImage()
    {
        Image image(BLOCKS * BLOCK_BYTES, 0xAA);
        for (u64 i = 0; i < image.size(); ++i)
            image[i] = m_storage->byteAt("target", i);
        return image;
    }

    // What a crash keeps of what was not synced: nothing, everything, or some, torn sectors too.
    static CrashStorage::Chooser fate(u32 kind)
    {
        using Fate = CrashStorage::Fate;
        auto random = std::make_shared<std::mt19937>(kind);
        return [kind, random](size_t) {
            if (kind < 2)
                return Fate{kind == 0 ? Fate::Lost : Fate::Kept, 0};
            switch ((*random)() % 3) {
            case 0: return Fate{Fate::Lost, 0};
            case 1: return Fate{Fate::Kept, 0};
            default: return Fate{Fate::Torn, static_cast<u32>((*random)() % 512)};
            }
        };
    }

    Host m_host;
    std::unique_ptr<Mirror> m_mirror;
    CrashStorage* m_storage = nullptr; // the mirror's
    std::vector<Image> m_images{Image(BLOCKS * BLOCK_BYTES)};
};
