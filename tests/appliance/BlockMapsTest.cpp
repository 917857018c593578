// The block maps of all kinds of exports against an oracle that replays the requests block by block
// and asks the target's file itself: the same where nothing goes on, and wrong only in the safe
// direction beside writes, apply and trim.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

#include "appliance/Apply.h"
#include "appliance/ServedExport.h"
#include "appliance/Trim.h"
#include "tests/appliance/ServedFixture.h"
#include "tests/support/ComesTrue.h"

namespace {

enum class Kind : u8
{
    Nothing, // no request covers it
    Data,
    Zeroes,
};

struct Written
{
    u64 m_offset;
    u32 m_length;
    Kind m_kind;
};

// What a map says of one block.
struct Told
{
    bool m_isHole = false;
    bool m_isZero = false;
    bool operator==(const Told&) const = default;
};

constexpr Told DATA{false, false};
constexpr Told HOLE{true, true};
constexpr Told UNCHANGED{true, false};

class BlockMapsTest : public ServedFixture
{
protected:
    static constexpr u64 VOLUME_BLOCKS = 40000; // several windows of a map
    using Map = std::vector<Told>;

    void TearDown() override
    {
        if (m_targetFd >= 0)
            ::close(m_targetFd);
        ServedFixture::TearDown();
    }

