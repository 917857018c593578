// A contender filled with a workload, and checked.
//
// Making one takes longer than measuring on it, so the benchmarks that follow each other on the
// same workload and size share one.
//
// Thread safety: one thread at a time.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "bench/Contender.h"
#include "bench/Workload.h"

// The blocks that the first items of a workload write, worked out without any index.
class ExpectedContents
{
public:
    explicit ExpectedContents(const Workload& workload);

    u64 coveredBlocks() const { return m_coveredBlocks; }

    // Compares the contender, which holds exactly the workload's fill: every block that is covered
    // is found, and some of them, and the last item, in the version that was written last. Answers
    // "" or what differs.
    std::string compare(Contender& contender) const;

private:
    struct Run
    {
        u64 m_startBlock;
        u64 m_endBlock;
    };

    std::string compareRuns(Contender& contender) const;
    std::string compareBlock(Contender& contender, u64 block) const;

    const Workload& m_workload;
    std::vector<Run> m_runs; // covered, ascending, with gaps between them
    u64 m_coveredBlocks = 0;
};

class Subject
{
public:
    // Fills a new contender, batch by batch, and compares it.
    Subject(Workload workload, std::unique_ptr<Contender> contender);
    Subject(const Subject&) = delete;
    Subject& operator=(const Subject&) = delete;

    Contender& index() { return *m_contender; }
    const Workload& workload() const { return m_workload; }

    // "", or why nothing that is measured on this subject would mean anything. Cheap: it looks at
    // the number of blocks covered, which no benchmark may change.
    std::string check();

    // The next item of the list, round after round.
    const SfsDiskMetaItem& nextItem()
    {
        if (m_next == m_workload.m_items.size())
            m_next = 0;
        return m_workload.m_items[m_next++];
    }

    // The same for a batch: up to `count` items in a row, fewer at the list's end.
    const SfsDiskMetaItem* nextItems(u32 count, u32* delivered);

private:
    const Workload m_workload;
    std::unique_ptr<Contender> m_contender;
    u64 m_coveredBlocks = 0;
    std::string m_difference;
    size_t m_next = 0;
};

// What a journal scan takes at a time.
constexpr u32 BATCH_ITEMS = 4096;

// Feeds the workload's fill to an empty index.
void fill(Contender& contender, const Workload& workload);
