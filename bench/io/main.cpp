// rl-bench-io: the paths between the journal on disk and the index. bench/measure-io runs it beside
// the programs that it is compared with; see bench/README.md.
//
// Each command measures one thing and prints one number, so that the caller can interleave runs.
#include <CLI/CLI.hpp>
#include <chrono>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "RegionLocator/RegionLocator.h"
#include "RegionLocator/RegionLocatorMetaDataContainer.h"
#include "bench/Random.h"
#include "common/infra/Assert.h"
#include "common/infra/LogItem.h"
#include "host/journal/FileStorage.h"
#include "host/journal/JournalScanner.h"
#include "host/journal/JournalStore.h"

namespace {

constexpr int EXIT_WRONG_USAGE = 2;
constexpr u32 WRITE_BLOCKS = 8;
constexpr u32 WRITE_BYTES = WRITE_BLOCKS * BLOCK_BYTES;
constexpr u32 BATCH_ITEMS = 4096;
constexpr u64 NO_DEADLINE = ~u64{0};

struct Options
{
    std::string m_folder;
    u64 m_items = 10'000'000;
    u64 m_places = 1'000'000;
    u64 m_flushEvery = 64;
};

int failed(const std::string& what, RcStatus rc)
{
    std::cerr << "rl-bench-io: " << what << ": " << rcStatusText(rc) << std::endl;
    return 1;
}

double secondsOf(const std::function<void()>& run)
{
    const auto start = std::chrono::steady_clock::now();
    run();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::unique_ptr<JournalStore> openJournal(FileStorage& storage, JournalMode mode)
{
    JournalOptions options;
    options.mode = mode;
    JournalStore::Opened opened = JournalStore::open(storage, options);
    if (opened.m_rc != RC_SUCCESS)
        std::cerr << "rl-bench-io: " << opened.m_message << std::endl;
    return std::move(opened.m_store);
}

// Where the n-th write goes, the same on every run: 4 KiB, every place equally often.
class Places
{
public:
    explicit Places(u64 places) : m_places(places), m_random(5) {}
    u64 next() { return m_random.below(m_places) * WRITE_BLOCKS; }

private:
    const u64 m_places;
    Random m_random;
};

// A journal of items that have no data: what a scan reads is the same, and 10^7 items fit anywhere.
int makeIndexJournal(const Options& options)
{
    FileStorage storage(options.m_folder);
    const auto journal = openJournal(storage, JournalMode::Writer);
    if (journal == nullptr)
        return 1;
    Places places(options.m_places);
    for (u64 i = 0; i < options.m_items; ++i) {
        const RcStatus rc = journal->appendZeroes(places.next(), WRITE_BLOCKS);
        if (rc != RC_SUCCESS)
            return failed("cannot append", rc);
    }
    const RcStatus rc = journal->close();
    return rc == RC_SUCCESS ? 0 : failed("cannot close the journal", rc);
}

// Nanoseconds an item: the same items from memory through the feeder alone.
int feed(const Options& options)
{
    std::vector<SfsDiskMetaItem> items(options.m_items);
    Places places(options.m_places);
    for (SfsDiskMetaItem& item : items) {
        item.m_ioData = {SFS_DEV_ADDR_INVALID, places.next()};
        item.setUncompressedLengthBlocks(WRITE_BLOCKS);
        item.setType(SfsMetaType::ZEROS);
    }
    RegionLocator locator(1, RL_MMI_View);
    SfsMetaDataContainer* feeder = locator.getInsertContainer();
    const double seconds = secondsOf([&] {
        for (u64 i = 0; i < items.size(); i += BATCH_ITEMS) {
            const u64 count = std::min<u64>(BATCH_ITEMS, items.size() - i);
            const RcStatus rc = feeder->prepareToAdd(static_cast<int>(count), NO_DEADLINE).get();
            HARD_CHECK(rc == RC_SUCCESS);
            for (u64 k = 0; k < count; ++k)
                feeder->addMetaData(items[i + k], JournalPtr::invalid);
            feeder->unPrepareToAdd();
        }
    });
    std::cout << seconds * 1e9 / static_cast<double>(items.size()) << " " << locator.getItemCount()
              << "\n";
    return 0;
}

// Nanoseconds an item: the journal scanned into an index.
int scan(const Options& options)
{
    FileStorage storage(options.m_folder);
    std::unique_ptr<JournalStore> journal;
    const double opening =
        secondsOf([&] { journal = openJournal(storage, JournalMode::ReadOnly); });
    if (journal == nullptr)
        return 1;
    RegionLocator locator(1, RL_MMI_View);
    locator.getInsertContainer()->init(~CpId_t{0});
    JournalScanner scanner(*journal);
    ScanResult result;
    const double seconds = secondsOf([&] { result = scanner.scan(*locator.getInsertContainer()); });
    if (result.rc != RC_SUCCESS)
        return failed("the scan failed: " + result.message, result.rc);
    if (result.logicalItems != options.m_items) {
        std::cerr << "rl-bench-io: the journal holds " << result.logicalItems << " items"
                  << std::endl;
        return 1;
    }
    const double items = static_cast<double>(options.m_items);
    std::cout << seconds * 1e9 / items << " " << locator.getItemCount() << " "
              << opening * 1e9 / items << "\n";
    return 0;
}

// Mebibytes a second: writes of 4 KiB with a flush after every so many, and one at the end.
int append(const Options& options)
{
    FileStorage storage(options.m_folder);
    const auto journal = openJournal(storage, JournalMode::Writer);
    if (journal == nullptr)
        return 1;
    std::vector<u8> data(u64{1} << 20);
    Random random(6);
    for (u8& byte : data)
        byte = static_cast<u8>(random.next());
    RcStatus rc = RC_SUCCESS;
    const double seconds = secondsOf([&] {
        for (u64 i = 0; i < options.m_items && rc == RC_SUCCESS; ++i) {
            rc = journal->append(i * WRITE_BLOCKS, &data[i * WRITE_BYTES % data.size()],
                                 WRITE_BLOCKS);
            if (rc == RC_SUCCESS && (i + 1) % options.m_flushEvery == 0)
                rc = journal->flush();
        }
        if (rc == RC_SUCCESS)
            rc = journal->flush();
    });
    if (rc != RC_SUCCESS)
        return failed("cannot append", rc);
    std::cout << static_cast<double>(options.m_items * WRITE_BYTES) / seconds / (1 << 20) << "\n";
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    LogItem::setSink(
        [](LogModule, LogLevel level, const std::string& origin, int, const std::string& text) {
            if (level < InfoLevel)
                std::cerr << "rl-bench-io: " << origin << ": " << text << std::endl;
        });
    Options options;
    int code = 0;
    CLI::App app("Measures the paths between the journal on disk and the index.");
    app.name("rl-bench-io");
    app.require_subcommand(1);
    const auto command = [&](const char* name, const char* text, int (*run)(const Options&)) {
        CLI::App* sub = app.add_subcommand(name, text);
        sub->add_option("FOLDER", options.m_folder, "Where the journal lies")->required();
        sub->add_option("--items", options.m_items, "Writes of 4 KiB")->capture_default_str();
        sub->callback([&options, &code, run] { code = run(options); });
        return sub;
    };
    CLI::App* indexed[] = {
        command("make-journal", "Make a journal of items without data", makeIndexJournal),
        command("feed", "Feed the same items from memory: nanoseconds an item, regions", feed),
        command("scan", "Build the index: nanoseconds an item, regions, and those of opening",
                scan)};
    for (CLI::App* sub : indexed)
        sub->add_option("--places", options.m_places, "Different places that are written")
            ->capture_default_str();
    command("append", "Append writes with data: MiB/s", append)
        ->add_option("--flush-every", options.m_flushEvery, "Writes between two flushes")
        ->capture_default_str()
        ->check(CLI::Range(u64{1}, ~u64{0}));
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return EXIT_WRONG_USAGE;
    }
    return code;
}