    void serveVolume()
    {
        MirrorSettings settings;
        settings.m_sizeBytes = VOLUME_BLOCKS * BLOCK_BYTES;
        ASSERT_TRUE(Mirror::create(folder(), settings).ok());
        serve([](ServedOptions& options) { options.m_control = false; });
        m_targetFd = ::open((folder() + "/target").c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(m_targetFd, 0);
    }

    Mirror& mirror() { return m_served->mirror(); }

    std::unique_ptr<ServedExport> open(const std::string& name, Result* result)
    {
        std::unique_ptr<ServedExport> opened;
        *result = ServedExport::open(*m_served, name, &opened);
        return opened;
    }

    std::unique_ptr<ServedExport> openWell(const std::string& name)
    {
        Result result;
        std::unique_ptr<ServedExport> opened = open(name, &result);
        EXPECT_TRUE(result.ok()) << name << ": " << result.message();
        return opened;
    }

    // ---- one writer ----

    // Many short ones and a few that no window holds.
    static Written randomRequest(std::mt19937& random)
    {
        Written written;
        written.m_length = 1 + random() % (random() % 30 == 0 ? 9000 : 60);
        written.m_offset = random() % (VOLUME_BLOCKS - written.m_length);
        // So that runs are joined, too.
        if (random() % 3 == 0)
            written.m_offset = written.m_offset / 64 * 64;
        written.m_kind = random() % 3 == 0 ? Kind::Zeroes : Kind::Data;
        return written;
    }

    RcStatus write(const Written& written)
    {
        if (written.m_kind == Kind::Zeroes)
            return live().writeZeroes(written.m_offset, written.m_length);
        const std::vector<u8> data(written.m_length * BLOCK_BYTES, 7);
        return live().write(written.m_offset, data.data(), written.m_length);
    }

    void writeRandomly(std::mt19937& random, u32 count)
    {
        for (u32 i = 0; i < count; ++i) {
            m_requests.push_back(randomRequest(random));
            ASSERT_EQ(write(m_requests.back()), RC_SUCCESS);
            if (random() % 10 == 0) {
                ASSERT_EQ(live().flush(), RC_SUCCESS);
            }
        }
    }

    // ---- apply and trim ----

    void apply(u64 items)
    {
        ASSERT_EQ(live().flush(), RC_SUCCESS);
        m_served->views().dropUnused(items);
        ChosenPoint to;
        to.m_items = items;
        FlowControl control;
        ApplyStatistics statistics;
        const Result result =
            applyMirror(mirror(), m_host.getEngine(), to, ApplyOptions(), control, &statistics);
        ASSERT_TRUE(result.ok() || result.code() == ResultCode::InUse) << result.message();
        m_applies += result.ok();
    }

    void trim(u64 items)
    {
        ChosenPoint to;
        to.m_items = items;
        FlowControl control;
        TrimStatistics statistics;
        const Result result =
            trimMirror(mirror(), m_host.getEngine(), to, TrimOptions(), control, &statistics);
        ASSERT_TRUE(result.ok() || result.code() == ResultCode::InUse) << result.message();
        m_trimmed += statistics.m_items;
    }

    // ---- the oracle ----

    // The newest of the requests [from, to) at each block.
    static std::vector<Kind> replay(const std::vector<Written>& requests, u64 from, u64 to)
    {
        std::vector<Kind> blocks(VOLUME_BLOCKS, Kind::Nothing);
        for (u64 i = from; i < to; ++i)
            std::fill_n(blocks.begin() + static_cast<long>(requests[i].m_offset),
                        requests[i].m_length, requests[i].m_kind);
        return blocks;
    }

    // Whether the target's file has anything in a block.
    bool targetHasData(u64 block) const
    {
        const off_t offset = static_cast<off_t>(block * BLOCK_BYTES);
        const off_t data = ::lseek(m_targetFd, offset, SEEK_DATA);
        return data >= 0 && data < offset + BLOCK_BYTES;
    }

    // What is left in the index covers the block, or else the target's file tells.
    Map expectedMap(const std::vector<Kind>& indexed) const
    {
        Map map(VOLUME_BLOCKS);
        for (u64 block = 0; block < VOLUME_BLOCKS; ++block) {
            const bool isData = indexed[block] == Kind::Nothing ? targetHasData(block)
                                                                : indexed[block] == Kind::Data;
            map[block] = isData ? DATA : HOLE;
        }
        return map;
    }

    // A view keeps the zeroes that were there when it was built; data that were trimmed since are
    // on the target.
    std::vector<Kind> indexOfView(u64 beginWhenBuilt, u64 items) const
    {
        const std::vector<Kind> left = replay(m_requests, std::min(items, mirrorBegin()), items);
        std::vector<Kind> index = replay(m_requests, beginWhenBuilt, items);
        for (u64 block = 0; block < VOLUME_BLOCKS; ++block) {
            if (index[block] == Kind::Data && left[block] == Kind::Nothing)
                index[block] = Kind::Nothing;
        }
        return index;
    }

    u64 mirrorBegin() const { return m_served->mirror().journal().begin().m_items; }

    static Map expectedDiff(const std::vector<Kind>& between)
    {
        Map map(VOLUME_BLOCKS);
        for (u64 block = 0; block < VOLUME_BLOCKS; ++block)
            map[block] = between[block] == Kind::Nothing ? UNCHANGED
                         : between[block] == Kind::Data  ? DATA
                                                         : HOLE;
        return map;
    }

    // ---- the maps themselves ----

    // All of it, asked for in parts, each with as many extents as there may be; every part has to
    // begin where it was asked for, and to have no gaps.
    static bool readMap(ServedExport& exported, std::mt19937& random, Map* map)
    {
        map->assign(VOLUME_BLOCKS, Told());
        std::vector<ExportExtent> extents;
        const size_t most = random() % 3 == 0 ? 1 + random() % 5 : 100000;
        const u64 longest = random() % 3 == 0 ? 1 + random() % 3000 : VOLUME_BLOCKS;
        u64 block = 0;
        while (block < VOLUME_BLOCKS) {
            const u64 length = std::min(longest, VOLUME_BLOCKS - block);
            if (exported.extents(block * BLOCK_BYTES, static_cast<u32>(length * BLOCK_BYTES), most,
                                 &extents) != RC_SUCCESS)
                return false;
            if (extents.empty() || extents.size() > most)
                return false;
            const u64 end = block + length;
            for (const ExportExtent& extent : extents) {
                if (extent.m_offsetBytes != block * BLOCK_BYTES || extent.m_lengthBytes == 0 ||
                    extent.m_lengthBytes % BLOCK_BYTES != 0)
                    return false;
                const u64 blocks = extent.m_lengthBytes / BLOCK_BYTES;
                if (blocks > end - block)
                    return false;
                std::fill_n(map->begin() + static_cast<long>(block), blocks,
                            Told{extent.m_isHole, extent.m_isZero});
                block += blocks;
            }
            if (block < end && extents.size() < most)
                return false;
        }
        return true;
    }

    void expectMap(ServedExport& exported, const Map& expected, std::mt19937& random,
                   const std::string& where)
    {
        for (int i = 0; i < 3; ++i) {
            Map map;
            ASSERT_TRUE(readMap(exported, random, &map)) << where;
            for (u64 block = 0; block < VOLUME_BLOCKS; ++block)
                ASSERT_EQ(map[block], expected[block])
                    << where << ": block " << block << ": " << map[block].m_isHole
                    << map[block].m_isZero << " and not " << expected[block].m_isHole
                    << expected[block].m_isZero;
        }
    }

    std::vector<Written> m_requests; // items 1, 2...
    int m_targetFd = -1;
    u64 m_applies = 0;
    u64 m_trimmed = 0;
};

TEST_F(BlockMapsTest, AreExactWhereNothingGoesOn)
{
    serveVolume();
    std::mt19937 random(3);
    for (u32 round = 0; round < 8; ++round) {
        const std::string where = "round " + std::to_string(round);
        ASSERT_NO_FATAL_FAILURE(writeRandomly(random, 60));
        const u64 items = m_requests.size();
        // One view at a time, which so is not built from another one.
        m_served->views().dropUnused(~u64{0});
        const u64 first = mirror().applyState().m_items;
        const u64 from = first + random() % (items - first);
        const u64 to = from + 1 + random() % (items - from);
        const u64 begin = mirrorBegin();
        const std::unique_ptr<ServedExport> exported = openWell("live");
        const std::unique_ptr<ServedExport> diff =
            openWell("diff:item:" + std::to_string(from) + "..item:" + std::to_string(to));
        const std::unique_ptr<ServedExport> view = openWell("item:" + std::to_string(to));
        ASSERT_TRUE(exported && diff && view) << where;
        const auto expectAll = [&](const std::string& when) {
            expectMap(*exported, expectedMap(replay(m_requests, mirrorBegin(), items)), random,
                      when + " live");
            expectMap(*view, expectedMap(indexOfView(begin, to)), random, when + " view");
            expectMap(*diff, expectedDiff(replay(m_requests, from, to)), random, when + " diff");
        };
        ASSERT_NO_FATAL_FAILURE(expectAll(where + " written"));
        ASSERT_NO_FATAL_FAILURE(apply(first + random() % (to - first + 1)));
        ASSERT_NO_FATAL_FAILURE(expectAll(where + " applied"));
        ASSERT_NO_FATAL_FAILURE(trim(mirror().applyState().m_items));
        ASSERT_NO_FATAL_FAILURE(expectAll(where + " trimmed"));
    }
    EXPECT_EQ(m_applies, 8u);
    EXPECT_GT(m_trimmed, 100u);
}

// What each block holds, and whether it is just being written, for those who read beside the
// writer.
class BlockVersions
{
public:
    BlockVersions() : m_versions(new std::atomic<u32>[BLOCKS]) {}

