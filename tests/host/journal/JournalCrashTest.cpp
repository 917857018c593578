// Power cuts: after every change of a short history, with every or many subsets of what was not
// synced, torn sectors among them.
#include <gtest/gtest.h>
#include <random>

#include "common/infra/LogItem.h"
#include "host/journal/JournalStore.h"
#include "host/journal/JournalVerifier.h"
#include "tests/support/CrashStorage.h"
#include "tests/support/JournalReadback.h"

namespace {

using Fate = CrashStorage::Fate;

// What a history asked for, and what it was promised.
struct Ledger
{
    std::vector<JournalRequest> m_requests;
    std::vector<std::string> m_tags;       // of the checkpoints asked for, in order
    std::vector<size_t> m_checkpointItems; // requests before each
    size_t m_durableRequests = 0;
    size_t m_durableCheckpoints = 0;
};

class History
{
public:
    History(JournalStore& store, Ledger& ledger) : m_store(store), m_ledger(ledger) {}

    bool append(u64 offset, u32 blocks, u64 seed)
    {
        const std::vector<u8> data = patternBlocks(seed, blocks, seed % 2 == 0);
        m_ledger.m_requests.push_back({offset, blocks, data});
        return m_store.append(offset, data.data(), blocks) == RC_SUCCESS || undo();
    }

    bool zeroes(u64 offset, u64 blocks)
    {
        m_ledger.m_requests.push_back({offset, blocks, {}});
        return m_store.appendZeroes(offset, blocks) == RC_SUCCESS || undo();
    }

    bool flush() { return m_store.flush() == RC_SUCCESS && promise(); }

    bool checkpoint(const std::string& tag)
    {
        m_ledger.m_tags.push_back(tag);
        m_ledger.m_checkpointItems.push_back(m_ledger.m_requests.size());
        return m_store.appendCheckpoint(tag, nullptr) == RC_SUCCESS && promise();
    }

    bool close() { return m_store.close() == RC_SUCCESS && promise(); }

private:
    // A refused append leaves nothing behind.
    bool undo()
    {
        m_ledger.m_requests.pop_back();
        return false;
    }

    bool promise()
    {
        m_ledger.m_durableRequests = m_ledger.m_requests.size();
        m_ledger.m_durableCheckpoints = m_ledger.m_tags.size();
        return true;
    }

