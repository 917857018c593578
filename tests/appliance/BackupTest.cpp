#include "appliance/Backup.h"

#include <fstream>

#include "appliance/DeltaStream.h"
#include "appliance/LocatorDrain.h"
#include "appliance/Restore.h"
#include "appliance/SpanScan.h"
#include "tests/appliance/MirrorFixture.h"

namespace {

using Bytes = std::vector<char>;

class BackupTest : public MirrorFixture
{
protected:
    ChosenPoint at(const std::string& text)
    {
        PointName name;
        ChosenPoint point;
        EXPECT_TRUE(parsePoint(text, &name).ok());
        EXPECT_TRUE(choosePoint(name, m_mirror->window(), &point).ok()) << text;
        return point;
    }

    Result backup(const std::string& file, const std::string& point, const std::string& since = "",
                  IncrementManager* increments = nullptr, FlowControl* control = nullptr)
    {
        BackupOptions options;
        options.m_at = at(point);
        if (!since.empty())
            options.m_since = at(since);
        options.m_compare = m_compare;
        options.m_increments = increments;
        FlowControl none;
        return backupMirror(*m_mirror, m_host.getEngine(), path(file), options,
                            control != nullptr ? *control : none, &m_statistics);
    }

    Result restore(const std::vector<std::string>& files, Image* image = nullptr)
    {
        std::vector<std::string> paths;
        for (const std::string& file : files)
            paths.push_back(path(file));
        FlowControl control;
        RestoreStatistics statistics;
        Result result = restoreImage(paths, path("image"), control, &statistics);
        if (result.ok() && image != nullptr) {
            const Bytes bytes = load("image");
            image->assign(bytes.begin(), bytes.end());
        }
        return result;
    }

    std::string path(const std::string& file) const { return m_root + "/" + file; }