    static constexpr u64 BLOCKS = 40000;

    void begin(const Written& written)
    {
        for (u64 i = 0; i < written.m_length; ++i)
            ++m_versions[written.m_offset + i]; // odd: being written
    }
    void end(const Written& written)
    {
        for (u64 i = 0; i < written.m_length; ++i) {
            std::atomic<u32>& version = m_versions[written.m_offset + i];
            // The last bit but one: whether it holds anything but zeroes.
            const u32 next = (version.load() | 3) + 1;
            version = next + (written.m_kind == Kind::Data ? 2 : 0);
        }
    }
    static bool isBeingWritten(u32 version) { return version % 2 != 0; }
    static bool isData(u32 version) { return version % 4 == 2; }

    std::vector<u32> snapshot() const
    {
        std::vector<u32> versions(BLOCKS);
        for (u64 block = 0; block < BLOCKS; ++block)
            versions[block] = m_versions[block];
        return versions;
    }

private:
    const std::unique_ptr<std::atomic<u32>[]> m_versions;
};

TEST_F(BlockMapsTest, NeverCallDataAHoleBesideWritesApplyAndTrim)
{
    static_assert(BlockVersions::BLOCKS == VOLUME_BLOCKS);
    serveVolume();
    BlockVersions versions;
    Mutex mutex; // of m_requests
    std::atomic<bool> stop{false};
    std::atomic<u32> failures{0};
    std::atomic<u32> wrong{0};
    std::atomic<u64> checkedLive{0};
    std::atomic<u64> checkedViews{0};
    std::atomic<u64> turns{0}; // applies tried

    std::thread writer([&] {
        std::mt19937 random(11);
        while (!stop) {
            const Written written = randomRequest(random);
            {
                MutexGuard guard(mutex);
                m_requests.push_back(written);
            }
            versions.begin(written);
            failures += write(written) != RC_SUCCESS;
            versions.end(written);
            if (random() % 16 == 0)
                failures += live().flush() != RC_SUCCESS;
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 500));
        }
    });