    JournalStore& m_store;
    Ledger& m_ledger;
};

// Flushes of one page, of several, of none; a request over several pages; two sessions.
void play(Storage& storage, Ledger& ledger)
{
    JournalOptions options;
    options.mode = JournalMode::Writer;
    options.compression = Compression::Lz4;
    {
        const JournalStore::Opened opened = JournalStore::open(storage, options);
        if (!opened.m_store)
            return;
        History history(*opened.m_store, ledger);
        if (!history.append(1, 1, 1) || !history.append(2, 3, 2) || !history.flush() ||
            !history.zeroes(3, 40) || !history.checkpoint("first") || !history.append(4, 2, 3) ||
            !history.zeroes(0, 20 * 65535) || !history.append(5, 1, 5) || !history.flush() ||
            !history.append(6, 1, 7) || !history.close())
            return;
    }
    const JournalStore::Opened opened = JournalStore::open(storage, options);
    if (!opened.m_store)
        return;
    History history(*opened.m_store, ledger);
    if (history.append(7, 4, 4) && history.checkpoint("second") && history.checkpoint("") &&
        history.append(8, 1, 9))
        history.close();
}

// Opens what a power cut left, as a reader and as a writer, and checks it against the promises.
void check(CrashStorage& image, const Ledger& ledger)
{
    JournalOptions options;
    size_t items = 0;
    {
        const JournalStore::Opened opened = JournalStore::open(image, options);
        if (opened.m_rc == RC_NOT_FOUND) {
            ASSERT_EQ(ledger.m_durableRequests, 0u);
            return;
        }
        ASSERT_EQ(opened.m_rc, RC_SUCCESS) << opened.m_message;
        JournalStore& store = *opened.m_store;
        ASSERT_TRUE(opened.m_report.m_damage.empty()) << opened.m_report.m_damage[0].m_where;
        const std::vector<JournalRequest> found = readBack(store);
        items = found.size();
        ASSERT_GE(items, ledger.m_durableRequests) << "acknowledged, and lost";
        ASSERT_LE(items, ledger.m_requests.size());
        ASSERT_EQ(found, std::vector<JournalRequest>(ledger.m_requests.begin(),
                                                     ledger.m_requests.begin() +
                                                         static_cast<std::ptrdiff_t>(items)));
        const std::vector<JournalCheckpoint> checkpoints = store.checkpoints();
        ASSERT_GE(checkpoints.size(), ledger.m_durableCheckpoints);
        for (size_t i = 0; i < checkpoints.size(); ++i) {
            EXPECT_EQ(checkpoints[i].m_id, i + 1);
            EXPECT_EQ(checkpoints[i].m_tag, ledger.m_tags.at(i));
            EXPECT_EQ(checkpoints[i].m_itemsBefore, ledger.m_checkpointItems.at(i));
        }
        EXPECT_TRUE(verifyJournal(store).ok());
    }
    options.mode = JournalMode::Writer;
    std::vector<JournalRequest> expected;
    {
        const JournalStore::Opened opened = JournalStore::open(image, options);
        ASSERT_EQ(opened.m_rc, RC_SUCCESS) << opened.m_message;
        ASSERT_EQ(opened.m_store->itemCount(), items) << "a writer finds what a reader finds";
        const std::vector<u8> data = patternBlocks(77, 2);
        ASSERT_EQ(opened.m_store->append(70, data.data(), 2), RC_SUCCESS);
        ASSERT_EQ(opened.m_store->appendCheckpoint("again", nullptr), RC_SUCCESS);
        expected.assign(ledger.m_requests.begin(),
                        ledger.m_requests.begin() + static_cast<std::ptrdiff_t>(items));
        expected.push_back({70, 2, data});
    }
    options.mode = JournalMode::ReadOnly;
    options.recovery = JournalRecovery::Strict;
    const JournalStore::Opened opened = JournalStore::open(image, options);
    ASSERT_EQ(opened.m_rc, RC_SUCCESS) << opened.m_message;
    EXPECT_EQ(readBack(*opened.m_store), expected);
    EXPECT_EQ(opened.m_store->checkpoints().back().m_tag, "again");
}

// The fates to try for so many units: all of them while they are few.
std::vector<CrashStorage::Chooser> choosers(size_t units, u64 seed)
{
    std::vector<CrashStorage::Chooser> all;
    const u32 tornBytes[] = {1, 4, 8, 31, 64, 300, 511};
    if (units <= 6) {
        for (u64 mask = 0; mask < u64{1} << units; ++mask)
            all.push_back([mask](size_t unit) {
                return Fate{(mask >> unit & 1) != 0 ? Fate::Kept : Fate::Lost, 0};
            });
    }
    for (size_t one = 0; one < units; ++one) {
        for (const Fate::Kind others : {Fate::Kept, Fate::Lost}) {
            for (const u32 bytes : tornBytes)
                if (units <= 6 || bytes == tornBytes[(one + seed) % std::size(tornBytes)])
                    all.push_back([=](size_t unit) {
                        return unit == one ? Fate{Fate::Torn, bytes} : Fate{others, 0};
                    });
            const Fate::Kind opposite = others == Fate::Kept ? Fate::Lost : Fate::Kept;
            all.push_back([=](size_t unit) { return Fate{unit == one ? opposite : others, 0}; });
        }
    }
    for (u64 i = 0; i < 12; ++i)
        all.push_back([random = std::make_shared<std::mt19937_64>(seed * 100 + i)](size_t) {
            const u64 number = (*random)();
            return Fate{static_cast<Fate::Kind>(number % 3), static_cast<u32>(number >> 8) % 512};
        });
    all.push_back([](size_t) { return Fate{Fate::Lost, 0}; });
    all.push_back([](size_t) { return Fate{Fate::Kept, 0}; });
    return all;
}

class JournalCrashTest : public testing::Test
{
protected:
    // A dead storage makes every close fail, which is no news.
    JournalCrashTest()
        : m_sink(LogItem::setSink(
              [](LogModule, LogLevel, const std::string&, int, const std::string&) {}))
    {}
    ~JournalCrashTest() override { LogItem::setSink(m_sink); }

private:
    LogItem::Sink m_sink;
};

// The page cache outlives a killed process, and what it holds is found by the next one: which then
// has to make it durable before a flush may say so.
TEST_F(JournalCrashTest, WhatAKilledProcessLeftIsDurableOnceTheNextOneFlushes)
{
    for (u64 changes = 1;; ++changes) {
        CrashStorage storage;
        storage.dieAfter(changes);
        Ledger ledger;
        play(storage, ledger);
        const bool isWhole = !storage.isDead();
        const std::unique_ptr<CrashStorage> next = storage.takeOver();
        JournalOptions options;
        options.mode = JournalMode::Writer;
        const JournalStore::Opened opened = JournalStore::open(*next, options);
        ASSERT_EQ(opened.m_rc, RC_SUCCESS) << opened.m_message << ", " << changes << " changes";
        const u64 items = opened.m_store->itemCount();
        ASSERT_EQ(opened.m_store->flush(), RC_SUCCESS);
        const std::unique_ptr<CrashStorage> cut = next->crash([](size_t) {
            return Fate{Fate::Lost, 0};
        });
        const JournalStore::Opened left = JournalStore::open(*cut, JournalOptions());
        if (items == 0 && left.m_rc == RC_NOT_FOUND)
            continue;
        ASSERT_EQ(left.m_rc, RC_SUCCESS) << left.m_message << ", " << changes << " changes";
        ASSERT_EQ(left.m_store->itemCount(), items) << changes << " changes";
        if (isWhole)
            break;
    }
}

TEST_F(JournalCrashTest, HistoryWithoutACrashIsWhole)
{
    CrashStorage storage;
    Ledger ledger;
    play(storage, ledger);
    EXPECT_EQ(ledger.m_requests.size(), 9u);
    EXPECT_EQ(ledger.m_durableRequests, 9u);
    EXPECT_EQ(ledger.m_durableCheckpoints, 3u);
    check(*storage.restart(), ledger);
}

TEST_F(JournalCrashTest, EveryPowerCutLeavesAPrefixWithAllThatWasAcknowledged)
{
    u64 changes = 0;
    {
        CrashStorage storage;
        Ledger ledger;
        play(storage, ledger);
        changes = storage.changes();
    }
    size_t images = 0;
    for (u64 point = 0; point <= changes; ++point) {
        CrashStorage storage;
        Ledger ledger;
        storage.dieAfter(point);
        play(storage, ledger);
        for (const CrashStorage::Chooser& fate : choosers(storage.unsynced(), point)) {
            const auto image = storage.crash(fate);
            ++images;
            check(*image, ledger);
            ASSERT_FALSE(HasFatalFailure())
                << "power cut after change " << point << ", image " << images;
        }
    }
    EXPECT_GT(images, 2000u);
}

TEST_F(JournalCrashTest, PowerCutsDuringRecoveryLoseNothingEither)
{
    // A history cut where its largest flush is under way.
    for (u64 first = 20; first < 60; first += 3) {
        CrashStorage storage;
        Ledger ledger;
        storage.dieAfter(first);
        play(storage, ledger);
        std::mt19937_64 random(first);
        for (int round = 0; round < 12; ++round) {
            const auto damaged = storage.crash([&](size_t) {
                const u64 number = random();
                return Fate{static_cast<Fate::Kind>(number % 3),
                            static_cast<u32>(number >> 8) % 512};
            });
            // What is found first has been seen: it stays, whatever happens to the next session.
            Ledger seen = ledger;
            {
                const JournalStore::Opened opened = JournalStore::open(*damaged, {});
                if (!opened.m_store)
                    continue;
                seen.m_durableRequests = opened.m_store->itemCount();
                seen.m_requests.resize(seen.m_durableRequests);
            }
            const u64 base = damaged->changes();
            for (u64 second = 1; second < 30; ++second) {
                const auto again = damaged->restart();
                again->dieAfter(second);
                Ledger next = seen;
                JournalOptions options;
                options.mode = JournalMode::Writer;
                {
                    const JournalStore::Opened opened = JournalStore::open(*again, options);
                    if (opened.m_store) {
                        History history(*opened.m_store, next);
                        next.m_tags.resize(opened.m_store->checkpoints().size());
                        next.m_checkpointItems.resize(next.m_tags.size());
                        next.m_durableRequests = seen.m_requests.size();
                        next.m_durableCheckpoints = next.m_tags.size();
                        if (history.append(30, 1, 31) && history.flush() &&
                            history.append(31, 2, 33))
                            history.flush();
                    }
                }
                const auto image = again->crash([&](size_t) {
                    const u64 number = random();
                    return Fate{static_cast<Fate::Kind>(number % 3),
                                static_cast<u32>(number >> 8) % 512};
                });
                check(*image, next);
                ASSERT_FALSE(HasFatalFailure())
                    << "first cut " << first << " round " << round << " second cut " << second
                    << " of " << again->changes() - base;
            }
        }
    }
}

} // namespace