    Bytes load(const std::string& file)
    {
        std::ifstream in(path(file), std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }

    void store(const std::string& file, const Bytes& bytes)
    {
        std::ofstream(path(file), std::ios::binary)
            .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

    // Three checkpoints with writes before, between and after them.
    void makeHistory(Compression compression = Compression::None)
    {
        makeMirror(compression);
        CpId_t id = 0;
        for (u32 i = 0; i < 3; ++i) {
            writeRandomly(20 + i, 30);
            ASSERT_TRUE(m_mirror->checkpoint("", &id).ok());
        }
        writeRandomly(30, 10);
    }

    size_t filesInRoot() const
    {
        size_t files = 0;
        for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(m_root))
            ++files;
        return files;
    }

    bool m_compare = false;
    BackupStatistics m_statistics;
};

TEST_F(BackupTest, FullAndIncrementsRestoreEveryPoint)
{
    for (const Compression compression : {Compression::None, Compression::Zstd}) {
        m_images.resize(1);
        std::filesystem::remove_all(folder());
        makeHistory(compression);
        ASSERT_TRUE(backup("full", "cp:1").ok());
        ASSERT_TRUE(backup("one", "cp:2", "cp:1").ok());
        ASSERT_TRUE(backup("two", "item:75", "cp:2").ok());
        ASSERT_TRUE(backup("three", "latest", "item:75").ok());
        Image image;
        ASSERT_TRUE(restore({"full"}, &image).ok());
        EXPECT_EQ(image, m_images[30]);
        ASSERT_TRUE(restore({"full", "one"}, &image).ok());
        EXPECT_EQ(image, m_images[60]);
        ASSERT_TRUE(restore({"full", "one", "two"}, &image).ok());
        EXPECT_EQ(image, m_images[75]);
        ASSERT_TRUE(restore({"full", "one", "two", "three"}, &image).ok());
        EXPECT_EQ(image, m_images[100]);
        m_mirror.reset();
    }
}

TEST_F(BackupTest, FullHoldsTheDataOfTheTargetVolume)
{
    Image target(BLOCKS * BLOCK_BYTES);
    for (u64 block = 1000; block < 1800; ++block)
        std::memset(target.data() + block * BLOCK_BYTES, static_cast<int>(block % 251 + 1), 512);
    store("base", Bytes(target.begin(), target.end()));
    MirrorSettings settings;
    settings.m_sizeBytes = BLOCKS * BLOCK_BYTES;
    settings.m_target = path("base");
    ASSERT_TRUE(Mirror::create(folder(), settings).ok());
    openMirror();
    m_images.replaceLast(target);
    writeRandomly(40, 50);
    ASSERT_TRUE(backup("full", "latest").ok());
    Image image;
    ASSERT_TRUE(restore({"full"}, &image).ok());
    EXPECT_EQ(image, m_images[50]);
}

TEST_F(BackupTest, ComparedIncrementLeavesOutWhatIsEqual)
{
    makeMirror();
    const std::vector<u8> data(8 * BLOCK_BYTES, 3);
    CpId_t id = 0;
    ASSERT_TRUE(m_mirror->write(100, data.data(), 8).ok());
    ASSERT_TRUE(m_mirror->checkpoint("", &id).ok());
    ASSERT_TRUE(m_mirror->write(104, data.data(), 8).ok()); // its first half is as before
    ASSERT_TRUE(m_mirror->writeZeroes(90, 12).ok());        // only its end was anything
    ASSERT_TRUE(m_mirror->checkpoint("", &id).ok());
    ASSERT_TRUE(backup("plain", "cp:2", "cp:1").ok());
    EXPECT_EQ(m_statistics.m_dataBytes, 8 * BLOCK_BYTES);
    EXPECT_EQ(m_statistics.m_zeroBytes, 12 * BLOCK_BYTES);
    m_compare = true;
    ASSERT_TRUE(backup("compared", "cp:2", "cp:1").ok());
    EXPECT_EQ(m_statistics.m_dataBytes, 4 * BLOCK_BYTES);
    EXPECT_EQ(m_statistics.m_zeroBytes, 2 * BLOCK_BYTES);
    EXPECT_EQ(backup("none", "cp:2").code(), ResultCode::WrongUsage);
    m_compare = false;
    ASSERT_TRUE(backup("full", "cp:1").ok());
    Image plain;
    Image compared;
    ASSERT_TRUE(restore({"full", "plain"}, &plain).ok());
    ASSERT_TRUE(restore({"full", "compared"}, &compared).ok());
    EXPECT_EQ(plain, compared);
}

TEST_F(BackupTest, GathersTheNextIncrementInTheSameScan)
{
    makeHistory();
    IncrementOptions options;
    options.m_mirrorId = m_mirror->settings().m_id;
    options.m_volumeBlocks = BLOCKS;
    options.m_granuleBlocks = 1;
    IncrementManager::Opened opened = IncrementManager::open(m_mirror->storage(), options);
    ASSERT_EQ(opened.m_rc, RC_SUCCESS) << opened.m_message;
    ASSERT_TRUE(backup("full", "cp:1", "", opened.m_manager.get()).ok());
    EXPECT_TRUE(m_statistics.m_candidateKept) << m_statistics.m_candidateText;
    std::vector<LtrChangedRange> ranges;
    ASSERT_EQ(opened.m_manager->getIncrementCbt(&ranges), RC_SUCCESS);
    u64 blocks = 0;
    for (const LtrChangedRange& range : ranges)
        blocks += range.m_lengthBlocks;
    // Exactly what an increment up to the newest checkpoint holds.
    ASSERT_TRUE(backup("next", "cp:3", "cp:1").ok());
    EXPECT_EQ(blocks * BLOCK_BYTES, m_statistics.m_dataBytes + m_statistics.m_zeroBytes);
    EXPECT_FALSE(m_statistics.m_candidateKept);

    // A backup that fails keeps the increment as it was.
    ASSERT_FALSE(backup("no/such/folder", "cp:2", "", opened.m_manager.get()).ok());
    EXPECT_FALSE(opened.m_manager->candidate().has_value());
    EXPECT_EQ(opened.m_manager->increment()->m_endCheckpoint, 3u);
    // At the newest checkpoint nothing is later.
    ASSERT_TRUE(backup("last", "cp:3", "", opened.m_manager.get()).ok());
    EXPECT_TRUE(m_statistics.m_candidateKept);
    ASSERT_EQ(opened.m_manager->getIncrementCbt(&ranges), RC_SUCCESS);
    EXPECT_TRUE(ranges.empty());
}

TEST_F(BackupTest, RefusesWhatIsNoChain)
{
    makeHistory();
    ASSERT_TRUE(backup("full", "cp:1").ok());
    ASSERT_TRUE(backup("one", "cp:2", "cp:1").ok());
    ASSERT_TRUE(backup("two", "cp:3", "cp:2").ok());
    EXPECT_EQ(backup("back", "cp:1", "cp:2").code(), ResultCode::WrongUsage);
    EXPECT_EQ(backup("same", "cp:2", "cp:2").code(), ResultCode::WrongUsage);
    EXPECT_EQ(restore({"one"}).code(), ResultCode::Failed);
    EXPECT_EQ(restore({"full", "two"}).code(), ResultCode::Failed);
    EXPECT_EQ(restore({"full", "one", "one"}).code(), ResultCode::Failed);
    EXPECT_EQ(restore({"full", "full"}).code(), ResultCode::Failed);
    EXPECT_EQ(restore({"full", "missing"}).code(), ResultCode::NotFound);

    DeltaHeader header{"rl-1-cp-1", "rl-1-cp-2", BLOCKS * BLOCK_BYTES};
    const auto forge = [&](const DeltaHeader& as) {
        std::unique_ptr<DeltaWriter> writer;
        ASSERT_TRUE(DeltaWriter::open(path("forged"), as, &writer).ok());
        ASSERT_TRUE(writer->finish().ok());
    };
    forge(header); // of another mirror
    EXPECT_EQ(restore({"full", "forged"}).code(), ResultCode::Failed);
    header.m_from = deltaPointName(m_mirror->settings().m_id, at("cp:1"));
    header.m_to = deltaPointName(m_mirror->settings().m_id, at("cp:2"));
    header.m_sizeBytes += BLOCK_BYTES; // of another size
    forge(header);
    EXPECT_EQ(restore({"full", "forged"}).code(), ResultCode::Failed);
    EXPECT_FALSE(std::filesystem::exists(path("image")));
    EXPECT_EQ(filesInRoot(), 5u); // the mirror and four backups
}

TEST_F(BackupTest, RefusesFlippedBytesAndOtherLengths)
{
    makeMirror();
    // Data that does not compress, so that each byte of the frame says something.
    std::vector<u8> data(BLOCK_BYTES);
    std::mt19937 random(5);
    for (u8& byte : data)
        byte = static_cast<u8>(random());
    ASSERT_TRUE(m_mirror->write(10, data.data(), 1).ok());
    ASSERT_TRUE(m_mirror->flush().ok());
    ASSERT_TRUE(backup("full", "latest").ok());
    Image good;
    ASSERT_TRUE(restore({"full"}, &good).ok());
    std::filesystem::remove(path("image"));
    const Bytes bytes = load("full");
    ASSERT_LT(bytes.size(), 700u);
    u32 passed = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        Bytes flipped = bytes;
        flipped[i] = static_cast<char>(flipped[i] ^ (1 << (i % 8)));
        store("bad", flipped);
        Image image;
        const Result result = restore({"bad"}, &image);
        // The checksum is one of the content: another way to write the same content may pass.
        if (result.ok()) {
            ++passed;
            EXPECT_EQ(image, good) << "byte " << i;
            std::filesystem::remove(path("image"));
        } else {
            // A name that no mirror gives is met before the checksum is.
            EXPECT_TRUE(result.code() == ResultCode::Damaged || result.code() == ResultCode::Failed)
                << "byte " << i << ": " << result.message();
        }
        if (i % 5 != 0 && i + 10 < bytes.size())
            continue;
        Bytes cut = bytes;
        cut.resize(i);
        store("bad", cut);
        EXPECT_EQ(restore({"bad"}).code(), ResultCode::Damaged) << "cut at " << i;
    }
    EXPECT_LE(passed, 3u);
    Bytes longer = bytes;
    longer.push_back(0);
    store("bad", longer);
    EXPECT_EQ(restore({"bad"}).code(), ResultCode::Damaged);
    EXPECT_FALSE(std::filesystem::exists(path("image")));
}

TEST_F(BackupTest, InterruptedBackupLeavesNothing)
{
    class Stop : public FlowControl
    {
        bool stopRequested() override { return true; }
    } stop;
    makeHistory();
    EXPECT_EQ(backup("full", "cp:1", "", nullptr, &stop).code(), ResultCode::Interrupted);
    EXPECT_EQ(filesInRoot(), 1u);
    ASSERT_TRUE(backup("full", "cp:1").ok());
    RestoreStatistics statistics;
    EXPECT_EQ(restoreImage({path("full")}, path("image"), stop, &statistics).code(),
              ResultCode::Interrupted);
    EXPECT_EQ(filesInRoot(), 2u);
}

TEST_F(BackupTest, AbandonedDrainPutsEverythingBack)
{
    makeMirror();
    writeRandomly(50, 300);
    RegionLocator locator(1, RL_MMI_Backup);
    FlowControl control;
    ScanResult scanned;
    ASSERT_TRUE(indexSpan(*m_mirror, ChosenPoint(), at("latest"), locator, control, &scanned).ok());
    const u64 blocks = locator.getTotalRegionBlocks();
    {
        LocatorDrain drain(*m_mirror, locator, m_host.getEngine(),
                           LocatorDrain::Content::JournalOnly);
        bool more = false;
        const auto refuse = [](u64, u64, const u8*) { return Result::failed("no"); };
        EXPECT_FALSE(drain.next(refuse, &more).ok());
    }
    EXPECT_EQ(locator.getTotalRegionBlocks(), blocks);
    u64 drained = 0;
    u64 last = 0;
    {
        LocatorDrain drain(*m_mirror, locator, m_host.getEngine(),
                           LocatorDrain::Content::JournalOnly);
        for (bool more = true; more;)
            ASSERT_TRUE(drain
                            .next(
                                [&](u64 offset, u64 length, const u8*) {
                                    EXPECT_GE(offset, last);
                                    last = offset + length;
                                    drained += length;
                                    return Result();
                                },
                                &more)
                            .ok());
    }
    EXPECT_EQ(drained, blocks);
    EXPECT_EQ(locator.getItemCount(), 0u);
}

TEST_F(BackupTest, NamesSayTheMirror)
{
    ChosenPoint point;
    point.m_items = 12;
    EXPECT_EQ(deltaPointName(7, point), "rl-7-item-12");
    point.m_isCheckpoint = true;
    point.m_checkpoint.m_id = 3;
    EXPECT_EQ(deltaPointName(7, point), "rl-7-cp-3");
    EXPECT_EQ(deltaMirrorName("rl-7-cp-3"), "rl-7");
    EXPECT_EQ(deltaMirrorName("rl-7-item-12"), "rl-7");
    for (const char* wrong : {"", "rl-", "rl--cp-3", "rl-7", "rl-7-cp-", "rl-7-cp-x", "xl-7-cp-3"})
        EXPECT_EQ(deltaMirrorName(wrong), "") << wrong;
}

} // namespace