    std::thread liveReader([&] {
        std::mt19937 random(12);
        const std::unique_ptr<ServedExport> exported = openWell("live");
        while (!stop) {
            const std::vector<u32> before = versions.snapshot();
            Map map;
            failures += !readMap(*exported, random, &map);
            const std::vector<u32> after = versions.snapshot();
            for (u64 block = 0; block < VOLUME_BLOCKS; ++block) {
                const u32 version = before[block];
                if (version != after[block] || BlockVersions::isBeingWritten(version) ||
                    !BlockVersions::isData(version))
                    continue;
                wrong += map[block] != DATA;
                ++checkedLive;
            }
        }
    });

    const auto readPoints = [&](u32 seed) {
        std::mt19937 random(seed);
        while (!stop) {
            // With nothing open, every other time for the whole of an apply, so that the target is
            // brought on however slow the machine.
            const u64 turn = turns + 1 + random() % 2;
            while (turns < turn && !stop)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            const u64 items = mirror().journal().itemCount();
            const u64 first = mirror().applyState().firstItems();
            if (items < first + 2)
                continue;
            const u64 from = first + random() % (items - first);
            const u64 to = from + 1 + random() % (items - from);
            Result result;
            const std::unique_ptr<ServedExport> exported =
                open("diff:item:" + std::to_string(from) + "..item:" + std::to_string(to), &result);
            // The target may have been brought past the points meanwhile.
            if (result.code() == ResultCode::NotFound || result.code() == ResultCode::InUse)
                continue;
            failures += !result.ok();
            if (exported == nullptr)
                continue;
            const std::unique_ptr<ServedExport> view = open("item:" + std::to_string(to), &result);
            failures += !result.ok(); // it is open already
            if (view == nullptr)
                continue;
            std::vector<Written> requests;
            {
                MutexGuard guard(mutex);
                requests.assign(m_requests.begin(), m_requests.begin() + static_cast<long>(to));
            }
            const Map changed = expectedDiff(replay(requests, from, to));
            const std::vector<Kind> content = replay(requests, 0, to);
            for (int i = 0; i < 3 && !stop; ++i) {
                Map map;
                failures += !readMap(*exported, random, &map);
                wrong += map != changed; // made once, and exact whatever goes on
                failures += !readMap(*view, random, &map);
                for (u64 block = 0; block < VOLUME_BLOCKS; ++block)
                    wrong += content[block] == Kind::Data && map[block] != DATA;
                ++checkedViews;
            }
        }
    };
    std::thread pointReader([&] { readPoints(13); });

    // Until there was enough of everything, however slow the machine.
    std::mt19937 random(14);
    const auto isEnough = [&] {
        return m_applies >= 20 && m_trimmed >= 200 && checkedViews >= 12 &&
               checkedLive > 10 * VOLUME_BLOCKS;
    };
    atLeastFor(std::chrono::milliseconds(0), isEnough, [&] {
        const u64 items = mirror().journal().durableItemCount();
        const u64 applied = mirror().applyState().m_items;
        apply(std::max(applied, items - std::min<u64>(items, 20)));
        if (!HasFatalFailure())
            trim(mirror().applyState().m_items);
        ++turns;
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 10));
    });
    stop = true;
    writer.join();
    liveReader.join();
    pointReader.join();
    EXPECT_EQ(failures, 0u);
    EXPECT_EQ(wrong, 0u);
    EXPECT_TRUE(isEnough()) << m_applies << " applies, " << m_trimmed << " items trimmed, "
                            << checkedViews << " views, " << checkedLive << " blocks of live";
    ASSERT_NO_FATAL_FAILURE(expectMap(
        *openWell("live"), expectedMap(replay(m_requests, mirrorBegin(), m_requests.size())),
        random, "in the end"));
}

} // namespace
